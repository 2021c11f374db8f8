#include "palomir/qt/quick_window.hpp"

#include <QtCore/QEasingCurve>
#include <QtCore/QParallelAnimationGroup>
#include <QtCore/QPropertyAnimation>
#include <QtCore/QTimer>

#include <algorithm>

#include "palomir/qt/lockdown_view_controller.hpp"

namespace palomir::qt {

Presentable::~Presentable() = default;

bool Presentable::isPresented() const {
    auto presenter = _presenter.lock();
    if (!presenter) return false;
    for (const auto& screen : presenter->presented()) {
        if (screen.get() == this) return true;
    }
    return false;
}

void Presentable::dismissFromPresenter(bool animated, std::function<void()> completion) {
    if (auto presenter = _presenter.lock()) {
        presenter->dismiss(this, animated, std::move(completion));
    } else if (completion) {
        completion();
    }
}

struct RootViewController::Presentation {
    std::shared_ptr<Presentable> screen;
    QPointer<QQuickItem> item;
    QPointer<QAbstractAnimation> animation;
    bool dismissing = false;
};

namespace {

// Slides from a little below while fading in; the reverse on the way out.
QAbstractAnimation* transition(QQuickItem* item, bool in) {
    auto* group = new QParallelAnimationGroup(item);
    auto* fade = new QPropertyAnimation(item, "opacity", group);
    fade->setDuration(RootViewController::animationDuration);
    fade->setStartValue(in ? 0.0 : 1.0);
    fade->setEndValue(in ? 1.0 : 0.0);
    auto* slide = new QPropertyAnimation(item, "y", group);
    slide->setDuration(RootViewController::animationDuration);
    const qreal offset = std::max<qreal>(24.0, item->height() * 0.06);
    slide->setStartValue(in ? offset : 0.0);
    slide->setEndValue(in ? 0.0 : offset);
    slide->setEasingCurve(in ? QEasingCurve::OutCubic : QEasingCurve::InCubic);
    group->addAnimation(fade);
    group->addAnimation(slide);
    return group;
}

// Runs `completion` once the animation ends, whether it ran its course or was
// stopped early: Qt emits `finished` only in the first case, and a completion
// the caller waits for must not depend on nobody interrupting the screen.
void onStopped(QAbstractAnimation* animation, std::function<void()> completion) {
    QObject::connect(animation, &QAbstractAnimation::stateChanged, animation,
                     [completion = std::move(completion)](QAbstractAnimation::State state) mutable {
                         if (state != QAbstractAnimation::Stopped || !completion) return;
                         auto once = std::move(completion);
                         completion = nullptr;
                         once();
                     });
}

}  // namespace

RootViewController::RootViewController(QQuickItem* host) : _host(host) {}

RootViewController::~RootViewController() {
    for (auto& presentation : _presentations) {
        if (!presentation->item) continue;
        if (_host) QObject::disconnect(_host, nullptr, presentation->item, nullptr);
        presentation->item->setParentItem(nullptr);
    }
}

void RootViewController::present(std::shared_ptr<ConfigurableViewController> screen, bool animated,
                                 std::function<void()> completion) {
    auto presentable = std::dynamic_pointer_cast<Presentable>(screen);
    if (!presentable) return;
    present(std::move(presentable), animated, std::move(completion));
}

void RootViewController::present(std::shared_ptr<Presentable> screen, bool animated,
                                 std::function<void()> completion) {
    QQuickItem* item = screen ? screen->view() : nullptr;
    if (!item || !_host) return;
    // Presenting what is already shown brings it to the front again; an
    // animation still running for it ends now (and completes).
    std::vector<QPointer<QAbstractAnimation>> running;
    for (const auto& p : _presentations) {
        if (p->screen == screen && p->animation) running.emplace_back(p->animation);
    }
    std::erase_if(_presentations, [&](const auto& p) { return p->screen == screen; });
    for (const auto& animation : running) {
        if (animation) animation->stop();
    }

    auto presentation = std::make_shared<Presentation>();
    presentation->screen = screen;
    presentation->item = item;
    _presentations.push_back(presentation);
    screen->_presenter = weak_from_this();

    item->setParentItem(_host);
    item->setZ(1000.0 + static_cast<qreal>(_presentations.size()));
    layoutScreen(item);
    QObject::connect(_host, &QQuickItem::widthChanged, item, [this, item] { layoutScreen(item); });
    QObject::connect(_host, &QQuickItem::heightChanged, item, [this, item] { layoutScreen(item); });
    item->setFocus(true);

    if (!animated) {
        item->setOpacity(1.0);
        item->setY(0.0);
        QTimer::singleShot(0, item, [completion = std::move(completion)] {
            if (completion) completion();
        });
        return;
    }
    auto* animation = transition(item, true);
    presentation->animation = animation;
    onStopped(animation, std::move(completion));
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

void RootViewController::dismiss(Presentable* screen, bool animated, std::function<void()> completion) {
    auto it = std::find_if(_presentations.begin(), _presentations.end(),
                           [&](const auto& p) { return p->screen.get() == screen && !p->dismissing; });
    if (it == _presentations.end()) {
        if (completion) completion();
        return;
    }
    auto presentation = *it;
    presentation->dismissing = true;
    if (presentation->animation) presentation->animation->stop();
    QQuickItem* item = presentation->item;

    auto finish = [weakSelf = weak_from_this(), host = _host, presentation, completion = std::move(completion)] {
        if (auto self = weakSelf.lock()) std::erase(self->_presentations, presentation);
        if (presentation->item) {
            if (host) QObject::disconnect(host, nullptr, presentation->item, nullptr);
            presentation->item->setParentItem(nullptr);
            presentation->item->setOpacity(1.0);
            presentation->item->setY(0.0);
        }
        if (completion) completion();
    };
    if (!animated || !item) {
        finish();
        return;
    }
    auto* animation = transition(item, false);
    presentation->animation = animation;
    onStopped(animation, std::move(finish));
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

void RootViewController::setSafeAreaMargins(QMarginsF margins) {
    _safeArea = margins;
    for (const auto& presentation : _presentations) layoutScreen(presentation->item);
}

std::vector<std::shared_ptr<Presentable>> RootViewController::presented() const {
    std::vector<std::shared_ptr<Presentable>> screens;
    for (const auto& presentation : _presentations) {
        if (!presentation->dismissing) screens.push_back(presentation->screen);
    }
    return screens;
}

void RootViewController::layoutScreen(QQuickItem* item) const {
    if (!item || !_host) return;
    item->setX(0.0);
    item->setSize(_host->size());
    item->setProperty("safeAreaTop", _safeArea.top());
    item->setProperty("safeAreaLeft", _safeArea.left());
    item->setProperty("safeAreaBottom", _safeArea.bottom());
    item->setProperty("safeAreaRight", _safeArea.right());
}

QuickWindow::QuickWindow(QQuickWindow* window) : _window(window) {}

std::shared_ptr<RootViewController> QuickWindow::root() {
    if (!_window || !_window->contentItem()) return nullptr;
    if (!_root || _root->host() != _window->contentItem()) {
        _root = std::make_shared<RootViewController>(_window->contentItem());
    }
    return _root;
}

std::shared_ptr<PresentingViewController> QuickWindow::rootViewController() { return root(); }

std::shared_ptr<LockdownScreen> QuickWindow::makeLockdownScreen() {
    return std::make_shared<LockdownViewController>();
}

}  // namespace palomir::qt
