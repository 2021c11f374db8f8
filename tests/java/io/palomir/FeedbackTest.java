package io.palomir;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.List;
import org.junit.jupiter.api.Test;

class FeedbackTest {
    @Test
    void feedbackWithTwoAttachmentsIsRecorded() throws Exception {
        Palomir palomir = Sandbox.client("sandbox-secret");
        List<Attachment> attachments = List.of(new Attachment("note.txt", null, "hello".getBytes(StandardCharsets.UTF_8)),
                                               new Attachment("data.bin", "application/octet-stream", new byte[] {1, 0, 2}));
        Result<Void> result = Sandbox.await((executor, done) ->
            palomir.feedback("Crash", "It broke", "ann@example.com", attachments, executor, done));
        result.get();
        String feedback = Sandbox.admin("feedback");
        assertEquals(1, Sandbox.occurrences(feedback, "\"submitted_by\":\"ann@example.com\""));
        assertEquals(1, Sandbox.occurrences(feedback, "\"filename\":\"note.txt\""));
        assertEquals(1, Sandbox.occurrences(feedback, "\"filename\":\"data.bin\""));
        assertEquals(2, Sandbox.occurrences(feedback, "\"uploaded\":true"));
    }

    @Test
    void logFilesAreTheClientsOwn() {
        List<java.nio.file.Path> files = Palomir.shared().logFiles();
        assertTrue(!files.isEmpty() && files.stream().allMatch(Files::isRegularFile), files::toString);
    }
}
