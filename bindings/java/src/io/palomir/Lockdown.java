package io.palomir;

import java.util.List;

/** The lockdown part of a configuration. Everything but active, latestVersion and notes may be null. */
public record Lockdown(boolean active, LockdownType type, String latestVersion, String title, String titleImage,
                       String subtitle, String actionUrl, String actionTitle, String dismissTitle, List<Note> notes) {
    public Lockdown {
        notes = List.copyOf(notes);
    }
}
