package org.vexatool;

import java.nio.charset.Charset;

/**
 * The native methods of libvexatool64_jni.so, one per exported library function. Strings cross as
 * UTF-8 byte arrays. A handle is never 0 here; {@link NativeHandle} keeps released ones away.
 */
final class Natives {
    static {
        System.loadLibrary("vexatool64_jni");
    }

    private static final Charset UTF_8 = Charset.forName("UTF-8");

    private Natives() {}

    /** The UTF-8 bytes of a string, null for null; a NUL character cannot reach the library. */
    static byte[] utf8(String text) {
        if (text == null) {
            return null;
        }
        if (text.indexOf('\0') >= 0) {
            throw new IllegalArgumentException("NUL character in \"" + text.replace('\0', '?') + "\"");
        }
        return text.getBytes(UTF_8);
    }

    static String fromUtf8(byte[] bytes) {
        return new String(bytes, UTF_8);
    }

    static native long serverStart(byte[] address, EventDispatcher dispatcher);

    static native boolean serverRunTest(long server, byte[] test, byte[] dValue, byte[] extraArgs);

    static native void serverSendCommand(
            long server, byte[] dev, int testItem, int eventId, byte[] data);

    static native void serverKillClient(long server);

    static native void serverSetSuFilePath(long server, byte[] su, byte[] preCommand);

    static native void serverRelease(long server);

    /** A null dispatcher makes a client that receives nothing. */
    static native long clientConnect(
            byte[] address, byte[] dev, int testItem, int timeoutMs, EventDispatcher dispatcher);

    static native boolean clientSend(long client, int eventId, byte[] data);

    static native void clientRelease(long client);

    /** True on the thread that runs this endpoint's listener, during the call. */
    static native boolean insideOwnListener(long endpoint);
}
