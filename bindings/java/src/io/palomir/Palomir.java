package io.palomir;

import java.nio.file.Path;
import java.time.Instant;
import java.util.ArrayList;
import java.util.List;
import java.util.Objects;
import java.util.OptionalDouble;
import java.util.UUID;
import java.util.concurrent.Executor;
import java.util.function.Consumer;

/**
 * The Java entry point to Palomir: {@code Palomir.shared()}. Every method may
 * be called from any thread and returns at once; a completion runs exactly
 * once, on the executor passed with it (on Android, the main thread's
 * executor), also for answers from memory and local failures. An executor
 * that rejects the completion loses it (the rejection is printed).
 * A text argument containing NUL is refused with an IllegalArgumentException.
 */
public final class Palomir {
    private static final Palomir SHARED = new Palomir();

    private Palomir() {}

    public static Palomir shared() {
        return SHARED;
    }

    /** Where log files go. Android hosts call this first, with their cache directory. */
    public void setCachesDirectory(Path directory) throws PalomirException {
        PalomirException.check(Native.setCachesDirectory(Native.utf8(directory.toString())));
    }

    /**
     * Describes the host app (a JVM has no bundle to read it from); call it
     * before anything else. {@code name} may be null.
     */
    public void setHostInfo(String identifier, String version, String build, String name) throws PalomirException {
        PalomirException.check(Native.setHostInfo(Native.utf8(identifier), Native.utf8(version), Native.utf8(build),
                                                  Native.utf8(name)));
    }

    /** Another backend: an HTTPS base URL, a PEM CA file to trust and a directory with the pinned certificate; null for defaults. */
    public void setBackend(String baseUrl, Path caFile, Path resourceDirectory) throws PalomirException {
        PalomirException.check(Native.setBackend(Native.utf8(baseUrl), Native.utf8(caFile == null ? null : caFile.toString()),
                                                 Native.utf8(resourceDirectory == null ? null : resourceDirectory.toString())));
    }

    /** Signs every request with the app's token and secret. */
    public void setAppCredentials(String token, String secret) throws PalomirException {
        PalomirException.check(Native.setAppCredentials(Native.utf8(token), Native.utf8(secret)));
    }

    /** Drops the app credentials, and the user credentials with them. */
    public void clearAppCredentials() {
        Native.clearAppCredentials();
    }

    /** The source of the user's token; null clears it. Needs app credentials set first. */
    public void setUserCredentials(UserCredentials credentials) {
        Native.setUserCredentials(credentials);
    }

    /** The held configuration while its next timed check-in is ahead, else a fresh one. */
    public void checkin(Executor executor, Consumer<Result<Configuration>> completion) {
        start(Native.checkin(new Pending<>(executor, completion, Palomir::readConfiguration)));
    }

    /** The host's services, asked from the backend on every call. */
    public void services(Executor executor, Consumer<Result<Fetched<List<Service>>>> completion) {
        start(Native.services(false, null, new Pending<>(executor, completion, Palomir::readServices)));
    }

    public void service(String identifier, Executor executor, Consumer<Result<Fetched<Service>>> completion) {
        Objects.requireNonNull(identifier, "identifier");
        start(Native.services(false, Native.utf8(identifier), new Pending<>(executor, completion, Palomir::readService)));
    }

    /** The backend's own services. */
    public void systemServices(Executor executor, Consumer<Result<Fetched<List<Service>>>> completion) {
        start(Native.services(true, null, new Pending<>(executor, completion, Palomir::readServices)));
    }

    public void systemService(String identifier, Executor executor, Consumer<Result<Fetched<Service>>> completion) {
        Objects.requireNonNull(identifier, "identifier");
        start(Native.services(true, Native.utf8(identifier), new Pending<>(executor, completion, Palomir::readService)));
    }

    /** Uploads the attachments, then submits the feedback naming them. */
    public void feedback(String title, String message, String submittedBy, List<Attachment> attachments,
                         Executor executor, Consumer<Result<Void>> completion) {
        Objects.requireNonNull(title, "title");
        Objects.requireNonNull(message, "message");
        Objects.requireNonNull(submittedBy, "submittedBy");
        int count = attachments.size();
        byte[][] names = new byte[count][], types = new byte[count][];
        byte[][] data = new byte[count][];
        for (int i = 0; i < count; ++i) {
            Attachment attachment = attachments.get(i);
            names[i] = Native.utf8(attachment.filename());
            types[i] = Native.utf8(attachment.contentType());
            data[i] = attachment.data();
        }
        start(Native.feedback(Native.utf8(title), Native.utf8(message), Native.utf8(submittedBy), names, types, data,
                              new Pending<Void>(executor, completion, handle -> null)));
    }

    /** The paths of the client's log files. */
    public List<Path> logFiles() {
        List<Path> paths = new ArrayList<>();
        for (byte[] path : Native.logFiles()) paths.add(Path.of(Native.text(path)));
        return paths;
    }

