package org.vexatool;

import org.jetbrains.annotations.NotNull;
import org.jetbrains.annotations.Nullable;

/**
 * One event as a listener receives it: the fields of the message's head, its body, and
 * {@link #reply}, which answers the peer it came from. An event may be kept and replied to later,
 * from any thread.
 */
public abstract class VexaEvent {
    private final int testItem;
    private final int eventId;
    private final String dev;
    private final int sec;
    private final int usec;
    private final byte[] data;

    VexaEvent(int testItem, int eventId, String dev, int sec, int usec, byte[] data) {
        this.testItem = testItem;
        this.eventId = eventId;
        this.dev = dev;
        this.sec = sec;
        this.usec = usec;
        this.data = data;
    }

    /**
     * The test item of the pair the event belongs to.
     *
     * @return the test item
     */
    public int getTestItem() {
        return testItem;
    }

    /**
     * What the event is: a code of {@link VexaEvents} or one that the host and its tests agreed on.
     *
     * @return the event id
     */
    public int getEventId() {
        return eventId;
    }

    /**
     * The device string of the pair the event belongs to.
     *
     * @return the device string
     */
    public @NotNull String getDev() {
        return dev;
    }

    /**
     * When the sender stamped the message (for {@link VexaEvents#CLIENT_IPC_OFFLINE}: when the
     * server saw the connection break), seconds since 1970.
     *
     * @return the seconds
     */
    public int getSec() {
        return sec;
    }

    /**
     * The microseconds of the stamp, 0 to 999999.
     *
     * @return the microseconds
     */
    public int getUsec() {
        return usec;
    }

    /**
     * The body: an empty array for an event without one, never null. The array is this event's own.
     *
     * @return the body
     */
    public @NotNull byte[] getData() {
        return data;
    }

    /**
     * Sends one message to the peer this event came from, with the same device string and test
     * item.
     *
     * @param eventId the event id of the answer
     * @param data the body, null for none
     * @return the result of {@link VexaServer#sendCommand} at the host, of {@link VexaClient#send}
     *     at a test
     */
    public abstract boolean reply(int eventId, @Nullable byte[] data);
}
