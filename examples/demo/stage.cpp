#include "stage.hpp"

#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QTimer>
#include <QtGui/QImage>
#include <QtQml/QQmlComponent>

#include "palomir/qt/application.hpp"
#include "palomir/qt/message_view_controller.hpp"

namespace demo {
namespace {

// A phone-sized window: the screens are laid out for one.
constexpr QSize kWindowSize{390, 844};
// Status bar above, home indicator below.
const QMarginsF kSafeArea{0, 47, 0, 34};

constexpr char kHostScreen[] = R"(
import QtQuick
Rectangle {
    color: "#F2F2F7"
    Column {
        x: 16; y: 64; width: parent.width - 32; spacing: 10
        Text { text: "My Notes"; font.pixelSize: 32; font.weight: Font.Bold; color: "#1C1C1E" }
        Repeater {
            model: ["Groceries", "Trip to Lisbon", "Book club", "Ideas", "Passwords to change"]
            Rectangle {
                width: parent.width; height: 56; radius: 10; color: "#FFFFFF"
                Text { x: 14; anchors.verticalCenter: parent.verticalCenter; text: modelData
                       font.pixelSize: 17; color: "#1C1C1E" }
            }
        }
    }
}
)";

}  // namespace

bool runUntil(const std::function<bool()>& done, int milliseconds) {
    if (done()) return true;
    QElapsedTimer clock;
    clock.start();
    QEventLoop loop;
    QTimer poll;
    poll.setInterval(5);
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done() || clock.elapsed() >= milliseconds) loop.quit();
    });
    poll.start();
    loop.exec();
    return done();
}

void settle(int milliseconds) {
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

Stage::Stage() : _window(std::make_unique<QQuickWindow>()) {
    _window->resize(kWindowSize);
    _window->setTitle(QStringLiteral("palomir-demo"));
    _window->setColor(Qt::white);
    QQmlComponent component(&palomir::qt::layoutEngine());
    component.setData(kHostScreen, QUrl::fromLocalFile(QStringLiteral("/palomir-demo/host.qml")));
    _content = qobject_cast<QQuickItem*>(component.create());
    if (_content) {
        _content->setParent(_window.get());
        _content->setParentItem(_window->contentItem());
        _content->setSize(QSizeF(kWindowSize));
        palomir::qt::setSafeAreaMargins(_content, kSafeArea);
    }
    _adapter = std::make_shared<palomir::qt::QuickWindow>(_window.get());
    if (auto root = _adapter->root()) root->setSafeAreaMargins(kSafeArea);
    _window->show();
}

Stage::~Stage() = default;

bool Stage::save(const QString& path, QString* error) {
    const QImage image = _window->grabWindow();
    if (image.isNull()) {
        *error = QStringLiteral("the window could not be grabbed");
        return false;
    }
    if (!image.save(path)) {
        *error = QStringLiteral("could not write ") + path;
        return false;
    }
    return true;
}

}  // namespace demo
