// Presenting screens over a window, and hooking Palomir into an application.

#include <QtGui/QGuiApplication>
#include <QtQuick/QQuickWindow>
#include <QtTest/QTest>

#include <gtest/gtest.h>

#include "palomir/bundle.hpp"
#include "palomir/client.hpp"
#include "palomir/qt/application.hpp"
#include "palomir/qt/lockdown_view_controller.hpp"
#include "palomir/qt/quick_window.hpp"
#include "support.hpp"

namespace palomir::qt {
namespace {

class PresentationTest : public testing::Test {
protected:
    void SetUp() override {
        window.resize(360, 640);
        window.show();
    }
    QQuickWindow window;
    std::shared_ptr<QuickWindow> adapter = std::make_shared<QuickWindow>(&window);
};

// An animated presentation closed by its button, then an unanimated one.
// (The screenshot tests present under a safe area.)
TEST_F(PresentationTest, PresentingFillsTheWindowAndDismissingRemovesTheScreen) {
    auto screen = std::dynamic_pointer_cast<LockdownViewController>(adapter->makeLockdownScreen());
    ASSERT_NE(screen, nullptr);
    std::vector<DismissAction> reported;
    screen->setDismissCallback([&](DismissAction action) { reported.push_back(action); });
    screen->setConfig(test::withLockdown(R"({"active":true,"type":"soft","latest_version":"2","dismiss_title":"Later"})"));
    bool called = false;
    screen->dismiss(true, [&] { called = true; });  // not presented: completes at once
    EXPECT_TRUE(called);
    bool done = false;
    adapter->rootViewController()->present(screen, true, [&] { done = true; });
    ASSERT_TRUE(QTest::qWaitFor([&] { return done; }));
    EXPECT_EQ(QRectF(screen->view()->position(), screen->view()->size()), QRectF(0, 0, 360, 640));
    EXPECT_TRUE(screen->isPresented());
    window.contentItem()->setSize(QSizeF(640, 360));
    EXPECT_EQ(screen->view()->size(), QSizeF(640, 360));

    test::click(screen->closeButton());
    EXPECT_EQ(reported, std::vector<DismissAction>{DismissAction::close});
    EXPECT_FALSE(screen->isPresented());
    ASSERT_TRUE(QTest::qWaitFor([&] { return screen->view()->parentItem() == nullptr; }));
    EXPECT_TRUE(adapter->root()->presented().empty());

    done = false;
    adapter->rootViewController()->present(screen, false, [&] { done = true; });
    EXPECT_FALSE(done);
    ASSERT_TRUE(QTest::qWaitFor([&] { return done; }, 1000));
    screen->dismiss(false, {});
    EXPECT_EQ(screen->view()->parentItem(), nullptr);
}

// The second check-in's answer arrives while the first screen still fades in:
// it takes that screen away and shows its own, and each caller hears once.
// Installing also describes the application in the main bundle, unless the
// host set one itself.
TEST_F(PresentationTest, InstalledASecondLockdownCuttingTheFirstAnimationShortCompletesBothOnce) {
    QCoreApplication::setOrganizationDomain(QStringLiteral("example.com"));
    QCoreApplication::setApplicationName(QStringLiteral("Lists"));
    QCoreApplication::setApplicationVersion(QStringLiteral("3.1.4+27"));
    auto& application = *qobject_cast<QGuiApplication*>(QCoreApplication::instance());
    install(application);
    const Bundle main = Bundle::main();
    EXPECT_EQ(main.identifier(), std::optional<std::string>("com.example.Lists"));
    EXPECT_EQ(main.string("CFBundleShortVersionString"), std::optional<std::string>("3.1.4"));
    EXPECT_EQ(main.string("CFBundleVersion"), std::optional<std::string>("27"));
    auto& palomir = Palomir::shared();
    palomir.setConfiguration(test::withLockdown(R"({"active":true,"type":"hard","latest_version":"2"})"));
    int first = 0, second = 0;
    bool cutShort = false;
    QPointer<QQuickItem> firstView;
    palomir.lockdownIfNeeded(adapter, true, {}, [&](LockdownResult) {
        ++first;
        cutShort = firstView && firstView->opacity() < 1.0;
    });
    ASSERT_TRUE(QTest::qWaitFor([&] { return !adapter->root()->presented().empty(); }));
    firstView = adapter->root()->presented().front()->view();
    palomir.lockdownIfNeeded(adapter, true, {}, [&](LockdownResult) { ++second; });
    ASSERT_TRUE(QTest::qWaitFor([&] { return second > 0; }));
    QTest::qWait(2 * RootViewController::animationDuration);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
    ASSERT_EQ(adapter->root()->presented().size(), 1u);
    EXPECT_NE(adapter->root()->presented().front()->view(), firstView.data());
    palomir.setConfiguration(std::nullopt);
    for (const auto& screen : adapter->root()->presented()) adapter->root()->dismiss(screen.get(), false, {});
    Bundle::setMain(Bundle(nlohmann::json{{"CFBundleIdentifier", "host.own"}}, std::nullopt));
    install(application);
    EXPECT_EQ(Bundle::main().identifier(), std::optional<std::string>("host.own"));
    if (!cutShort) GTEST_SKIP() << "the first animation ended before the second screen came; nothing was cut short";
}

}  // namespace
}  // namespace palomir::qt
