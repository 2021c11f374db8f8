package io.palomir;

/** A colour, each component from 0.0 to 1.0. */
public record Color(double red, double green, double blue, double alpha) {
    static Color of(double[] components) {
        return components == null ? null : new Color(components[0], components[1], components[2], components[3]);
    }
}
