package io.palomir;

/** Every failure Palomir reports; the message is the library's own text. */
public final class PalomirException extends Exception {
    private static final long serialVersionUID = 1L;

    /** What kind of failure; the C library's error codes, in order. */
    public enum Code { REQUEST_FAILED, MISSING_CREDENTIALS, FAILED_TO_CREATE_APP_INFO, INVALID_ARGUMENT, INVALID_JSON, FILE, INTERNAL }

    private final Code code;

    public PalomirException(Code code, String message) {
        super(message);
        this.code = code;
    }

    public Code code() {
        return code;
    }

    /** Takes over a native error handle: reads it, frees it. Null for 0. */
    static PalomirException take(long handle) {
        if (handle == 0) return null;
        try {
            Code[] codes = Code.values();
            int code = Native.errorCode(handle);
            return new PalomirException(code >= 1 && code <= codes.length ? codes[code - 1] : Code.INTERNAL,
                                        Native.text(Native.errorDescription(handle)));
        } finally {
            Native.errorRelease(handle);
        }
    }

    static void check(long handle) throws PalomirException {
        PalomirException error = take(handle);
        if (error != null) throw error;
    }
}
