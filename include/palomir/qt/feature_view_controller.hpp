#pragma once

/// @file

#include <QtCore/QMetaObject>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtQuick/QQuickItem>

#include <memory>
#include <optional>
#include <vector>

#include "palomir/presentation.hpp"
#include "palomir/qt/export.hpp"
#include "palomir/qt/note_view.hpp"
#include "palomir/qt/quick_window.hpp"

namespace palomir::qt {

/// The notes screen: the lockdown's notes side by side, one window width
/// each, in a horizontally paging row, with a close button that a hard
/// lockdown hides. Layout "FeatureViewController"; outlets stackView and
/// closeButton (both optional).
class PALOMIR_QT_API FeatureViewController : public QObject,
                                             public ConfigurableViewController,
                                             public Presentable {
    Q_OBJECT
public:
    FeatureViewController();
    ~FeatureViewController() override;

    QQuickItem* view() const override { return _root; }

    std::optional<Configuration> config() const override { return _config; }
    /// A value re-renders the screen; nothing leaves it as it is.
    void setConfig(std::optional<Configuration> config) override;
    void dismiss(bool animated, std::function<void()> completion) override;

    /// @{
    /// The screen's items, for hosts that restyle them or look inside;
    /// owned by the screen's item tree and valid while the screen exists.
    QQuickItem* stackView() const { return _stackView; }
    QQuickItem* closeButton() const { return _closeButton; }
    const std::vector<std::shared_ptr<NoteView>>& noteViews() const { return _noteViews; }
    /// @}

public Q_SLOTS:
    /// What the close button does: dismisses the screen, animated.
    void didPressCloseButton();

private:
    void apply(const Configuration& configuration);
    void applyStackWidth(std::size_t count);
    void layoutPages();

    QPointer<QQuickItem> _root;
    QPointer<QQuickItem> _stackView;
    QPointer<QQuickItem> _closeButton;
    std::optional<Configuration> _config;
    QMetaObject::Connection _stackViewWidthConstraint;
    std::size_t _pageCount = 0;
    std::vector<std::shared_ptr<NoteView>> _noteViews;
};

}  // namespace palomir::qt
