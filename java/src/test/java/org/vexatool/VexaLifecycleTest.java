package org.vexatool;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNull;
import static org.junit.Assert.assertTrue;

import java.io.File;
import java.lang.management.ManagementFactory;
import java.lang.ref.WeakReference;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import org.junit.Test;
import org.vexatool.VexaSessionTest.Recorder;

/** Listeners that misbehave, a server going away, many endpoints, and the VM's exit. */
public class VexaLifecycleTest {
    @Test
    public void listenerFaultsAndServerGone() throws Exception {
        Recorder host = new Recorder();
        host.reaction = event -> {
            if (event.getEventId() == 7) {
                throw new IllegalStateException("a listener failing on purpose");
            }
        };
        BlockingQueue<Object> closeOutcome = new ArrayBlockingQueue<>(1);
        Recorder test = new Recorder();
        test.reaction = event -> {
            if (event.getEventId() == 50) {
                try {
                    ((VexaClient.Event) event).getClient().close();
                    closeOutcome.add("closed from its own listener");
                } catch (IllegalStateException expected) {
                    closeOutcome.add(expected);
                }
            }
        };
        String address = VexaSessionTest.freeAddress();
        VexaServer server = VexaServer.start(address, host);
        VexaClient client = VexaClient.connect(address, "faults", 3, 3000, test);
        host.await("faults", VexaEvents.CLIENT_IPC_CONFIG);

        assertTrue(client.send(7, VexaSessionTest.utf8("thrown at")));
        assertTrue(client.send(8, null));
        assertEquals(0, host.await("faults", 8).getData().length);

        assertTrue(server.sendCommand("faults", 3, 50, null));
        Object outcome = closeOutcome.poll(30, TimeUnit.SECONDS);
        assertTrue(String.valueOf(outcome), outcome instanceof IllegalStateException);
        assertTrue(client.send(9, null));
        host.await("faults", 9);

        server.close();
        byte[] gone = test.await(null, VexaEvents.CLIENT_IPC_DISCONNECTED).getData();
        assertEquals(VexaEvents.IPC_ERR_SERVER_CLOSED, VexaSessionTest.nativeInt(gone));
        client.close();
        client.close();
        assertFalse(client.send(1, null));
    }

    @Test
    public void aCallBeforeTheHandleIsPublishedWaitsForIt() throws Exception {
        NativeHandle handle = new NativeHandle(); // as a listener sees it before connect returns
        FutureTask<Boolean> early = new FutureTask<>(() -> handle.call(h -> h == 42));
        new Thread(early).start();
        Thread.sleep(100);
        assertFalse(early.isDone());
        handle.publish(42);
        assertTrue(early.get(30, TimeUnit.SECONDS));
    }

    /** Threads the VM does not run Java on: the library's, and callback threads not attached. */
    private static int nativeOnlyThreads() {
        return new File("/proc/self/task").list().length
                - ManagementFactory.getThreadMXBean().getThreadCount();
    }

    private static boolean attachedThreadsLeft() {
        for (Thread t : Thread.getAllStackTraces().keySet()) {
            if (t.getName().startsWith("vexatool-")) {
                return true;
            }
        }
        return false;
    }

    @Test
    public void manyEndpointsLeaveNoThreadsOrReferences() throws Exception {
        int nativeBefore = nativeOnlyThreads();
        Recorder host = new Recorder();
        WeakReference<Recorder> firstHost = new WeakReference<>(host);
        WeakReference<Recorder> firstTest = null;
        String address = VexaSessionTest.freeAddress();
        // 120 events on the server's one callback thread, one client thread each.
        try (VexaServer server = VexaServer.start(address, host)) {
            for (int i = 0; i < 40; i++) {
                Recorder test = new Recorder();
                if (firstTest == null) {
                    firstTest = new WeakReference<>(test);
                }
                try (VexaClient client = VexaClient.connect(address, "many" + i, 1, 3000, test)) {
                    assertTrue(client.send(1, null));
                    host.await("many" + i, 1);
                    assertTrue(server.sendCommand("many" + i, 1, 2, null));
                    test.await(null, 2);
                }
            }
        }
        host = null;
        long deadline = System.currentTimeMillis() + 20000;
        while ((attachedThreadsLeft() || nativeOnlyThreads() > nativeBefore
                       || firstHost.get() != null || firstTest.get() != null)
                && System.currentTimeMillis() < deadline) {
            System.gc();
            Thread.sleep(50);
        }
        assertFalse("a callback thread is still attached", attachedThreadsLeft());
        assertTrue("native threads left", nativeOnlyThreads() <= nativeBefore); // others may end
        assertNull("a listener is still referenced", firstHost.get());
        assertNull("a listener is still referenced", firstTest.get());
    }

    @Test
    public void vmExitsWithEndpointsLeftOpen() throws Exception {
        String java = System.getProperty("java.home") + "/bin/java";
        Process child = new ProcessBuilder(java, "-Xcheck:jni",
                "-Djava.library.path=" + System.getProperty("java.library.path"),
                "-cp", System.getProperty("java.class.path"), VexaLifecycleTest.class.getName())
                .inheritIO()
                .start();
        boolean exited = child.waitFor(60, TimeUnit.SECONDS);
        if (!exited) {
            child.destroyForcibly();
        }
        assertTrue("the VM did not exit by itself", exited);
        assertEquals(0, child.exitValue());
    }

    /** The VM of vmExitsWithEndpointsLeftOpen: both callback threads attached, nothing closed. */
    public static void main(String[] args) throws Exception {
        Recorder host = new Recorder();
        Recorder test = new Recorder();
        String address = VexaSessionTest.freeAddress();
        VexaServer server = VexaServer.start(address, host);
        VexaClient.connect(address, "left-open", 1, 3000, test);
        host.await("left-open", VexaEvents.CLIENT_IPC_CONFIG);
        assertTrue(server.sendCommand("left-open", 1, 2, null));
        test.await(null, 2);
    }
}
