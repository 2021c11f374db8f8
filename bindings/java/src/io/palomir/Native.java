package io.palomir;

import java.nio.charset.StandardCharsets;

// One method per C function (or per accessor group); handles are the C
// pointers as longs, texts as UTF-8 bytes. Functions that can fail return a PLError handle (0: none).
final class Native {
    static {
        System.loadLibrary("palomir-java");
    }

    private Native() {}

    // Texts cross as standard UTF-8 bytes (see palomir_jni.cpp). A NUL would
    // silently end the text on the C side, so it is refused here instead.
    static byte[] utf8(String text) {
        if (text == null) return null;
        if (text.indexOf('\0') >= 0) throw new IllegalArgumentException("text contains NUL: " + text);
        return text.getBytes(StandardCharsets.UTF_8);
    }

    static String text(byte[] utf8) {
        return utf8 == null ? null : new String(utf8, StandardCharsets.UTF_8);
    }

    static native int errorCode(long error);
    static native byte[] errorDescription(long error);
    static native void errorRelease(long error);

    static native long setCachesDirectory(byte[] path);
    static native long setHostInfo(byte[] identifier, byte[] version, byte[] build, byte[] name);
    static native long setBackend(byte[] baseUrl, byte[] caFile, byte[] resourceDir);
    static native long setAppCredentials(byte[] token, byte[] secret);
    static native void clearAppCredentials();
    static native void setUserCredentials(UserCredentials provider);
    static native void replyToken(long reply, byte[] token);
    static native byte[][] logFiles();

    // Asynchronous operations: `pending.complete(value, error)` is called once on the delivery thread.
    static native long checkin(Pending<?> pending);
    static native long services(boolean system, byte[] identifier, Pending<?> pending);
    static native long feedback(byte[] title, byte[] message, byte[] submittedBy, byte[][] filenames,
                                byte[][] contentTypes, byte[][] data, Pending<?> pending);

    // Configuration handles.
    static native void configurationRelease(long configuration);
    static native byte[] configurationVersion(long configuration);
    static native long configurationNextCheckin(long configuration); // Long.MIN_VALUE: none named; MIN+1: no instant
    static native int[] configurationNextCheckinEvents(long configuration);
    static native double[] configurationThemeColor(long configuration, int which);
    static native double[] configurationGradient(long configuration); // start x/y, end x/y, then rgba per colour
    static native int configurationNoteCount(long configuration);
    static native byte[] configurationNote(long configuration, int index, int field); // field as PLNoteField
    static native int configurationLockdownResult(long configuration);
    static native boolean configurationLockdownActive(long configuration);
    static native int configurationLockdownType(long configuration); // -1: none
    static native byte[] configurationLockdownText(long configuration, int field); // see palomir_jni.cpp
    static native int configurationLockdownNoteCount(long configuration);
    static native byte[] configurationLockdownNote(long configuration, int index, int field);
    static native long configurationCopyServices(long configuration);

    // Service lists.
    static native void servicesRelease(long services);
    static native double servicesMaxAge(long services); // NaN: none given
    static native int servicesCount(long services);
    static native byte[] servicesText(long services, int index, int field);
    static native int servicesState(long services, int index);
    static native int servicesFlags(long services, int index); // 1 available, 2 triggers message, 4 has message
}
