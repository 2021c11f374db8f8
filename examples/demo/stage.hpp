#pragma once

// The demo's stand-in for a host application's window: a QQuickWindow with a
// small screen of its own, over which Palomir presents its screens.

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtQuick/QQuickItem>
#include <QtQuick/QQuickWindow>

#include <functional>
#include <memory>

#include "palomir/qt/quick_window.hpp"

namespace demo {

/// Runs the Qt event loop (and so the main queue that palomir-qt binds to
/// it) until `done` returns true or `milliseconds` pass. Returns `done()`.
bool runUntil(const std::function<bool()>& done, int milliseconds);
/// Runs the event loop for a while, so that animations end and images land.
void settle(int milliseconds);

class Stage {
public:
    /// Call after palomir::qt::install.
    Stage();
    ~Stage();

    QQuickWindow& window() { return *_window; }
    /// The host's own content; banners are placed on it.
    QQuickItem* content() const { return _content; }
    /// Owner of the banner controllers, as a host's screen would be.
    QObject* bannerHost() { return &_bannerHost; }
    std::shared_ptr<palomir::qt::QuickWindow> adapter() const { return _adapter; }

    /// Writes the window as it looks now; the error says why not.
    bool save(const QString& path, QString* error);

private:
    std::unique_ptr<QQuickWindow> _window;
    QQuickItem* _content = nullptr;
    QObject _bannerHost;
    std::shared_ptr<palomir::qt::QuickWindow> _adapter;
};

}  // namespace demo
