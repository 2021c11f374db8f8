package io.palomir;

import java.util.Objects;

/** A file in memory to attach to feedback. A null content type is derived from the file name. */
public record Attachment(String filename, String contentType, byte[] data) {
    public Attachment {
        Objects.requireNonNull(filename, "filename");
        data = data.clone();
    }
}
