// The presentation interfaces are declared by the core, whose library
// defines their destructors (and with them their vtables). Until the core
// sources that do so are part of the build, palomir-qt carries them itself;
// CMake drops this file as soon as the core defines them.
// Exported, as libpalomir would export them, so that hosts and tests that
// derive from the interfaces link.
#pragma GCC visibility push(default)
#include "palomir/presentation.hpp"

namespace palomir {

ConfigurableViewController::~ConfigurableViewController() = default;
PresentingViewController::~PresentingViewController() = default;
Window::~Window() = default;

}  // namespace palomir
#pragma GCC visibility pop