    // Executor and completion are checked before anything reaches native code.
    private static void start(long refused) {
        PalomirException error = PalomirException.take(refused);
        if (error != null) throw new IllegalArgumentException(error.getMessage(), error);
    }

    // Called by the native layer on any thread for each token request.
    static void askToken(UserCredentials credentials, long reply) {
        TokenReply answer = new TokenReply(reply);
        try {
            credentials.token(answer);
        } catch (RuntimeException e) {
            // A provider that throws has not answered: the request goes on without a user.
            answer.accept(null);
        }
    }

    private static final class TokenReply implements Consumer<String> {
        private final java.util.concurrent.atomic.AtomicLong reply;

        TokenReply(long reply) {
            this.reply = new java.util.concurrent.atomic.AtomicLong(reply);
        }

        @Override
        public void accept(String token) {
            long handle = reply.getAndSet(0);
            if (handle != 0) Native.replyToken(handle, Native.utf8(token));
        }
    }

    // ---- Reading native handles into records (each takes over the handle and frees it).

    private static Configuration readConfiguration(long handle) {
        try {
            long next = Native.configurationNextCheckin(handle);
            List<String> events = new ArrayList<>();
            for (int event : Native.configurationNextCheckinEvents(handle)) events.add(event == 0 ? "launch" : "foreground");
            List<Note> notes = new ArrayList<>();
            for (int i = 0, n = Native.configurationNoteCount(handle); i < n; ++i) {
                final int index = i;
                notes.add(note(field -> Native.text(Native.configurationNote(handle, index, field))));
            }
            List<Note> lockdownNotes = new ArrayList<>();
            for (int i = 0, n = Native.configurationLockdownNoteCount(handle); i < n; ++i) {
                final int index = i;
                lockdownNotes.add(note(field -> Native.text(Native.configurationLockdownNote(handle, index, field))));
            }
            int type = Native.configurationLockdownType(handle);
            TextField text = field -> Native.text(Native.configurationLockdownText(handle, field));
            Lockdown lockdown = new Lockdown(Native.configurationLockdownActive(handle),
                                             type < 0 ? null : LockdownType.values()[type], text.get(0), text.get(1),
                                             text.get(2), text.get(3), text.get(4), text.get(5), text.get(6), lockdownNotes);
            return new Configuration(Native.text(Native.configurationVersion(handle)),
                                     next <= Long.MIN_VALUE + 1 ? null : Instant.ofEpochMilli(next), events,
                                     theme(handle), notes, lockdown,
                                     LockdownResult.values()[Native.configurationLockdownResult(handle)],
                                     readServices(Native.configurationCopyServices(handle)).value());
        } finally {
            Native.configurationRelease(handle);
        }
    }

    // One text field of a record, by its number.
    private interface TextField {
        String get(int field);
    }

    private static Note note(TextField text) {
        return new Note(UUID.fromString(text.get(0)), text.get(1), text.get(2), text.get(3), text.get(4));
    }

    private static Theme theme(long handle) {
        double[] gradient = Native.configurationGradient(handle);
        Theme.Gradient background = null;
        if (gradient != null) {
            List<Color> colors = new ArrayList<>();
            for (int at = 4; at + 4 <= gradient.length; at += 4)
                colors.add(new Color(gradient[at], gradient[at + 1], gradient[at + 2], gradient[at + 3]));
            background = new Theme.Gradient(colors, gradient[0], gradient[1], gradient[2], gradient[3]);
        }
        return new Theme(Color.of(Native.configurationThemeColor(handle, 0)), Color.of(Native.configurationThemeColor(handle, 1)),
                         Color.of(Native.configurationThemeColor(handle, 2)), Color.of(Native.configurationThemeColor(handle, 3)),
                         Color.of(Native.configurationThemeColor(handle, 4)), background);
    }

    private static Fetched<List<Service>> readServices(long handle) {
        try {
            List<Service> services = new ArrayList<>();
            for (int i = 0, n = Native.servicesCount(handle); i < n; ++i) services.add(service(handle, i));
            double maxAge = Native.servicesMaxAge(handle);
            return new Fetched<>(List.copyOf(services), Double.isNaN(maxAge) ? OptionalDouble.empty() : OptionalDouble.of(maxAge));
        } finally {
            Native.servicesRelease(handle);
        }
    }

    private static Fetched<Service> readService(long handle) {
        Fetched<List<Service>> list = readServices(handle);
        return new Fetched<>(list.value().get(0), list.maxAge());
    }

    private static Service service(long handle, int i) {
        int flags = Native.servicesFlags(handle, i);
        TextField text = field -> Native.text(Native.servicesText(handle, i, field));
        Service.Message message = (flags & 4) == 0 ? null
            : new Service.Message(text.get(4), text.get(5), text.get(6), text.get(7), text.get(8));
        return new Service(text.get(0), text.get(1), text.get(2), (flags & 1) != 0,
                           ServiceState.values()[Native.servicesState(handle, i)], (flags & 2) != 0, message,
                           text.get(3));
    }
}
