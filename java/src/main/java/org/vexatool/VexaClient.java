package org.vexatool;

/**
 * The test side: one connection to a host's server, registered under a device string and a test
 * item.
 *
 * <p>The listener runs on the client's own thread; it may send, but it must not close this client
 * ({@link #close} then throws {@link IllegalStateException}). Methods may be called from any
 * thread. A client that is never closed stays connected until the process ends.
 */
public final class VexaClient implements AutoCloseable {
    /** Receives the server's messages and {@link VexaEvents#CLIENT_IPC_DISCONNECTED}. */
    public interface Listener {
        /** {@code data} is never null: an event without a body brings an empty array. */
        void onEvent(int testItem, int eventId, String dev, int sec, int usec, byte[] data);
    }

    private final NativeHandle handle;

    private VexaClient(long handle) {
        this.handle = new NativeHandle(handle);
    }

    /**
     * Connects to the address a test receives after {@code " -t "} and registers.
     *
     * @param timeoutMs above 0: give up connecting after that long; otherwise wait as the system
     *     does
     * @param listener null for a client that only sends
     * @throws VexaException when the server cannot be reached
     */
    public static VexaClient connect(String address, String dev, int testItem, int timeoutMs,
            Listener listener) throws VexaException {
        if (address == null) {
            throw new NullPointerException("address is required");
        }
        EventDispatcher dispatcher =
                listener != null ? new EventDispatcher("client " + dev, listener::onEvent) : null;
        long client = Natives.clientConnect(
                Natives.utf8(address), Natives.utf8(dev), testItem, timeoutMs, dispatcher);
        if (client == 0) {
            throw new VexaException("cannot connect to " + address + " as " + dev);
        }
        return new VexaClient(client);
    }

    /**
     * Sends one message to the server.
     *
     * @param data the body, null for none
     * @return false when closed, the body is too long or the connection is gone
     */
    public boolean send(int eventId, byte[] data) {
        if (data != null && data.length > VexaEvents.MAX_BODY_LENGTH) {
            return false;
        }
        return handle.call(client -> Natives.clientSend(client, eventId, data));
    }

    /**
     * Asks the server to close (waits up to 2000 ms for its answer), then stops receiving; later
     * calls do nothing.
     *
     * @throws IllegalStateException when called from this client's own listener
     */
    @Override
    public void close() {
        handle.release(Natives::clientRelease);
    }
}
