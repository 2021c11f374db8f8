package io.palomir;

import java.time.Instant;
import java.util.List;

/**
 * A configuration from the backend. {@code nextCheckinAt} is null when no
 * instant is named; {@code nextCheckinEvents} names "launch"/"foreground"
 * events; {@code lockdownResult} is the reading described on {@link LockdownResult}.
 */
public record Configuration(String version, Instant nextCheckinAt, List<String> nextCheckinEvents, Theme theme,
                            List<Note> notes, Lockdown lockdown, LockdownResult lockdownResult,
                            List<Service> services) {
    public Configuration {
        nextCheckinEvents = List.copyOf(nextCheckinEvents);
        notes = List.copyOf(notes);
        services = List.copyOf(services);
    }
}
