#pragma once

// Renders the screens of a configuration into PNG files, the way a phone
// would show them over a host application.

#include <QtCore/QMarginsF>
#include <QtCore/QSize>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <functional>
#include <optional>

#include "palomir/model.hpp"

class QQuickWindow;

namespace palomir::preview {

enum class Appearance { light, dark };

struct RenderOptions {
    QSize size{390, 844};
    /// Status bar above, home indicator below.
    QMarginsF safeArea{0, 47, 0, 34};
    /// How long image downloads may take before the picture is taken.
    int settleMilliseconds = 150;
    /// Renders under a right-to-left locale, so the layouts mirror.
    bool rightToLeft = false;
    /// Called with the window just before each picture is taken.
    std::function<void(QQuickWindow& window, const QString& file)> inspect;
};

/// A configuration document, bare or as a sandbox scenario (which carries it
/// under "configuration"); `error` tells why there is none.
std::optional<Configuration> readDocument(const QString& path, QString* error);

/// One document of the stress set at one window size.
struct StressCase {
    QString document;  ///< path of the JSON file
    QString prefix;    ///< "<name>-<W>x<H>"
    Appearance appearance;
    RenderOptions options;
};

/// Every JSON document in `folder` at 320x568 and 844x390 (landscape with
/// side insets). A document whose name starts with "rtl" is shown under a
/// right-to-left locale, one whose name ends in "dark" in the dark appearance.
QList<StressCase> stressSet(const QString& folder);

/// Call before the application object is made: software rendering, and the
/// offscreen platform when no display is named.
void prepareEnvironment();

/// Writes "<prefix>-notes-<appearance>.png", "<prefix>-lockdown-<appearance>.png"
/// and, when the worst service has a message, "<prefix>-banner-top-<appearance>.png",
/// "<prefix>-banner-bottom-<appearance>.png" and their "-expanded" forms into
/// `directory`. The
/// notes screen shows the lockdown's notes, or the configuration's own when
/// the lockdown has none. Returns the files written; `error` tells why one
/// could not be.
QStringList renderConfiguration(const Configuration& configuration, const QString& directory, const QString& prefix,
                                Appearance appearance, const RenderOptions& options, QString* error);

}  // namespace palomir::preview
