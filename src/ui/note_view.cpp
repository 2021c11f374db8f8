#include "palomir/qt/note_view.hpp"

#include "layout.hpp"

namespace palomir::qt {

using detail::outlet;
using detail::toQString;
using detail::write;

NoteView::NoteView(QQuickItem* root) : _root(root) {
    if (!_root) return;
    _root->setParent(this);
    _titleLabel = outlet(_root, {"titleLabel"});
    _titleContainer = outlet(_root, {"titleContainer"});
    _subtitleLabel = outlet(_root, {"subtitleLabel"});
    _subtitleContainer = outlet(_root, {"subtitleContainer"});
    _contentLabel = outlet(_root, {"contentLabel"});
    _contentContainer = outlet(_root, {"contentContainer"});
    _imageView = outlet(_root, {"imageView", "image"});
    _backgroundView = outlet(_root, {"backgroundView", "background"});
}

NoteView::~NoteView() {
    if (_imageView) detail::releaseImage(_imageView->property("palomirImageKey").toString());
    delete _root.data();
}

void NoteView::apply(const Note& note) {
    // Each step needs the label before it: a layout that lacks one is filled
    // only up to there.
    if (!_titleLabel) return;
    write(_titleLabel, "text", toQString(note.title));
    if (note.title.empty()) _titleLabel->setVisible(false);

    if (!_subtitleLabel) return;
    write(_subtitleLabel, "text", toQString(note.subtitle));
    if (!note.subtitle || note.subtitle->empty()) _subtitleLabel->setVisible(false);

    if (!_contentLabel) return;
    write(_contentLabel, "text", toQString(note.content));
    if (note.content.empty()) _contentLabel->setVisible(false);

    if (!note.image) return;
    // The download holds the view until it ends, so an image that arrives
    // after the view was taken out still lands harmlessly.
    detail::fetchImage(*note.image, nullptr, [self = _self.lock(), view = QPointer<NoteView>(this)](QImage image) {
        if (!view || !view->_imageView) return;
        QQuickItem* imageView = view->_imageView;
        imageView->setVisible(true);
        if (image.isNull()) return;
        detail::releaseImage(imageView->property("palomirImageKey").toString());
        const auto key = detail::storeImage(image);
        imageView->setProperty("palomirImageKey", key);
        write(imageView, "source", detail::storedImageUrl(key));
    });
}

std::shared_ptr<NoteView> createNoteView(NoteStyle style) {
    const QString name = QStringLiteral("NoteView_") +
                         (style == NoteStyle::fullscreen ? QStringLiteral("fullscreen") : QStringLiteral("horizontal"));
    QQuickItem* root = detail::loadLayout(name, nullptr);
    if (!root) return nullptr;
    auto view = std::shared_ptr<NoteView>(new NoteView(root));
    view->_self = view;
    if (view->imageView()) view->imageView()->setVisible(false);
    return view;
}

}  // namespace palomir::qt
