package org.vexatool;

import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;
import static org.junit.Assert.fail;

import java.io.File;
import java.io.IOException;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.function.Consumer;
import org.junit.Test;
import org.junit.function.ThrowingRunnable;

/** A Java host launching the C example test program: messages both ways, 9005 and 9006. */
public class VexaSessionTest {
    static final String EXAMPLE_TEST = System.getProperty("vexa.exampleTest");
    /** The same program named as an app ships it; a blank after the path runs it. */
    static final String EXAMPLE_TEST_AS_LIB = System.getProperty("vexa.exampleTestAsLib") + " ";

    /** A listener for either side that keeps every event. */
    static class Recorder implements VexaServer.Listener, VexaClient.Listener {
        private final List<VexaEvent> events = new ArrayList<>();
        /** Runs first for every event; what it throws, the listener throws. */
        Consumer<VexaEvent> reaction = event -> {};

        @Override
        public void onEvent(VexaServer.Event event) {
            record(event);
        }

        @Override
        public void onEvent(VexaClient.Event event) {
            record(event);
        }

        private synchronized void record(VexaEvent event) {
            reaction.accept(event);
            if (event.getData() == null) {
                throw new AssertionError("null data for event " + event.getEventId());
            }
            events.add(event);
            notifyAll();
        }

        /** The first event with this id (from dev, unless null), waiting up to 30 s for it. */
        synchronized VexaEvent await(String dev, int id) throws InterruptedException {
            long deadline = System.currentTimeMillis() + 30000;
            for (;;) {
                for (VexaEvent e : events) {
                    if (e.getEventId() == id && (dev == null || dev.equals(e.getDev()))) {
                        return e;
                    }
                }
                long left = deadline - System.currentTimeMillis();
                if (left <= 0) {
                    fail("no event " + id + " from " + dev);
                }
                wait(left);
            }
        }
    }

    static String freeAddress() throws IOException {
        try (ServerSocket probe = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            return "tcp://:" + probe.getLocalPort();
        }
    }

    static int nativeInt(byte[] data) {
        assertEquals(4, data.length);
        return ByteBuffer.wrap(data).order(ByteOrder.nativeOrder()).getInt();
    }

    static byte[] utf8(String text) {
        return text.getBytes(StandardCharsets.UTF_8);
    }

    @Test
    public void hostLaunchesTestsTalksBothWaysAndSeesThemLeave() throws Exception {
        Recorder host = new Recorder();
        // Outside the BMP, UTF-8 and the VM's modified UTF-8 differ.
        String leaving = "leaving-\u00e9";
        String killed = "killed-\uD83D\uDE00";
        VexaServer server = VexaServer.start(freeAddress(), host);
        try {
            server.setSuFilePath("", "");
            assertTrue(server.runTest(EXAMPLE_TEST, leaving, null));
            assertTrue(server.runTest(EXAMPLE_TEST_AS_LIB, killed, "--ignored"));
            for (String dev : new String[] {leaving, killed}) {
                assertArrayEquals(utf8("hello from " + dev), host.await(dev, 1000).getData());
            }
            long killedPid = nativeInt(host.await(killed, VexaEvents.CLIENT_IPC_CONFIG).getData());

            byte[] largest = new byte[VexaEvents.MAX_BODY_LENGTH];
            for (int i = 0; i < largest.length; i++) {
                largest[i] = (byte) (i * 31 + i / 251);
            }
            assertTrue(server.sendCommand(leaving, 1, 2000, largest));
            assertArrayEquals(largest, host.await(leaving, 2001).getData());
            assertFalse(server.sendCommand(leaving, 1, 2000, new byte[largest.length + 1]));

            ProcessHandle.of(killedPid).ifPresent(ProcessHandle::destroyForcibly);
            assertEquals(0, host.await(killed, VexaEvents.CLIENT_IPC_OFFLINE).getData().length);
            assertFalse(server.sendCommand(killed, 1, 2000, null));

            assertTrue(server.sendCommand(leaving, 1, 2099, null));
            assertArrayEquals(utf8("bye"), host.await(leaving, 2098).getData());
            host.await(leaving, VexaEvents.CLIENT_IPC_CLOSED);
            assertFalse(server.sendCommand(leaving, 1, 2000, null));
            server.killClient();
            server.close();
            assertFalse(server.runTest(EXAMPLE_TEST, leaving, null));
        } finally {
            server.close();
        }
    }

    @Test
    public void sendCommandIsTrueForRegisteredKeysOnly() throws Exception {
        Recorder host = new Recorder();
        Recorder first = new Recorder();
        Recorder second = new Recorder();
        String address = freeAddress();
        try (VexaServer server = VexaServer.start(address, host)) {
            VexaClient phone1 = VexaClient.connect(address, "phone1", 2, 3000, first);
            assertFalse(server.sendCommand("phone1", 3, 1, null));
            host.await("phone1", VexaEvents.CLIENT_IPC_CONFIG);
            // The key is the device string and the item without a separator: both pairs give phone12.
            assertTrue(server.sendCommand("phone", 12, 1, null));
            first.await(null, 1);
            VexaClient phone = VexaClient.connect(address, "phone", 12, 3000, second);
            host.await("phone", VexaEvents.CLIENT_IPC_CONFIG);
            first.await(null, VexaEvents.CLIENT_IPC_DISCONNECTED); // replaced
            assertTrue(server.sendCommand("phone1", 2, 2, null));
            second.await(null, 2);
            phone.close();
            host.await("phone", VexaEvents.CLIENT_IPC_CLOSED);
            assertFalse(server.sendCommand("phone1", 2, 3, null));
            phone1.close();
        }
    }

    /** The file that the exception's message names as the log is the library's, in VEXA_LOG_DIR. */
    private static void assertNamesItsLog(String fileName, ThrowingRunnable makeEndpoint) {
        String message = assertThrows(VexaException.class, makeEndpoint).getMessage();
        File log = new File(message.substring(message.indexOf("its log: ") + "its log: ".length()));
        assertEquals(new File(System.getenv("VEXA_LOG_DIR"), fileName), log);
        assertTrue(log + " is missing", log.isFile());
    }

    @Test
    public void endpointsThatCannotBeMadeThrowNamingTheirLog() throws Exception {
        Recorder listener = new Recorder();
        // VEXA_LOG_DIR is set without the final "/".
        assertNamesItsLog("ipc_server_no-port.log", () -> VexaServer.start("tcp://:no-port", listener));
        assertNamesItsLog("ipc_server_127.0.0.1.0.x.log",
                () -> VexaServer.start("tcp://127.0.0.1:0:x", listener));
        String nobody = freeAddress();
        assertNamesItsLog("ipc_client_x.log", () -> VexaClient.connect(nobody, "x", 1, 500, null));
        try (VexaServer server = VexaServer.start(freeAddress(), listener)) {
            // Cut at the NUL, the device string would name another test.
            assertThrows(IllegalArgumentException.class,
                    () -> server.sendCommand("a\0b", 1, 2, null));
        }
    }
}
