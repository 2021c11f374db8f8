// A minimal Qt Quick host: one QML page in a QQuickView, with Palomir
// checking for a lockdown over it and showing the worst service's message
// as a banner at its top. Usage:
//   palomir-qt-host <base-url> <ca.pem> <bundle-dir> <app-token> <app-secret>
// (palomir-sandbox prints the values to use.)

#include <QtGui/QGuiApplication>
#include <QtQuick/QQuickItem>
#include <QtQuick/QQuickView>

#include <iostream>
#include <memory>

#include <palomir/palomir.hpp>
#include <palomir/qt/application.hpp>
#include <palomir/qt/message_view_controller.hpp>
#include <palomir/qt/quick_window.hpp>

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("QtHost"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("example.com"));
    QCoreApplication::setApplicationVersion(QStringLiteral("1.0"));
    const QStringList args = app.arguments();
    if (args.size() != 6) {
        std::cerr << "usage: palomir-qt-host <base-url> <ca.pem> <bundle-dir> <app-token> <app-secret>\n";
        return 2;
    }

    // Binds Palomir's main queue to this event loop and describes the app
    // from the names set above.
    palomir::qt::install(app);

    QQuickView view;
    view.setResizeMode(QQuickView::SizeRootObjectToView);
    view.setSource(QUrl(QStringLiteral("qrc:/qt/host/Main.qml")));
    view.resize(390, 844);
    view.show();

    auto& palomir = palomir::Palomir::shared();
    palomir.setBackend(palomir::BackendOptions{args[1].toStdString(), {args[2].toStdString()}, args[3].toStdString()});
    palomir.setAppCredentials(palomir::AppCredentials{args[4].toStdString(), args[5].toStdString()});

    // What the host does at launch and whenever it comes to the foreground.
    auto window = std::make_shared<palomir::qt::QuickWindow>(&view);
    QObject bannerHost;
    palomir.lockdownIfNeeded(
        window, true,
        [](palomir::DismissAction action) {
            std::cout << (action == palomir::DismissAction::close ? "closed\n" : "action chosen\n");
        },
        [&](palomir::LockdownResult result) {
            std::cout << (result.isOpen() ? "open" : "locked down") << std::endl;
            palomir::qt::updateMessageView(&bannerHost, view.rootObject(), palomir::Palomir::MessageViewLocation::top, 8.0);
        });
    return app.exec();
}
