#include "render.hpp"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QLocale>
#include <QtCore/QScopeGuard>
#include <QtCore/QTimer>
#include <QtGui/QGuiApplication>
#include <QtGui/QImage>
#include <QtQml/QQmlComponent>
#include <QtQuick/QQuickWindow>
#include <QtQuick/QSGRendererInterface>

#include <memory>

#include "palomir/qt/application.hpp"
#include "palomir/qt/feature_view_controller.hpp"
#include "palomir/qt/lockdown_view_controller.hpp"
#include "palomir/qt/message_view_controller.hpp"
#include "palomir/qt/quick_window.hpp"

namespace palomir::preview {
namespace {

// A stand-in for the host application's own screen, so that what lies
// beneath an overlay can be seen.
constexpr char kHostScreen[] = R"(
import QtQuick
Rectangle {
    objectName: "hostScreen"
    property bool dark: false
    // Taps that reach the host's own screen; overlays must keep this at 0.
    property int taps: 0
    color: dark ? "#000000" : "#F2F2F7"
    MouseArea { anchors.fill: parent; onClicked: parent.taps += 1 }
    Column {
        x: 16; y: 120; width: parent.width - 32; spacing: 12
        Text { text: "Inbox"; font.pixelSize: 34; font.weight: Font.Bold; color: dark ? "#FFFFFF" : "#000000" }
        Repeater {
            model: 6
            Rectangle {
                width: parent.width; height: 64; radius: 10
                color: dark ? "#1C1C1E" : "#FFFFFF"
            }
        }
    }
}
)";

void wait(int milliseconds) {
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

struct Stage {
    std::unique_ptr<QQuickWindow> window;
    std::unique_ptr<QQuickItem> host;
    std::shared_ptr<qt::RootViewController> root;
};

Stage makeStage(Appearance appearance, const RenderOptions& options) {
    Stage stage;
    stage.window = std::make_unique<QQuickWindow>();
    stage.window->resize(options.size);
    stage.window->setColor(appearance == Appearance::dark ? Qt::black : Qt::white);
    QQmlComponent component(&qt::layoutEngine());
    component.setData(kHostScreen, QUrl::fromLocalFile(QStringLiteral("/palomir-preview/host.qml")));
    stage.host.reset(qobject_cast<QQuickItem*>(component.create()));
    if (stage.host) {
        stage.host->setProperty("dark", appearance == Appearance::dark);
        stage.host->setParentItem(stage.window->contentItem());
        stage.host->setSize(QSizeF(options.size));
        qt::setSafeAreaMargins(stage.host.get(), options.safeArea);
    }
    stage.root = std::make_shared<qt::RootViewController>(stage.window->contentItem());
    stage.root->setSafeAreaMargins(options.safeArea);
    stage.window->show();
    return stage;
}

bool save(QQuickWindow& window, const QString& path, const RenderOptions& options, QStringList& written,
          QString* error) {
    if (options.inspect) options.inspect(window, path);
    const QImage image = window.grabWindow();
    if (image.isNull() || !image.save(path)) {
        if (error) *error = QStringLiteral("could not write ") + path;
        return false;
    }
    written << path;
    return true;
}

template <class Screen>
bool shoot(std::shared_ptr<Screen> screen, Appearance appearance, const RenderOptions& options, const QString& path,
           QStringList& written, QString* error) {
    auto stage = makeStage(appearance, options);
    bool shown = false;
    stage.root->present(std::static_pointer_cast<qt::Presentable>(screen), false, [&shown] { shown = true; });
    QElapsedTimer timer;
    timer.start();
    while (!shown && timer.elapsed() < 2000) wait(10);
    wait(options.settleMilliseconds);
    return save(*stage.window, path, options, written, error);
}

}  // namespace

void prepareEnvironment() {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY") &&
        qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
}

QStringList renderConfiguration(const Configuration& configuration, const QString& directory, const QString& prefix,
                                Appearance appearance, const RenderOptions& options, QString* error) {
    QStringList written;
    QDir().mkpath(directory);
    // The layouts mirror by the default locale's direction.
    const QLocale previous;
    if (options.rightToLeft) QLocale::setDefault(QLocale(QLocale::Arabic, QLocale::Egypt));
    const auto restore = qScopeGuard([&] { QLocale::setDefault(previous); });
    const QString suffix = appearance == Appearance::dark ? QStringLiteral("dark") : QStringLiteral("light");
    const auto file = [&](const QString& screen) {
        return QDir(directory).filePath(QStringLiteral("%1-%2-%3.png").arg(prefix, screen, suffix));
    };

    {
        auto notes = configuration;
        if (!notes.lockdown.notes) notes.lockdown.notes = notes.notes;
        auto screen = std::make_shared<qt::FeatureViewController>();
        screen->setConfig(notes);
        if (!shoot(screen, appearance, options, file(QStringLiteral("notes")), written, error)) return written;
    }
    {
        auto screen = std::make_shared<qt::LockdownViewController>();
        screen->setConfig(configuration);
        if (!shoot(screen, appearance, options, file(QStringLiteral("lockdown")), written, error)) return written;
    }

    const auto worst = configuration.worstService();
    if (!worst || !worst->message) return written;
    for (const bool expanded : {false, true}) {
        for (const auto location : {Palomir::MessageViewLocation::top, Palomir::MessageViewLocation::bottom}) {
            auto stage = makeStage(appearance, options);
            QObject owner;
            auto banner = qt::updateMessageView(&owner, stage.host.get(), location,
                                                 location == Palomir::MessageViewLocation::top ? 8.0 : -8.0, configuration);
            if (!banner) continue;
            banner->setUserInterfaceStyle(appearance == Appearance::dark ? qt::UserInterfaceStyle::dark
                                                                          : qt::UserInterfaceStyle::light);
            banner->setMessage(*worst->message);
            if (expanded) banner->expandButtonPressed();
            wait(qt::MessageViewController::toggleDuration + options.settleMilliseconds);
            // On a loaded machine the card's animation can start late and
            // still be growing now: the picture waits until its height holds.
            QElapsedTimer timer;
            timer.start();
            for (qreal last = -1; banner->roundedCornersView()->height() != last && timer.elapsed() < 2000; wait(20))
                last = banner->roundedCornersView()->height();
            const QString name = QStringLiteral("banner-%1%2")
                                     .arg(location == Palomir::MessageViewLocation::top ? QStringLiteral("top")
                                                                                   : QStringLiteral("bottom"),
                                          expanded ? QStringLiteral("-expanded") : QString());
            if (!save(*stage.window, file(name), options, written, error)) return written;
            delete banner.data();
        }
    }
    return written;
}

std::optional<Configuration> readDocument(const QString& path, QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error) *error = QStringLiteral("cannot read ") + path;
        return std::nullopt;
    }
    QByteArray text = file.readAll();
    const auto document = QJsonDocument::fromJson(text);
    if (document.isObject() && document.object().contains(QStringLiteral("configuration"))) {
        text = QJsonDocument(document.object().value(QStringLiteral("configuration")).toObject()).toJson();
    }
    auto decoded = decodeJson<Configuration>(std::string_view(text.constData(), static_cast<std::size_t>(text.size())));
    if (!decoded.hasValue()) {
        if (error) *error = path + QStringLiteral(" is no configuration: ") + QString::fromStdString(decoded.error().message());
        return std::nullopt;
    }
    return decoded.value();
}

QList<StressCase> stressSet(const QString& folder) {
    QList<StressCase> cases;
    const auto documents = QDir(folder).entryInfoList({QStringLiteral("*.json")}, QDir::Files, QDir::Name);
    for (const auto& document : documents) {
        for (const QSize size : {QSize(320, 568), QSize(844, 390)}) {
            StressCase c;
            c.document = document.filePath();
            c.prefix = QStringLiteral("%1-%2x%3").arg(document.completeBaseName()).arg(size.width()).arg(size.height());
            c.appearance = document.completeBaseName().endsWith(QStringLiteral("dark")) ? Appearance::dark
                                                                                         : Appearance::light;
            c.options.size = size;
            // Held sideways, the notch and home indicator sit at the sides and below.
            if (size.width() > size.height()) c.options.safeArea = QMarginsF(47, 0, 47, 21);
            c.options.rightToLeft = document.completeBaseName().startsWith(QStringLiteral("rtl"));
            cases << c;
        }
    }
    return cases;
}

}  // namespace palomir::preview
