package io.palomir;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.List;
import org.junit.jupiter.api.Test;

class FeedbackTest {
    // Texts outside the Basic Multilingual Plane (emoji) and CJK must arrive as the user typed them.
    @Test
    void feedbackWithTwoAttachmentsIsRecorded() throws Exception {
        Palomir palomir = Sandbox.client();
        List<Attachment> attachments = List.of(new Attachment("note.txt", null, "hello".getBytes(StandardCharsets.UTF_8)),
                                               new Attachment("data.bin", "application/octet-stream", new byte[] {1, 0, 2}));
        Sandbox.<Void>await((executor, done) -> palomir.feedback("Crash 💥 崩溃", "It broke 😢 坏了", "ann@example.com",
                                                           attachments, executor, done)).get();
        String feedback = Sandbox.admin("feedback");
        for (String recorded : List.of("\"title\":\"Crash 💥 崩溃\"", "\"message\":\"It broke 😢 坏了\"",
                                       "\"submitted_by\":\"ann@example.com\"", "\"filename\":\"note.txt\"",
                                       "\"filename\":\"data.bin\"")) {
            assertEquals(1, Sandbox.occurrences(feedback, recorded), recorded);
        }
        assertEquals(2, Sandbox.occurrences(feedback, "\"uploaded\":true"));
    }

    @Test
    void logFilesAreTheClientsOwn() {
        List<java.nio.file.Path> files = Palomir.shared().logFiles();
        assertTrue(!files.isEmpty() && files.stream().allMatch(Files::isRegularFile), files::toString);
    }
}
