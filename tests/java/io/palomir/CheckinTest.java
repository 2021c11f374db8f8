package io.palomir;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.time.Duration;
import java.time.Instant;
import java.util.List;
import java.util.UUID;
import org.junit.jupiter.api.Test;

class CheckinTest {
    @Test
    void configurationReadFieldByField() throws Exception {
        Configuration c = Sandbox.await(Sandbox.client()::checkin).get();
        assertEquals("2024.07.1", c.version());
        // The sandbox asks for the next check-in now.
        assertTrue(Duration.between(c.nextCheckinAt(), Instant.now()).abs().toSeconds() < 60, c.nextCheckinAt()::toString);
        assertEquals(List.of("launch", "foreground"), c.nextCheckinEvents());
        Theme.Gradient gradient = new Theme.Gradient(List.of(new Color(0, 0, 0, 1), new Color(1, 1, 1, 1)), 0, 0.5, 1, 0.5);
        assertEquals(new Theme(new Color(1, 0, 0, 1), new Color(0, 1, 0, 128 / 255.0), null, null, new Color(0, 0, 1, 1),
                               gradient), c.theme());
        assertEquals(List.of(new Note(UUID.fromString("0e9d6c3a-4b2f-4a8e-b1d7-6f2c9e5a8b34"), "Hello 👋 你好", "Sub",
                                      "From the sandbox", "https://example.com/n.png")), c.notes());
        Note why = new Note(UUID.fromString("5a4e2b10-0000-4000-8000-00000000000f"), "Why", null, "Old", null);
        assertEquals(new Lockdown(true, LockdownType.HARD, "3.0", "Please update", null, null, "https://example.com/update",
                                  null, null, List.of(why)), c.lockdown());
        assertEquals(LockdownResult.HARD, c.lockdownResult());
        assertEquals(List.of(new Service("Sync 🔄 同步", "sync", null, true, ServiceState.ERROR, true,
                                         new Service.Message("Sync is down", null, null, null, "More"), null)),
                     c.services());
    }

    @Test
    void userTokenAnsweredLaterFromAnotherThread() throws Exception {
        Palomir palomir = Sandbox.client();
        // Left set: the other test here does not look at the user's token.
        palomir.setUserCredentials(reply -> new Thread(() -> reply.accept("xyz")).start());
        Sandbox.await(palomir::checkin).get();
        assertEquals(1, Sandbox.occurrences(Sandbox.admin("requests"), "[\"X-Authorization-User\",\"Bearer xyz\"]"));
    }
}
