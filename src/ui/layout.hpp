#pragma once

// Shared plumbing of the screens: building items from the bundle's layouts,
// finding outlets, colours, bundle and downloaded images.

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QUrl>
#include <QtGui/QColor>
#include <QtGui/QImage>
#include <QtQuick/QQuickItem>

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>

#include "palomir/model.hpp"

namespace palomir::qt::detail {

/// The layout "layouts/<name>.qml" of the Palomir bundle, built with `owner`
/// as QObject parent; nothing (and the reasons on standard error) when it is
/// missing or does not build into an item.
QQuickItem* loadLayout(const QString& name, QObject* owner);
/// An item from QML source that belongs to the library itself.
QQuickItem* createItem(const QByteArray& source, QObject* owner);

/// The first item named by one of `names` (objectName), `root` included.
QQuickItem* outlet(QQuickItem* root, std::initializer_list<const char*> names);
/// Stops the process: a screen's layout lacks an outlet its code relies on.
[[noreturn]] void missingOutlet(const char* screen, const char* name);

QColor toQColor(const Color& color);
QString toQString(const std::string& text);
QString toQString(const std::optional<std::string>& text);

/// Sets a property of a QML item; a grouped one may be named "font.underline".
void write(QObject* object, const char* name, const QVariant& value);

/// URL under which the image provider serves a bundle image (such as
/// "images/chevron-down-small.png"), optionally turned by 180 degrees.
QUrl bundleImageUrl(const QString& resource, bool rotated = false);
/// Hands an image to the provider; returns the key for releaseImage.
QString storeImage(const QImage& image);
QUrl storedImageUrl(const QString& key);
void releaseImage(const QString& key);

/// Fetches an image without pinning, signing or caching. On failure prints
/// "Error while loading note image: " and the reason to standard output; on
/// success calls `done` on the GUI thread with the decoded image (null when
/// the bytes are no image). `context` ends the wait when it is destroyed.
void fetchImage(const Url& url, QObject* context, std::function<void(QImage)> done);

}  // namespace palomir::qt::detail
