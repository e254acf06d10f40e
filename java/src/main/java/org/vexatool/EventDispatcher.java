package org.vexatool;

import java.util.logging.Level;
import java.util.logging.Logger;

/**
 * Hands one endpoint's events to its listener. {@link #dispatch} is the only Java method that
 * native code calls; a listener's exception ends there.
 */
final class EventDispatcher {
    private static final Logger LOG = Logger.getLogger("org.vexatool");

    /** The listener's one method; both public listener types fit it. */
    interface Sink {
        void onEvent(int testItem, int eventId, String dev, int sec, int usec, byte[] data);
    }

    private final String endpoint;
    private final Sink listener;

    EventDispatcher(String endpoint, Sink listener) {
        this.endpoint = endpoint;
        this.listener = listener;
    }

    /** Called on the endpoint's thread; the arrays are fresh for each call. */
    void dispatch(int testItem, int eventId, byte[] dev, int sec, int usec, byte[] data) {
        String device = Natives.fromUtf8(dev);
        try {
            listener.onEvent(testItem, eventId, device, sec, usec, data);
        } catch (Throwable t) { // whatever a listener throws must not reach native code
            LOG.log(Level.WARNING, "listener of " + endpoint + " threw on event " + eventId
                    + " from " + device + "/" + testItem, t);
        }
    }
}
