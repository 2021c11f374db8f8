#pragma once

/// @file

#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtQuick/QQuickItem>

#include <memory>
#include <optional>

#include "palomir/model.hpp"
#include "palomir/qt/export.hpp"

namespace palomir::qt {

/// The two layouts of a note: "NoteView_horizontal" (a card in a list, used
/// by the lockdown screen) and "NoteView_fullscreen" (one page of the notes
/// screen).
enum class NoteStyle { horizontal = 0, fullscreen = 1 };

class NoteView;
/// A note view from the layout "NoteView_horizontal" or "NoteView_fullscreen"
/// of the Palomir bundle, its image view hidden; nothing when the layout is
/// missing or broken.
PALOMIR_QT_API std::shared_ptr<NoteView> createNoteView(NoteStyle style);

/// One note, shown by a layout's items found by objectName: titleLabel,
/// titleContainer, subtitleLabel, subtitleContainer, contentLabel,
/// contentContainer, imageView (or image) and backgroundView (or background).
class PALOMIR_QT_API NoteView : public QObject {
    Q_OBJECT
public:
    /// Takes ownership of `root`, the layout's root item.
    explicit NoteView(QQuickItem* root);
    ~NoteView() override;

    /// The note's root item; owned by this view.
    QQuickItem* view() const { return _root; }

    /// The note last applied.
    std::optional<Note> note;

    /// Fills the labels from the note (hiding those whose text is empty) and
    /// starts loading its image; the image view is shown once the image is
    /// there. Load failures are printed, never reported.
    void apply(const Note& note);

    /// @{
    /// The note view's items, for hosts that restyle them or look inside;
    /// owned by the note view's item tree and valid while the note view exists.
    QQuickItem* titleLabel() const { return _titleLabel; }
    QQuickItem* titleContainer() const { return _titleContainer; }
    QQuickItem* subtitleLabel() const { return _subtitleLabel; }
    QQuickItem* subtitleContainer() const { return _subtitleContainer; }
    QQuickItem* contentLabel() const { return _contentLabel; }
    QQuickItem* contentContainer() const { return _contentContainer; }
    QQuickItem* imageView() const { return _imageView; }
    QQuickItem* backgroundView() const { return _backgroundView; }
    /// @}

private:
    friend std::shared_ptr<NoteView> createNoteView(NoteStyle style);
    std::weak_ptr<NoteView> _self;
    QPointer<QQuickItem> _root;
    QPointer<QQuickItem> _titleLabel, _titleContainer, _subtitleLabel, _subtitleContainer;
    QPointer<QQuickItem> _contentLabel, _contentContainer, _imageView, _backgroundView;
};

}  // namespace palomir::qt
