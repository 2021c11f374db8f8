package io.palomir;

import java.util.UUID;

/** A note for the notes screen. Subtitle and image URL may be null. */
public record Note(UUID identifier, String title, String subtitle, String content, String image) {}
