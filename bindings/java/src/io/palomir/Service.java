package io.palomir;

/** A service's status. URL, image and message may be null. */
public record Service(String name, String identifier, String url, boolean available, ServiceState state,
                      boolean triggersMessage, Message message, String image) {
    /** The banner texts of a service; each may be null. */
    public record Message(String title, String description, String dismiss, String url, String urlTitle) {}
}
