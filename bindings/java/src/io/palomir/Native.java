package io.palomir;

// One method per C function (or per accessor group); handles are the C
// pointers as longs. Functions that can fail return a PLError handle (0: none).
final class Native {
    static {
        System.loadLibrary("palomir-java");
    }

    private Native() {}

    static native int errorCode(long error);
    static native String errorDescription(long error);
    static native void errorRelease(long error);

    static native long setCachesDirectory(String path);
    static native long setHostInfo(String identifier, String version, String build, String name);
    static native long setBackend(String baseUrl, String caFile, String resourceDir);
    static native long setAppCredentials(String token, String secret);
    static native void clearAppCredentials();
    static native void setUserCredentials(UserCredentials provider);
    static native void replyToken(long reply, String token);
    static native String[] logFiles();

    // Asynchronous operations: `pending.complete(value, error)` is called once on the delivery thread.
    static native long checkin(Pending<?> pending);
    static native long services(boolean system, String identifier, Pending<?> pending);
    static native long feedback(String title, String message, String submittedBy, String[] filenames,
                                String[] contentTypes, byte[][] data, Pending<?> pending);

    // Configuration handles.
    static native void configurationRelease(long configuration);
    static native String configurationVersion(long configuration);
    static native long configurationNextCheckin(long configuration); // Long.MIN_VALUE: none named; MIN+1: no instant
    static native int[] configurationNextCheckinEvents(long configuration);
    static native double[] configurationThemeColor(long configuration, int which);
    static native double[] configurationGradient(long configuration); // start x/y, end x/y, then rgba per colour
    static native int configurationNoteCount(long configuration);
    static native String configurationNote(long configuration, int index, int field); // field as PLNoteField
    static native int configurationLockdownResult(long configuration);
    static native boolean configurationLockdownActive(long configuration);
    static native int configurationLockdownType(long configuration); // -1: none
    static native String configurationLockdownText(long configuration, int field); // see palomir_jni.cpp
    static native int configurationLockdownNoteCount(long configuration);
    static native String configurationLockdownNote(long configuration, int index, int field);
    static native long configurationCopyServices(long configuration);

    // Service lists.
    static native void servicesRelease(long services);
    static native double servicesMaxAge(long services); // NaN: none given
    static native int servicesCount(long services);
    static native String servicesText(long services, int index, int field);
    static native int servicesState(long services, int index);
    static native int servicesFlags(long services, int index); // 1 available, 2 triggers message, 4 has message
}
