package org.vexatool;

import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;
import static org.junit.Assert.fail;

import java.io.IOException;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.function.IntConsumer;
import org.junit.Test;

/** A Java host launching the C example test program: messages both ways, 9005 and 9006. */
public class VexaSessionTest {
    static final String EXAMPLE_TEST = System.getProperty("vexa.exampleTest");
    /** The same program named as an app ships it; a blank after the path runs it. */
    static final String EXAMPLE_TEST_AS_LIB = System.getProperty("vexa.exampleTestAsLib") + " ";

    /** One event as a listener saw it. */
    static final class Event {
        final int id;
        final String dev;
        final byte[] data;

        Event(int id, String dev, byte[] data) {
            this.id = id;
            this.dev = dev;
            this.data = data;
        }
    }

    /** A listener for either side that keeps every event. */
    static class Recorder implements VexaServer.Listener, VexaClient.Listener {
        private final List<Event> events = new ArrayList<>();
        /** Runs first for every event id; what it throws, the listener throws. */
        IntConsumer reaction = id -> {};

        @Override
        public synchronized void onEvent(
                int item, int id, String dev, int sec, int usec, byte[] data) {
            reaction.accept(id);
            if (data == null) {
                throw new AssertionError("null data for event " + id);
            }
            events.add(new Event(id, dev, data));
            notifyAll();
        }

        /** The first event with this id (from dev, unless null), waiting up to 30 s for it. */
        synchronized Event await(String dev, int id) throws InterruptedException {
            long deadline = System.currentTimeMillis() + 30000;
            for (;;) {
                for (Event e : events) {
                    if (e.id == id && (dev == null || dev.equals(e.dev))) {
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
                assertArrayEquals(utf8("hello from " + dev), host.await(dev, 1000).data);
            }
            long killedPid = nativeInt(host.await(killed, VexaEvents.CLIENT_IPC_CONFIG).data);

            byte[] largest = new byte[VexaEvents.MAX_BODY_LENGTH];
            for (int i = 0; i < largest.length; i++) {
                largest[i] = (byte) (i * 31 + i / 251);
            }
            assertTrue(server.sendCommand(leaving, 1, 2000, largest));
            assertArrayEquals(largest, host.await(leaving, 2001).data);
            assertFalse(server.sendCommand(leaving, 1, 2000, new byte[largest.length + 1]));

            ProcessHandle.of(killedPid).ifPresent(ProcessHandle::destroyForcibly);
            assertEquals(0, host.await(killed, VexaEvents.CLIENT_IPC_OFFLINE).data.length);

            assertTrue(server.sendCommand(leaving, 1, 2099, null));
            assertArrayEquals(utf8("bye"), host.await(leaving, 2098).data);
            host.await(leaving, VexaEvents.CLIENT_IPC_CLOSED);
            server.killClient();
            server.close();
            assertFalse(server.sendCommand(leaving, 1, 2000, null));
            assertFalse(server.runTest(EXAMPLE_TEST, leaving, null));
        } finally {
            server.close();
        }
    }

    @Test
    public void endpointsThatCannotBeMadeThrow() throws Exception {
        Recorder listener = new Recorder();
        assertThrows(VexaException.class, () -> VexaServer.start("tcp://:no-port", listener));
        String nobody = freeAddress();
        assertThrows(VexaException.class, () -> VexaClient.connect(nobody, "x", 1, 500, null));
        try (VexaServer server = VexaServer.start(freeAddress(), listener)) {
            // Cut at the NUL, the device string would name another test.
            assertThrows(IllegalArgumentException.class,
                    () -> server.sendCommand("a\0b", 1, 2, null));
        }
    }
}
