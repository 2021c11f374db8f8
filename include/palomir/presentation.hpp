#pragma once

/// @file
/// What the lockdown flow needs of a host's screens and window. palomir-qt
/// implements it on Qt Quick; a host with its own toolkit implements it itself.
/// Every call on these interfaces is made on the main queue.

#include <functional>
#include <memory>
#include <optional>

#include "palomir/export.hpp"
#include "palomir/model.hpp"

namespace palomir {

/// What the user did on a presented lockdown screen.
enum class DismissAction { performAction = 0, close = 1 };

/// A screen that shows a configuration. The core keeps the screens it
/// presented as these; a user-interface module (palomir-qt, or a host's own)
/// implements them.
class PALOMIR_API ConfigurableViewController {
public:
    /// Screens are shared: the core keeps them as long as Palomir::viewControllers() lists them.
    virtual ~ConfigurableViewController();
    /// The configuration last assigned, or nothing before the first.
    virtual std::optional<Configuration> config() const = 0;
    /// Assigning a value renders it.
    virtual void setConfig(std::optional<Configuration> config) = 0;
    /// Asks whoever presented this screen to take it away. Harmless when it
    /// is not presented (any more).
    virtual void dismiss(bool animated, std::function<void()> completion) = 0;
};

/// What the lockdown flow needs of a lockdown screen beyond the above.
class PALOMIR_API LockdownScreen : public ConfigurableViewController {
public:
    /// Replaces what is called when the user presses the screen's action or close
    /// button; the screen calls it on the main queue, once per press.
    virtual void setDismissCallback(std::function<void(DismissAction)> callback) = 0;
};

/// The controller a window presents screens from.
class PALOMIR_API PresentingViewController {
public:
    /// Owned by the window that hands it out.
    virtual ~PresentingViewController();
    /// Presents the screen over everything (the host's content stays beneath)
    /// and calls `completion` once it is shown (after the animation, if any).
    virtual void present(std::shared_ptr<ConfigurableViewController> screen, bool animated,
                         std::function<void()> completion) = 0;
};

/// The host's window, as the lockdown flow sees it.
class PALOMIR_API Window {
public:
    /// The lockdown flow holds the window it is given while it works with it.
    virtual ~Window();
    /// Nothing while the window has no content to present from.
    virtual std::shared_ptr<PresentingViewController> rootViewController() = 0;
    /// A new, unconfigured lockdown screen for this window's toolkit.
    virtual std::shared_ptr<LockdownScreen> makeLockdownScreen() = 0;
};

}  // namespace palomir
