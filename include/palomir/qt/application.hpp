#pragma once

/// @file

#include <QtQml/QQmlEngine>

#include "palomir/qt/export.hpp"

class QGuiApplication;

namespace palomir::qt {

/// Hooks Palomir into a Qt application; call once, on the GUI thread, after
/// the application object exists and its name, organisation and version are
/// set.
///
/// - Binds palomir::MainQueue::shared() to the GUI thread's event loop.
/// - Unless the host has already set a main bundle (palomir::Bundle::setMain),
///   describes the application as the main bundle: "CFBundleIdentifier" from
///   the organisation domain (reversed) and the application name,
///   "CFBundleDisplayName" from the display name, "CFBundleShortVersionString"
///   and "CFBundleVersion" from the application version.
/// - Supplies the preferred languages and the locale from QLocale::system().
PALOMIR_QT_API void install(QGuiApplication& application);

/// The engine that builds the screens from their layouts. Made on first use,
/// owned by the application object.
PALOMIR_QT_API QQmlEngine& layoutEngine();

}  // namespace palomir::qt
