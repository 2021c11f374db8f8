#include "palomir/qt/application.hpp"

#include <QtCore/QLocale>
#include <QtCore/QMetaObject>
#include <QtCore/QStringList>
#include <QtGui/QGuiApplication>

#include <nlohmann/json.hpp>

#include "palomir/bundle.hpp"
#include "palomir/dispatch.hpp"
#include "palomir/environment.hpp"

namespace palomir::qt {
namespace {

std::string bundleIdentifier() {
    // "example.com" and "Notes" make "com.example.Notes", the reverse-domain
    // form that identifiers take elsewhere.
    const auto domain = QCoreApplication::organizationDomain();
    const auto name = QCoreApplication::applicationName();
    QStringList parts = domain.split(QLatin1Char('.'), Qt::SkipEmptyParts);
    std::reverse(parts.begin(), parts.end());
    if (parts.isEmpty() && !QCoreApplication::organizationName().isEmpty()) {
        parts << QCoreApplication::organizationName().remove(QLatin1Char(' '));
    }
    if (!name.isEmpty()) parts << name;
    return parts.join(QLatin1Char('.')).toStdString();
}

void describeApplication() {
    nlohmann::json info = nlohmann::json::object();
    info["CFBundleIdentifier"] = bundleIdentifier();
    info["CFBundleName"] = QCoreApplication::applicationName().toStdString();
    const auto display = QGuiApplication::applicationDisplayName();
    info["CFBundleDisplayName"] = (display.isEmpty() ? QCoreApplication::applicationName() : display).toStdString();
    const auto version = QCoreApplication::applicationVersion();
    if (!version.isEmpty()) {
        // Qt knows one version text; a build travels in it as semantic
        // versioning's metadata ("2.3.0+512"), else the version is the build.
        const auto plus = version.indexOf(QLatin1Char('+'));
        info["CFBundleShortVersionString"] = (plus > 0 ? version.left(plus) : version).toStdString();
        info["CFBundleVersion"] = (plus > 0 && plus + 1 < version.size() ? version.mid(plus + 1) : version).toStdString();
    }
    Bundle::setMain(Bundle(std::move(info), std::nullopt));
}

void supplyLocale() {
    const QLocale locale = QLocale::system();
    std::vector<std::string> languages;
    for (const auto& language : locale.uiLanguages()) languages.push_back(language.toStdString());
    LocaleInfo info;
    info.identifier = locale.name().toStdString();
    if (locale.language() != QLocale::C && locale.language() != QLocale::AnyLanguage) {
        info.languageCode = QLocale::languageToCode(locale.language()).toStdString();
    }
    if (locale.territory() != QLocale::AnyTerritory) {
        info.regionCode = QLocale::territoryToCode(locale.territory()).toStdString();
    }
    setLocaleOverride(std::move(languages), std::move(info));
}

}  // namespace

void install(QGuiApplication& application) {
    QObject* target = &application;
    MainQueue::shared()->bind([target](DispatchQueue::Work work) {
        QMetaObject::invokeMethod(target, std::move(work), Qt::QueuedConnection);
    });
    if (!Bundle::hasCustomMain()) describeApplication();
    supplyLocale();
    layoutEngine();
}

}  // namespace palomir::qt
