package org.vexatool;

import java.nio.charset.Charset;
import java.util.Collections;
import java.util.HashSet;
import java.util.Objects;
import java.util.Set;
import org.jetbrains.annotations.NotNull;
import org.jetbrains.annotations.Nullable;

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
    /**
     * Receives the tests' messages, {@link VexaEvents#CLIENT_IPC_CONFIG} when a test registers,
     * {@link VexaEvents#CLIENT_IPC_CLOSED} and {@link VexaEvents#CLIENT_IPC_OFFLINE} when it leaves.
     */
    public interface Listener {
        /**
         * Called for each event in turn, on the server's own thread.
         *
         * @param event the event; its {@link Event#reply} answers the test it came from
         */
        void onEvent(@NotNull Event event);
    }

    /** An event at the host; {@link #reply} sends to the test that the event came from. */
    public static final class Event extends VexaEvent {
        private final VexaServer server;
        private final byte[] devBytes; // as received, so that the reply reaches the same pair

        Event(VexaServer server, int testItem, int eventId, byte[] dev, int sec, int usec,
                byte[] data) {
            super(testItem, eventId, Natives.fromUtf8(dev), sec, usec, data);
            this.server = server;
            this.devBytes = dev;
        }

        /**
         * The server that received this event.
         *
         * @return the server
         */
        public @NotNull VexaServer getServer() {
            return server;
        }

        /**
         * Sends to the pair this event came from, as {@link VexaServer#sendCommand} does.
         *
         * @param eventId the event id of the answer
         * @param data the body, null for none
         * @return as {@link VexaServer#sendCommand}
         */
        @Override
        public boolean reply(int eventId, @Nullable byte[] data) {
            return server.sendCommand(devBytes, getTestItem(), eventId, data);
        }
    }

    private static final Charset ISO_8859_1 = Charset.forName("ISO-8859-1");

    private final NativeHandle handle = new NativeHandle();
    private final Listener listener;
    /** The keys of the pairs registered, as the events so far show; written on the server's thread. */
    private final Set<String> registered = Collections.synchronizedSet(new HashSet<>());

    private VexaServer(Listener listener) {
        this.listener = listener;
    }

    /**
     * Listens on {@code "tcp://:PORT"} (127.0.0.1) or {@code "tcp://IP:PORT"}.
     *
     * @param address where to listen
     * @param listener receives every event; it may run before this method returns
     * @return the running server
     * @throws VexaException when the server cannot be made (bad address, port in use); its message
     *     names the server's log file
     */
    public static @NotNull VexaServer start(@NotNull String address, @NotNull Listener listener)
            throws VexaException {
        byte[] addressBytes = Natives.utf8(Objects.requireNonNull(address, "address"));
        VexaServer server = new VexaServer(Objects.requireNonNull(listener, "listener"));
        long made = 0;
        try {
            made = Natives.serverStart(
                    addressBytes, new EventDispatcher("server " + address, server::deliver));
        } finally {
            server.handle.publish(made);
        }
        if (made == 0) {
            throw VexaException.serverNotStarted(address);
        }
        return server;
    }

    /**
     * The library's key of a pair, byte for byte: the device string followed directly by the
     * decimal test item. "phone"/12 and "phone1"/2 are meant to share a key.
     */
    private static String key(byte[] dev, int testItem) {
        return new String(dev, ISO_8859_1) + testItem;
    }

    private void deliver(int testItem, int eventId, byte[] dev, int sec, int usec, byte[] data) {
        // Before the listener, which may answer a registration at once.
        if (eventId == VexaEvents.CLIENT_IPC_CONFIG) {
            registered.add(key(dev, testItem));
        } else if (eventId == VexaEvents.CLIENT_IPC_CLOSED
                || eventId == VexaEvents.CLIENT_IPC_OFFLINE) {
            registered.remove(key(dev, testItem));
        }
        listener.onEvent(new Event(this, testItem, eventId, dev, sec, usec, data));
    }

    /**
     * Starts a test: a path ending in ".so" is loaded into this process, anything else is started
     * as a program (through {@code su -c} unless {@link #setSuFilePath} said otherwise) with
     * {@code " -t <address>"}, then {@code " -d <dev>"} and the extra arguments when given.
     *
     * @param path the test program or library
     * @param dev the device string the test is to register with, null for none
     * @param extraArgs more arguments for a program, null for none
     * @return false when closed or the test could not be started; true does not mean the test will
     *     register
     */
    public boolean runTest(@NotNull String path, @Nullable String dev, @Nullable String extraArgs) {
        byte[] pathBytes = Natives.utf8(Objects.requireNonNull(path, "path"));
        return handle.call(server -> Natives.serverRunTest(
                server, pathBytes, Natives.utf8(dev), Natives.utf8(extraArgs)));
    }

    /**
     * Sends one message to the test registered under {@code dev} and {@code testItem}. The library
     * finds it by its key, the device string followed directly by the decimal test item: "phone"
     * with 12 reaches a test registered as "phone1" with 2, and a later registration of a key
     * replaces the earlier one.
     *
     * @param dev the device string
     * @param testItem the test item
     * @param eventId the event id
     * @param data the body, null for none
     * @return true when the message was handed to the library for a registered key: one that
     *     {@link VexaEvents#CLIENT_IPC_CONFIG} brought to the listener and neither {@link
     *     VexaEvents#CLIENT_IPC_CLOSED} nor {@link VexaEvents#CLIENT_IPC_OFFLINE} took away since;
     *     it does not mean that the test received it (the connection may break on the way; and a
     *     test that registers the same pair twice on one connection is dropped without an event,
     *     so its key stays here). False when the key is not registered, the server is closed or
     *     the body is longer than {@link VexaEvents#MAX_BODY_LENGTH}.
     */
    public boolean sendCommand(@NotNull String dev, int testItem, int eventId, @Nullable byte[] data) {
        return sendCommand(Natives.utf8(Objects.requireNonNull(dev, "dev")), testItem, eventId, data);
    }

    private boolean sendCommand(byte[] dev, int testItem, int eventId, byte[] data) {
        if ((data != null && data.length > VexaEvents.MAX_BODY_LENGTH)
                || !registered.contains(key(dev, testItem))) {
            return false;
        }
        return handle.call(server -> {
            Natives.serverSendCommand(server, dev, testItem, eventId, data);
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
     *
     * @param su the prefix
     * @param preCommand the command run before each test program
     */
    public void setSuFilePath(@Nullable String su, @Nullable String preCommand) {
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
