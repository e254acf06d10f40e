package org.vexatool;

import java.util.function.BooleanSupplier;
import java.util.function.LongConsumer;
import java.util.function.LongPredicate;

/**
 * The native handle of one endpoint and the calls using it. The handle is published once the
 * library has made the endpoint; its listener may be called before that, and a call from it waits
 * for the handle. Release waits for the calls under way, and calls after it find the handle gone;
 * so no call ever uses a released handle.
 */
final class NativeHandle {
    private boolean published; // guarded by this
    private long handle; // guarded by this; 0 until published, if never made, once closing began
    private int callsUnderWay; // guarded by this

    /**
     * Gives the handle that making the endpoint returned, 0 when it failed; calls waiting for it go
     * on. The endpoint's thread never waits for the maker, so it cannot wait for this either.
     */
    synchronized void publish(long made) {
        handle = made;
        published = true;
        notifyAll();
    }

    /** Runs {@code call} with the handle, unless there is none (closed, never made); false then. */
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

    /** The handle for one call, to be ended with {@link #endCall}; 0 when there is none (no call). */
    private synchronized long beginCall() {
        waitWhile(() -> !published);
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
     * library's write limit); 0 when there is none.
     *
     * @throws IllegalStateException on the endpoint's own listener thread, whose release would
     *     wait for itself
     */
    private synchronized long takeForRelease() {
        waitWhile(() -> !published);
        long taken = handle;
        if (taken == 0) {
            return 0;
        }
        if (Natives.insideOwnListener(taken)) {
            throw new IllegalStateException(
                    "an endpoint cannot be closed from its own listener; close it from another thread");
        }
        handle = 0;
        waitWhile(() -> callsUnderWay > 0);
        return taken;
    }

    /** Waits on this object, whose lock the caller holds, while {@code condition} is true. */
    private void waitWhile(BooleanSupplier condition) {
        boolean interrupted = false;
        while (condition.getAsBoolean()) {
            try {
                wait();
            } catch (InterruptedException e) {
                interrupted = true; // kept for the caller, once the wait is over
            }
        }
        if (interrupted) {
            Thread.currentThread().interrupt();
        }
    }
}
