package org.vexatool;

import java.util.function.LongConsumer;
import java.util.function.LongPredicate;

/**
 * The native handle of one endpoint and the calls using it. Release waits for the calls under way,
 * and calls after it find the handle gone; so no call ever uses a released handle.
 */
final class NativeHandle {
    private long handle; // 0 once closing began; guarded by this
    private int callsUnderWay; // guarded by this

    NativeHandle(long handle) {
        this.handle = handle;
    }

    /** Runs {@code call} with the handle, unless closing began; false then. */
    boolean call(LongPredicate call) {
        long h = beginCall();
        if (h == 0) {
            return false;
        }
        try {
            return call.test(h);
        } finally {
            endCall();
        }
    }

    /** Hands the handle to {@code release} once, as {@link #takeForRelease} allows. */
    void release(LongConsumer release) {
        long taken = takeForRelease();
        if (taken != 0) {
            release.accept(taken);
        }
    }

    /** The handle for one call, to be ended with {@link #endCall}; 0 when closed (no call). */
    private synchronized long beginCall() {
        if (handle != 0) {
            callsUnderWay++;
        }
        return handle;
    }

    private synchronized void endCall() {
        if (--callsUnderWay == 0) {
            notifyAll();
        }
    }

    /**
     * Takes the handle away once the calls under way have ended (a send waits at most for the
     * library's write limit); 0 when it was already taken.
     *
     * @throws IllegalStateException on the endpoint's own listener thread, whose release would
     *     wait for itself
     */
    private synchronized long takeForRelease() {
        long taken = handle;
        if (taken == 0) {
            return 0;
        }
        if (Natives.insideOwnListener(taken)) {
            throw new IllegalStateException(
                    "an endpoint cannot be closed from its own listener; close it from another thread");
        }
        handle = 0;
        boolean interrupted = false;
        while (callsUnderWay > 0) {
            try {
                wait();
            } catch (InterruptedException e) {
                interrupted = true;
            }
        }
        if (interrupted) {
            Thread.currentThread().interrupt();
        }
        return taken;
    }
}
