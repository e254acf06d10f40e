package org.vexatool;

/**
 * The host side: listens on the loopback interface, launches tests and exchanges messages with
 * them, addressed by device string and test item.
 *
 * <p>The listener runs on the server's own thread, one event at a time; it may send, but it must
 * not close this server ({@link #close} then throws {@link IllegalStateException}). Methods may be
 * called from any thread. A server that is never closed runs until the process ends: nothing
 * closes it when it becomes unreachable.
 */
public final class VexaServer implements AutoCloseable {
    /** Receives the tests' messages and {@link VexaEvents#CLIENT_IPC_CONFIG}, CLOSED and OFFLINE. */
    public interface Listener {
        /** {@code data} is never null: an event without a body brings an empty array. */
        void onEvent(int testItem, int eventId, String dev, int sec, int usec, byte[] data);
    }

    private final NativeHandle handle;

    private VexaServer(long handle) {
        this.handle = new NativeHandle(handle);
    }

    /**
     * Listens on {@code "tcp://:PORT"} (127.0.0.1) or {@code "tcp://IP:PORT"}.
     *
     * @throws VexaException when the server cannot be made (bad address, port in use)
     */
    public static VexaServer start(String address, Listener listener) throws VexaException {
        if (address == null || listener == null) {
            throw new NullPointerException("address and listener are required");
        }
        long server = Natives.serverStart(
                Natives.utf8(address), new EventDispatcher("server " + address, listener::onEvent));
        if (server == 0) {
            throw new VexaException("cannot start a server on " + address);
        }
        return new VexaServer(server);
    }

    /**
     * Starts a test: a path ending in ".so" is loaded into this process, anything else is started
     * as a program (through {@code su -c} unless {@link #setSuFilePath} said otherwise) with
     * {@code " -t <address>"}, then {@code " -d <dev>"} and the extra arguments when given.
     *
     * @return false when closed or {@code path} is null; true does not mean the test will register
     */
    public boolean runTest(String path, String dev, String extraArgs) {
        return handle.call(server -> Natives.serverRunTest(
                server, Natives.utf8(path), Natives.utf8(dev), Natives.utf8(extraArgs)));
    }

    /**
     * Sends one message to the test registered under {@code dev} and {@code testItem}.
     *
     * @param data the body, null for none
     * @return false when closed or the body is longer than {@link VexaEvents#MAX_BODY_LENGTH};
     *     true does not mean that such a test is registered
     */
    public boolean sendCommand(String dev, int testItem, int eventId, byte[] data) {
        if (data != null && data.length > VexaEvents.MAX_BODY_LENGTH) {
            return false;
        }
        return handle.call(server -> {
            Natives.serverSendCommand(server, Natives.utf8(dev), testItem, eventId, data);
            return true;
        });
    }

    /** Waits until 500 ms have passed since the last test program was started. */
    public void killClient() {
        handle.call(server -> {
            Natives.serverKillClient(server);
            return true;
        });
    }

    /**
     * Sets the prefix that starts test programs (default "su -c"; "" starts them directly) and a
     * shell command run before them. Nothing changes when either is null.
     */
    public void setSuFilePath(String su, String preCommand) {
        handle.call(server -> {
            Natives.serverSetSuFilePath(server, Natives.utf8(su), Natives.utf8(preCommand));
            return true;
        });
    }

    /**
     * Stops the server and closes every connection; later calls do nothing. Waits for calls under
     * way on other threads.
     *
     * @throws IllegalStateException when called from this server's own listener
     */
    @Override
    public void close() {
        handle.release(Natives::serverRelease);
    }
}
