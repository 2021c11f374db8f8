package io.palomir;

import java.util.List;

/** The colours of the screens. The last three colours and the gradient may be null. */
public record Theme(Color textColor, Color backgroundColor, Color innerBackgroundColor, Color actionTextColor,
                    Color actionButtonColor, Gradient backgroundGradient) {
    /** A linear gradient from (startX, startY) to (endX, endY) in the unit square. */
    public record Gradient(List<Color> colors, double startX, double startY, double endX, double endY) {
        public Gradient {
            colors = List.copyOf(colors);
        }
    }
}
