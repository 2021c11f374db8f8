#pragma once

/// @file

#include <QtCore/QMarginsF>
#include <QtCore/QPointer>
#include <QtQuick/QQuickItem>
#include <QtQuick/QQuickWindow>

#include <functional>
#include <memory>
#include <vector>

#include "palomir/presentation.hpp"
#include "palomir/qt/export.hpp"

namespace palomir::qt {

class RootViewController;

/// A screen that can be shown as an overlay by a RootViewController. The
/// screens of palomir-qt are all Presentable; a host's own screen can be too.
class PALOMIR_QT_API Presentable {
public:
    virtual ~Presentable();
    /// The screen's root item.
    virtual QQuickItem* view() const = 0;
    /// Whether a RootViewController shows this screen now.
    bool isPresented() const;

protected:
    /// Asks the presenting controller to take this screen away; calls
    /// `completion` at once when nothing presents it.
    void dismissFromPresenter(bool animated, std::function<void()> completion);

private:
    friend class RootViewController;
    std::weak_ptr<RootViewController> _presenter;
};

/// Presents screens over the whole content of a window: the host's content
/// stays beneath, the screen's root item fills the window and follows its size.
class PALOMIR_QT_API RootViewController final : public PresentingViewController,
                                                public std::enable_shared_from_this<RootViewController> {
public:
    /// Length of the present and dismiss animations, in milliseconds.
    static constexpr int animationDuration = 250;

    /// Presents screens over `host` (normally the window's content item), which
    /// it does not own; it stops presenting once the host is destroyed.
    explicit RootViewController(QQuickItem* host);
    ~RootViewController() override;

    /// Shows a Presentable screen; fades it in and slides it up when
    /// animated. `completion` runs once, on the GUI thread, when the animation
    /// ends, also when a dismissal or a new presentation cuts it short (or,
    /// without animation, on the next turn of the event loop). A screen that
    /// is not Presentable is not shown and its completion is not called.
    void present(std::shared_ptr<ConfigurableViewController> screen, bool animated,
                 std::function<void()> completion) override;
    /// As above, for any Presentable (such as a MessageViewController's host).
    void present(std::shared_ptr<Presentable> screen, bool animated, std::function<void()> completion);
    /// Takes a presented screen away; harmless for one not presented.
    void dismiss(Presentable* screen, bool animated, std::function<void()> completion);

    /// Insets of the window that content must keep clear of (status bar,
    /// rounded corners, home indicator); handed to every presented screen's
    /// root item as safeAreaTop/Left/Bottom/Right.
    void setSafeAreaMargins(QMarginsF margins);
    /// The insets set last.
    QMarginsF safeAreaMargins() const { return _safeArea; }

    /// The item screens are shown over; null once it is gone.
    QQuickItem* host() const { return _host; }
    /// The screens shown now, in order of presentation.
    std::vector<std::shared_ptr<Presentable>> presented() const;

private:
    struct Presentation;
    void layoutScreen(QQuickItem* item) const;
    QPointer<QQuickItem> _host;
    QMarginsF _safeArea;
    std::vector<std::shared_ptr<Presentation>> _presentations;
};

/// The host's QQuickWindow as the lockdown flow sees it.
class PALOMIR_QT_API QuickWindow final : public Window {
public:
    /// Wraps the host's window without owning it; use on the GUI thread.
    explicit QuickWindow(QQuickWindow* window);

    /// Nothing once the window is gone.
    std::shared_ptr<PresentingViewController> rootViewController() override;
    /// A new LockdownViewController.
    std::shared_ptr<LockdownScreen> makeLockdownScreen() override;

    /// The same controller as rootViewController(), typed.
    std::shared_ptr<RootViewController> root();
    /// The wrapped window; null once it is gone.
    QQuickWindow* window() const { return _window; }

private:
    QPointer<QQuickWindow> _window;
    std::shared_ptr<RootViewController> _root;
};

}  // namespace palomir::qt
