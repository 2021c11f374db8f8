#pragma once

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QUrl>
#include <QtGui/QColor>
#include <QtQuick/QQuickItem>

#include <string>
#include <vector>

#include "palomir/model.hpp"

namespace palomir::qt::test {

/// A configuration with a lockdown built from the members given (JSON text
/// of the lockdown object), a plain theme unless one is given, and services
/// when a list is given; the test fails when it does not decode.
Configuration withLockdown(const std::string& lockdownJson, const std::string& themeJson = {},
                           const std::string& servicesJson = {});

QColor colorOf(const QQuickItem* item, const char* property = "color");
QString text(const QQuickItem* item);

/// Receives the https URLs handed to QDesktopServices::openUrl while it lives.
class UrlSink : public QObject {
    Q_OBJECT
public:
    UrlSink();
    ~UrlSink() override;
    std::vector<QUrl> opened;
public Q_SLOTS:
    void open(const QUrl& url) { opened.push_back(url); }
};

/// Presses a QtQuick.Controls button by emitting its clicked signal.
void click(QQuickItem* button);

}  // namespace palomir::qt::test
