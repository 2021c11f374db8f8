#include "palomir/presentation.hpp"

namespace palomir {

// Out-of-line so that the interfaces' type information lives in one place.
ConfigurableViewController::~ConfigurableViewController() = default;
PresentingViewController::~PresentingViewController() = default;
Window::~Window() = default;

}  // namespace palomir
