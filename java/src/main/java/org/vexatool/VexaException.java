package org.vexatool;

import org.jetbrains.annotations.NotNull;

/**
 * An endpoint could not be made. The message names the endpoint's log file, where the library
 * wrote why: {@code ipc_server_<tag>.log} or {@code ipc_client_<dev>.log} in the directory that
 * {@code VEXA_LOG_DIR} names, or in {@code /mnt/sdcard/vexa/} when it is not set.
 */
public class VexaException extends Exception {
    private static final long serialVersionUID = 1L;

    private static final String LOOPBACK_PREFIX = "tcp://:";
    private static final String TCP_PREFIX = "tcp://";

    /**
     * Makes an exception with the given message.
     *
     * @param message what failed
     */
    public VexaException(@NotNull String message) {
        super(message);
    }

    static VexaException serverNotStarted(String address) {
        return new VexaException("cannot start a server on " + address + "; its log: "
                + logDirectory() + "ipc_server_" + serverLogTag(address) + ".log");
    }

    static VexaException clientNotConnected(String address, String dev) {
        return new VexaException("cannot connect to " + address + " as " + dev + "; its log: "
                + logDirectory() + "ipc_client_" + dev + ".log");
    }

    /** The library's choice when it makes an endpoint: the setting with a final "/", if set. */
    private static String logDirectory() {
        String dir = System.getenv("VEXA_LOG_DIR");
        if (dir == null || dir.isEmpty()) {
            return "/mnt/sdcard/vexa/";
        }
        return dir.endsWith("/") ? dir : dir + "/";
    }

    /**
     * The library's tag, made from any text: what follows "tcp://:", or what follows "tcp://" with
     * every ':' made '.' (tcp://127.0.0.1:5000 gives 127.0.0.1.5000), else nothing.
     */
    private static String serverLogTag(String address) {
        if (address.startsWith(LOOPBACK_PREFIX)) {
            return address.substring(LOOPBACK_PREFIX.length());
        }
        if (address.startsWith(TCP_PREFIX)) {
            return address.substring(TCP_PREFIX.length()).replace(':', '.');
        }
        return "";
    }
}
