package io.palomir;

import java.util.OptionalDouble;

/** A fetched value with the backend's max-age hint in seconds, when it gave one. */
public record Fetched<T>(T value, OptionalDouble maxAge) {}
