package org.vexatool;

/**
 * The event codes the library itself produces or acts on, and the body limit. Every other event id
 * belongs to the host and its tests and passes through unchanged.
 */
public final class VexaEvents {
    /** Test to host: a test registered; the body is its pid, 4 bytes in native byte order. */
    public static final int CLIENT_IPC_CONFIG = 9001;
    /** Test to server, not delivered: asks to close. */
    public static final int CLIENT_IPC_EXIT = 9002;
    /** Server to test, not delivered: close granted. */
    public static final int CLIENT_IPC_EXIT_ACK = 9003;
    /** To the host: a test closed in order. */
    public static final int CLIENT_IPC_CLOSED = 9005;
    /** To the host: a registered test's connection broke; empty body. */
    public static final int CLIENT_IPC_OFFLINE = 9006;
    /** To a test: its server went away; the body is {@link #IPC_ERR_SERVER_CLOSED}, 4 bytes. */
    public static final int CLIENT_IPC_DISCONNECTED = 1006;
    /** The body of {@link #CLIENT_IPC_DISCONNECTED}, in native byte order. */
    public static final int IPC_ERR_SERVER_CLOSED = -900;
    /** The largest body a message carries, in bytes. */
    public static final int MAX_BODY_LENGTH = 511999;

    private VexaEvents() {}
}
