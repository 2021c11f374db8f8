#include "support.hpp"

#include <QtGui/QDesktopServices>
#include <QtGui/QGuiApplication>
#include <QtQuick/QQuickWindow>
#include <QtQuick/QSGRendererInterface>

#include <gtest/gtest.h>

namespace palomir::qt::test {

Configuration withLockdown(const std::string& lockdownJson, const std::string& themeJson, const std::string& servicesJson) {
    const std::string theme = themeJson.empty() ? R"({"text_color":"#111111","background_color":"#336699"})" : themeJson;
    const std::string services = servicesJson.empty() ? "" : R"(,"services":)" + servicesJson;
    auto decoded = decodeJson<Configuration>(R"({"version":"1","theme":)" + theme + R"(,"notes":[],"lockdown":)" +
                                             lockdownJson + services + "}");
    if (decoded.hasValue()) return decoded.value();
    ADD_FAILURE() << "configuration does not decode: " << decoded.error().message();
    return Configuration{};
}

QColor colorOf(const QQuickItem* item, const char* property) {
    return item ? item->property(property).value<QColor>() : QColor();
}

QString text(const QQuickItem* item) { return item->property("text").toString(); }

UrlSink::UrlSink() { QDesktopServices::setUrlHandler(QStringLiteral("https"), this, "open"); }
UrlSink::~UrlSink() { QDesktopServices::unsetUrlHandler(QStringLiteral("https")); }

void click(QQuickItem* button) {
    ASSERT_NE(button, nullptr);
    ASSERT_TRUE(QMetaObject::invokeMethod(button, "clicked"));
}

}  // namespace palomir::qt::test

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QGuiApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
