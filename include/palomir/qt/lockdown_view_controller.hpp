#pragma once

/// @file

#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtQuick/QQuickItem>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "palomir/presentation.hpp"
#include "palomir/qt/export.hpp"
#include "palomir/qt/note_view.hpp"
#include "palomir/qt/quick_window.hpp"
#include "palomir/qt/ui_support.hpp"

namespace palomir::qt {

/// The lockdown screen: title image, title and subtitle, the lockdown's notes
/// in a vertical list, an action button and, for a soft lockdown, a close
/// button. Layout "LockdownViewController"; the outlets backgroundView,
/// titleLabel, subtitleLabel, titleImageView, actionButton, closeButton and
/// contentView are required (a layout without one stops the process at the
/// first apply); headerView and footerView are optional.
class PALOMIR_QT_API LockdownViewController : public QObject, public LockdownScreen, public Presentable {
    Q_OBJECT
public:
    LockdownViewController();
    ~LockdownViewController() override;

    QQuickItem* view() const override { return _root; }

    std::optional<Configuration> config() const override { return _config; }
    /// A value renders it; nothing makes the background clear.
    void setConfig(std::optional<Configuration> config) override;
    void dismiss(bool animated, std::function<void()> completion) override;
    void setDismissCallback(std::function<void(DismissAction)> callback) override;

    /// @{
    /// The screen's items, for hosts that restyle them or look inside;
    /// owned by the screen's item tree and valid while the screen exists.
    QQuickItem* backgroundView() const { return _backgroundView; }
    QQuickItem* headerView() const { return _headerView; }
    QQuickItem* contentView() const { return _contentView; }
    QQuickItem* footerView() const { return _footerView; }
    QQuickItem* titleLabel() const { return _titleLabel; }
    QQuickItem* subtitleLabel() const { return _subtitleLabel; }
    QQuickItem* titleImageView() const { return _titleImageView; }
    QQuickItem* actionButton() const { return _actionButton; }
    QQuickItem* closeButton() const { return _closeButton; }
    /// @}
    /// The gradient drawn behind everything, when the theme has one.
    QQuickItem* backgroundGradientLayer() const { return _backgroundGradientLayer; }
    /// @{
    /// The scrolling area, the stack of notes in it and their views.
    QQuickItem* scrollView() const { return _scrollView; }
    QQuickItem* stackView() const { return _stackView; }
    const std::vector<std::shared_ptr<NoteView>>& noteViews() const { return _noteViews; }
    /// @}

public Q_SLOTS:
    /// Dismisses the screen (animated), then reports `close`.
    void didPressCloseButton();
    /// Opens the lockdown's action URL, if any, then reports `performAction`.
    /// The screen stays: the lockdown flow decides what happens next.
    void didPressActionButton();

private:
    void apply(const Configuration& configuration);
    void insertBackgroundGradient(const ColorGradient& gradient);
    void setup(const std::vector<Note>& notes);
    void loadTitleImage(const std::optional<Url>& url);

    QPointer<QQuickItem> _root;
    QPointer<QQuickItem> _backgroundView, _headerView, _contentView, _footerView;
    QPointer<QQuickItem> _titleLabel, _subtitleLabel, _titleImageView, _actionButton, _closeButton;
    QPointer<QQuickItem> _backgroundGradientLayer, _stackView, _scrollView;
    QPointer<RoundButton> _roundActionButton;
    std::optional<Configuration> _config;
    std::function<void(DismissAction)> _dismissCallback;
    std::vector<std::shared_ptr<NoteView>> _noteViews;
    QString _titleImageId;
};

}  // namespace palomir::qt
