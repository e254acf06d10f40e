package org.vexatool;

import java.util.logging.Level;
import java.util.logging.Logger;

/**
 * Hands one endpoint's events to it. {@link #dispatch} is the only Java method that native code
 * calls; a listener's exception ends there.
 */
final class EventDispatcher {
    private static final Logger LOG = Logger.getLogger("org.vexatool");

    /** What receives the events: the endpoint, which makes them its listener's. */
    interface Sink {
        void onEvent(int testItem, int eventId, byte[] dev, int sec, int usec, byte[] data);
    }

    private final String endpoint;
    private final Sink sink;

    EventDispatcher(String endpoint, Sink sink) {
        this.endpoint = endpoint;
        this.sink = sink;
    }

    /** Called on the endpoint's thread; the arrays are fresh for each call. */
    void dispatch(int testItem, int eventId, byte[] dev, int sec, int usec, byte[] data) {
        try {
            sink.onEvent(testItem, eventId, dev, sec, usec, data);
        } catch (Throwable t) { // whatever a listener throws must not reach native code
            LOG.log(Level.WARNING, "listener of " + endpoint + " threw on event " + eventId
                    + " from " + Natives.fromUtf8(dev) + "/" + testItem, t);
        }
    }
}
