#include "palomir/qt/feature_view_controller.hpp"

#include "layout.hpp"
#include "palomir/bundle.hpp"

namespace palomir::qt {

using detail::outlet;
using detail::write;

FeatureViewController::FeatureViewController() {
    _root = detail::loadLayout(QStringLiteral("FeatureViewController"), this);
    if (!_root) _root = new QQuickItem;
    _root->setParent(this);
    _stackView = outlet(_root, {"stackView"});
    _closeButton = outlet(_root, {"closeButton"});
    if (_closeButton) {
        write(_closeButton, "text",
              QString::fromStdString(Bundle::palomir().localizedString("PalomirCloseButtonTitle", "")));
        connect(_closeButton, SIGNAL(clicked()), this, SLOT(didPressCloseButton()));
    }
    if (_stackView) connect(_stackView, &QQuickItem::heightChanged, this, &FeatureViewController::layoutPages);
}

FeatureViewController::~FeatureViewController() {
    disconnect(_stackViewWidthConstraint);
    _noteViews.clear();
}

void FeatureViewController::setConfig(std::optional<Configuration> config) {
    _config = std::move(config);
    if (_config) apply(*_config);
}

void FeatureViewController::dismiss(bool animated, std::function<void()> completion) {
    dismissFromPresenter(animated, std::move(completion));
}

void FeatureViewController::didPressCloseButton() { dismiss(true, {}); }

void FeatureViewController::apply(const Configuration& configuration) {
    const auto& lockdown = configuration.lockdown;
    if (!lockdown.notes) return;
    const auto& notes = *lockdown.notes;

    if (lockdown.type && _closeButton) _closeButton->setVisible(*lockdown.type == LockdownType::soft);
    write(_root, "color", detail::toQColor(configuration.theme.backgroundColor));
    if (!_stackView) return;

    applyStackWidth(notes.size());

    for (auto& noteView : _noteViews) {
        if (noteView->view()) noteView->view()->setParentItem(nullptr);
    }
    _noteViews.clear();
    for (const auto& note : notes) {
        auto noteView = createNoteView(NoteStyle::fullscreen);
        if (!noteView) continue;
        noteView->note = note;
        noteView->apply(note);
        noteView->view()->setParentItem(_stackView);
        _noteViews.push_back(std::move(noteView));
    }
    _root->setProperty("pageCount", static_cast<int>(_noteViews.size()));
    layoutPages();
}

void FeatureViewController::applyStackWidth(std::size_t count) {
    // The row is `count` window widths wide; the rule is kept as a
    // connection so that the next apply can replace it.
    disconnect(_stackViewWidthConstraint);
    _pageCount = count;
    _stackViewWidthConstraint = connect(_root, &QQuickItem::widthChanged, this, &FeatureViewController::layoutPages);
    layoutPages();
}

void FeatureViewController::layoutPages() {
    if (!_stackView || !_root) return;
    const qreal width = _root->width();
    _stackView->setWidth(width * static_cast<qreal>(_pageCount));
    for (const auto& noteView : _noteViews) {
        if (auto* page = noteView->view()) page->setSize(QSizeF(width, _stackView->height()));
    }
}

}  // namespace palomir::qt
