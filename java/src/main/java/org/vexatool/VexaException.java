package org.vexatool;

/** An endpoint could not be made; the reason is in the endpoint's log. */
public class VexaException extends Exception {
    private static final long serialVersionUID = 1L;

    public VexaException(String message) {
        super(message);
    }
}
