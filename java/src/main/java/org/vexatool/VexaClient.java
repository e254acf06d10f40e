package org.vexatool;

import java.util.Objects;
import org.jetbrains.annotations.NotNull;
import org.jetbrains.annotations.Nullable;

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
        /**
         * Called for each event in turn, on the client's own thread.
         *
         * @param event the event; its {@link Event#reply} answers the server
         */
        void onEvent(@NotNull Event event);
    }

    /** An event at a test; {@link #reply} sends to the server. */
    public static final class Event extends VexaEvent {
        private final VexaClient client;

        Event(VexaClient client, int testItem, int eventId, String dev, int sec, int usec,
                byte[] data) {
            super(testItem, eventId, dev, sec, usec, data);
            this.client = client;
        }

        /**
         * The client that received this event.
         *
         * @return the client
         */
        public @NotNull VexaClient getClient() {
            return client;
        }

        /**
         * Sends to the server, as {@link VexaClient#send} does.
         *
         * @param eventId the event id of the answer
         * @param data the body, null for none
         * @return as {@link VexaClient#send}
         */
        @Override
        public boolean reply(int eventId, @Nullable byte[] data) {
            return client.send(eventId, data);
        }
    }

    private final NativeHandle handle = new NativeHandle();
    private final Listener listener;

    private VexaClient(Listener listener) {
        this.listener = listener;
    }

    /**
     * Connects to the address a test receives after {@code " -t "} and registers.
     *
     * @param address the server's address
     * @param dev the device string to register with
     * @param testItem the test item to register with
     * @param timeoutMs above 0: give up connecting after that long; otherwise wait as the system
     *     does
     * @param listener receives every event, and may run before this method returns; null for a
     *     client that only sends
     * @return the connected client
     * @throws VexaException when the server cannot be reached; its message names the client's log
     *     file
     */
    public static @NotNull VexaClient connect(@NotNull String address, @NotNull String dev,
            int testItem, int timeoutMs, @Nullable Listener listener) throws VexaException {
        byte[] addressBytes = Natives.utf8(Objects.requireNonNull(address, "address"));
        byte[] devBytes = Natives.utf8(Objects.requireNonNull(dev, "dev"));
        VexaClient client = new VexaClient(listener);
        EventDispatcher dispatcher =
                listener != null ? new EventDispatcher("client " + dev, client::deliver) : null;
        long made = 0;
        try {
            made = Natives.clientConnect(addressBytes, devBytes, testItem, timeoutMs, dispatcher);
        } finally {
            client.handle.publish(made);
        }
        if (made == 0) {
            throw VexaException.clientNotConnected(address, dev);
        }
        return client;
    }

    private void deliver(int testItem, int eventId, byte[] dev, int sec, int usec, byte[] data) {
        listener.onEvent(new Event(this, testItem, eventId, Natives.fromUtf8(dev), sec, usec, data));
    }

    /**
     * Sends one message to the server.
     *
     * @param eventId the event id
     * @param data the body, null for none
     * @return false when closed, the body is too long or the connection is gone
     */
    public boolean send(int eventId, @Nullable byte[] data) {
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
