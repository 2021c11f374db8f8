// palomir-demo: a host application that walks through everything Palomir
// does, against a sandbox backend, and checks that each step did what it
// says. Run with --help for the options.

#include <CLI/CLI.hpp>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtGui/QGuiApplication>
#include <QtGui/QImage>
#include <QtQuick/QQuickWindow>
#include <QtQuick/QSGRendererInterface>

#include <algorithm>
#include <any>
#include <cmath>
#include <cstdlib>
#include <iomanip>
#include <map>
#include <mutex>
#include <sstream>

#include "backend.hpp"
#include "palomir/environment.hpp"
#include "palomir/palomir.hpp"
#include "palomir/qt/application.hpp"
#include "palomir/qt/feature_view_controller.hpp"
#include "palomir/qt/message_view_controller.hpp"
#include "palomir/qt/quick_window.hpp"
#include "report.hpp"
#include "stage.hpp"

namespace fs = std::filesystem;
using namespace palomir;
using namespace std::chrono_literals;

namespace {

constexpr int kNetworkTimeout = 20000;
constexpr const char* kUserToken = "demo-user";

struct Options {
    fs::path out = "palomir-demo-out";
    fs::path scenarios = PALOMIR_DEMO_SCENARIOS;
    bool gui = false;
    int paceMilliseconds = 300;
    bool verbose = false;
    demo::Connection remote;
};

bool displayAvailable() {
    const char* x11 = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    return (x11 && *x11) || (wayland && *wayland);
}

std::string hex(const Color& color) {
    auto byte = [](double component) {
        return static_cast<int>(std::lround(std::clamp(component, 0.0, 1.0) * 255.0));
    };
    std::ostringstream text;
    text << '#' << std::hex << std::uppercase << std::setfill('0') << std::setw(2) << byte(color.red) << std::setw(2)
         << byte(color.green) << std::setw(2) << byte(color.blue);
    if (color.alpha < 1.0) text << std::setw(2) << byte(color.alpha);
    return text.str();
}

std::string describe(const LockdownResult& result) {
    if (result.isOpen()) return "open";
    return "lockedDown(" + std::string(toString(*result.type())) + ")";
}

std::string describe(const Lockdown& lockdown) {
    if (!lockdown.active) return "not active (latest version " + lockdown.latestVersion + ")";
    std::string text = std::string(toString(lockdown.type.value_or(LockdownType::soft))) + ", latest version " +
                       lockdown.latestVersion;
    if (lockdown.title) text += ": \"" + *lockdown.title + "\"";
    return text;
}

std::string plural(std::size_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// Waits for one completion, running the GUI thread's event loop meanwhile:
// palomir-qt binds the main queue to it, so completions delivered there run.
template <class T>
class Awaited {
public:
    std::function<void(T)> completion() {
        return [this](T value) {
            std::lock_guard lock(_mutex);
            if (!_value) _value.emplace(std::move(value));
            ++_calls;
        };
    }
    /// Nothing when no completion arrived in time.
    std::optional<T> wait(int milliseconds = kNetworkTimeout) {
        demo::runUntil([this] { return ready(); }, milliseconds);
        std::lock_guard lock(_mutex);
        return _value;
    }
    int calls() {
        std::lock_guard lock(_mutex);
        return _calls;
    }

private:
    bool ready() {
        std::lock_guard lock(_mutex);
        return _value.has_value();
    }
    std::mutex _mutex;
    std::optional<T> _value;
    int _calls = 0;
};

class Demo {
public:
    Demo(Options options, demo::Backend& backend, demo::Stage& stage)
        : _options(std::move(options)), _backend(backend), _stage(stage),
          _report(std::chrono::milliseconds(_options.paceMilliseconds)) {}

    int run() {
        introduce();
        configure();
        checkin();
        checkinFromMemory();
        notesScreen();
        serviceStatus();
        serviceBanner();
        lockdowns();
        feedback();
        return conclude();
    }

private:
    fs::path scenario(const std::string& name) const { return _options.scenarios / (name + ".json"); }

    bool serve(const std::string& name) {
        auto set = _backend.setScenario(scenario(name));
        if (set.hasError()) return _report.check(false, "the backend serves the " + name + " scenario: " + set.error());
        _report.fact("The backend now serves the \"" + name + "\" scenario.");
        return true;
    }

    std::size_t checkinRequests() {
        auto requests = _backend.requests();
        if (requests.hasError()) {
            _report.check(false, "the backend tells what it received: " + requests.error());
            return 0;
        }
        return static_cast<std::size_t>(std::count_if(requests.value().begin(), requests.value().end(), [](auto& r) {
            return r.target.rfind("/api/checkin/", 0) == 0;
        }));
    }

    // The held configuration names no timed check-in, or one an hour away:
    // a host would wait for it. The demo cannot, so it lets the client forget
    // what it holds and ask the backend again.
    void forgetConfiguration() { Palomir::shared().setConfiguration(std::nullopt); }

    std::optional<Configuration> checkinNow(const std::string& what) {
        Awaited<Result<Configuration, Error>> awaited;
        _report.beginProgress(what);
        Palomir::shared().checkin(mainQueue(), awaited.completion());
        auto result = awaited.wait();
        if (!result) {
            _report.endProgress("no answer");
            _report.check(false, "the check-in completes within " + std::to_string(kNetworkTimeout / 1000) + " s");
            return std::nullopt;
        }
        if (result->hasError()) {
            _report.endProgress("failed");
            _report.check(false, "the check-in succeeds: " + result->error().localizedDescription());
            return std::nullopt;
        }
        _report.endProgress("done");
        return result->value();
    }

    void showForAWhile() {
        if (_options.gui) demo::settle(std::max(1500, _options.paceMilliseconds * 4));
    }

    bool savePNG(const std::string& name) {
        const fs::path path = _options.out / name;
        QString error;
        const bool saved = _stage.save(QString::fromStdString(path.string()), &error);
        const QImage image(QString::fromStdString(path.string()));
        bool varied = false;
        if (!image.isNull()) {
            const QRgb first = image.pixel(0, 0);
            for (int y = 0; y < image.height() && !varied; y += 7)
                for (int x = 0; x < image.width() && !varied; x += 7) varied = image.pixel(x, y) != first;
        }
        std::error_code ec;
        const auto size = fs::file_size(path, ec);
        const bool ok = _report.check(saved && !ec && size > 0 && varied,
                                      "wrote " + path.string() + (ec ? "" : " (" + std::to_string(size / 1024) + " KB)") +
                                          (saved ? "" : ": " + error.toStdString()) +
                                          (saved && !varied ? ": the picture is one flat colour" : ""));
        if (ok) _written.push_back(path);
        showForAWhile();
        return ok;
    }

    void introduce() {
        _report.section("Palomir demo");
        _report.fact("Backend: " + _backend.description());
        const auto connection = _backend.connection();
        _report.fact("API base URL: " + connection.baseURL);
        _report.fact("Pinned key: " + (connection.bundleDirectory / "localhost.crt").string() +
                     ", trusted CA: " + connection.caFile.string());
        _report.fact("Screens are drawn " +
                     std::string(_options.gui ? "in a window on your display" : "offscreen") + " and saved under " +
                     _options.out.string());
    }

    void configure() {
        _report.section("Credentials");
        const auto connection = _backend.connection();
        auto& palomir = Palomir::shared();
        palomir.setBackend(BackendOptions{connection.baseURL, {connection.caFile}, connection.bundleDirectory});
        palomir.setAppCredentials(AppCredentials{connection.token, connection.secret});
        palomir.setUserCredentials(std::make_shared<StaticUserCredentials>(kUserToken));
        _report.fact("App token \"" + connection.token + "\" with its secret; every request is signed with them.");
        _report.fact("User token \"" + std::string(kUserToken) + "\", sent as X-Authorization-User.");
        const auto app = palomir.appCredentials();
        _report.check(app && app->token == connection.token, "the client holds the app credentials");
        _report.check(palomir.userCredentials() != nullptr, "the client holds the user credentials");
        if (auto info = palomir.appInfo())
            _report.fact("The host is described as " + info->name.value_or(info->bundleIdentifier) + " " +
                         info->version + " (" + info->bundleIdentifier + "); User-Agent: " + AppInfo::userAgent());
    }

    void checkin() {
        _report.section("Check-in");
        if (!serve("notes-only")) return;
        const auto before = checkinRequests();
        auto configuration = checkinNow("checking in");
        if (!configuration) return;
        printConfiguration(*configuration);
        _report.check(checkinRequests() == before + 1, "one check-in request reached the backend");
        auto requests = _backend.requests();
        if (requests.hasValue() && !requests.value().empty()) {
            const auto& last = requests.value().back();
            _report.check(last.userAuthorization == "Bearer " + std::string(kUserToken),
                          "it carried the user's token (X-Authorization-User: " + last.userAuthorization + ")");
        }
        _first = configuration;
    }

    void printConfiguration(const Configuration& c) {
        _report.fact("Configuration version " + c.version);
        if (c.nextCheckin) {
            std::string when = "at the next";
            std::string events;
            for (auto event : c.nextCheckin->onEvent) events += (events.empty() ? "" : " or ") + std::string(toString(event));
            if (c.nextCheckin->automaticallyAt) {
                const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(
                    *c.nextCheckin->automaticallyAt - std::chrono::system_clock::now());
                _report.fact("Next check-in: " + plRFC3339Format(*c.nextCheckin->automaticallyAt) + " (in about " +
                             std::to_string(minutes.count() + 1) + " min)" + (events.empty() ? "" : ", and on " + events));
            } else {
                _report.fact("Next check-in: " + (events.empty() ? std::string("none asked for") : "on " + events));
            }
        }
        std::string theme = "text " + hex(c.theme.textColor) + ", background " + hex(c.theme.backgroundColor);
        if (c.theme.innerBackgroundColor) theme += ", panel " + hex(*c.theme.innerBackgroundColor);
        if (c.theme.actionButtonColor) theme += ", button " + hex(*c.theme.actionButtonColor);
        if (c.theme.actionTextColor) theme += " with text " + hex(*c.theme.actionTextColor);
        if (c.theme.backgroundGradient) theme += ", a gradient of " + plural(c.theme.backgroundGradient->colors.size(), "colour");
        _report.fact("Theme: " + theme);
        _report.fact("Notes: " + plural(c.notes.size(), "note"));
        for (const auto& note : c.notes) _report.detail("- " + note.title + (note.subtitle ? " (" + *note.subtitle + ")" : ""));
        _report.fact("Lockdown: " + describe(c.lockdown));
        const auto& services = c.services.value_or(std::vector<Service>{});
        _report.fact("Services: " + (services.empty() ? std::string("none listed") : plural(services.size(), "service")));
        for (const auto& service : services)
            _report.detail("- " + service.name + ": " + std::string(toString(service.state)) +
                           (service.available ? "" : ", unavailable"));
    }

    void checkinFromMemory() {
        _report.section("Check-in again");
        const auto before = checkinRequests();
        _report.fact("Check-in requests the backend has received so far: " + std::to_string(before));
        auto configuration = checkinNow("checking in again");
        if (!configuration) return;
        const auto after = checkinRequests();
        _report.fact("Check-in requests the backend has received now: " + std::to_string(after));
        _report.check(after == before, "the configuration came from memory, with no request");
        _report.check(_first && configuration->version == _first->version, "it is the configuration held (version " +
                                                                                configuration->version + ")");
    }

    void notesScreen() {
        _report.section("Notes screen");
        if (!_first) {
            _report.check(false, "a configuration to show the notes of");
            return;
        }
        // The notes screen shows a lockdown's notes; a configuration without a
        // lockdown announces its news through its own notes.
        auto configuration = *_first;
        if (!configuration.lockdown.notes) configuration.lockdown.notes = configuration.notes;
        auto screen = std::make_shared<qt::FeatureViewController>();
        screen->setConfig(configuration);
        bool shown = false;
        _stage.adapter()->root()->present(std::static_pointer_cast<qt::Presentable>(screen), true,
                                          [&shown] { shown = true; });
        _report.check(demo::runUntil([&] { return shown; }, 3000), "the notes screen is presented over the host's window");
        demo::settle(200);
        _report.check(screen->noteViews().size() == configuration.notes.size(),
                      "it shows " + plural(screen->noteViews().size(), "note") + ", one page each");
        savePNG("notes.png");
        bool dismissed = false;
        screen->dismiss(false, [&dismissed] { dismissed = true; });
        _report.check(demo::runUntil([&] { return dismissed; }, 3000), "it is dismissed again");
    }

    void serviceStatus() {
        _report.section("Service status");
        if (!serve("outage")) return;
        auto& center = Palomir::shared().notificationCenter();
        std::map<std::string, int> posts;
        auto observe = [&](std::string_view name) {
            return center.addObserver(std::string(name), mainQueue(), [&](const Notification& n) {
                ++posts[n.name];
                if (auto* list = std::any_cast<std::vector<Service>>(&n.object)) {
                    _report.detail("notification " + n.name + ": a list of " + plural(list->size(), "service"));
                } else if (auto* service = std::any_cast<Service>(&n.object)) {
                    _report.detail("notification " + n.name + ": " + service->name + " is " +
                                   std::string(toString(service->state)) +
                                   (service->message && service->message->title ? " (\"" + *service->message->title + "\")"
                                                                                : ""));
                }
            });
        };
        // The system names share one text, so one observer hears both kinds.
        const std::vector<NotificationCenter::Token> tokens{
            observe(Palomir::servicesUpdated), observe(Palomir::serviceUpdated), observe(Palomir::systemServiceUpdated)};

        auto fetch = [&](bool system) -> std::optional<std::vector<Service>> {
            Awaited<Result<Palomir::ServicesResult, Error>> awaited;
            _report.fact(system ? "Fetching the system services:" : "Fetching the user's services:");
            if (system)
                Palomir::shared().systemServices(mainQueue(), awaited.completion());
            else
                Palomir::shared().services(mainQueue(), awaited.completion());
            auto result = awaited.wait();
            if (!result || result->hasError()) {
                _report.check(false, std::string("the fetch succeeds") +
                                         (result ? ": " + result->error().localizedDescription() : ": no answer"));
                return std::nullopt;
            }
            demo::settle(20);  // notifications queued beside the completion
            const auto& [list, maxAge] = result->value();
            if (maxAge) _report.fact("The backend says the list stays good for " + std::to_string(static_cast<int>(*maxAge)) + " s.");
            return list;
        };

        if (auto list = fetch(false)) {
            _report.check(posts[std::string(Palomir::servicesUpdated)] == 1 &&
                              posts[std::string(Palomir::serviceUpdated)] == static_cast<int>(list->size()),
                          "one list notification, then one per service (" + std::to_string(list->size()) + ")");
            const auto stored = Palomir::shared().services();
            _report.check(stored && stored->size() == list->size(), "the client keeps the list");
        }
        posts.clear();
        if (auto list = fetch(true)) {
            _report.check(posts[std::string(Palomir::systemServiceUpdated)] == static_cast<int>(list->size()) + 1,
                          "one list notification, then one per system service (" + std::to_string(list->size()) + ")");
        }
        for (const auto& token : tokens) center.removeObserver(token);
    }

    void serviceBanner() {
        _report.section("Service banner");
        forgetConfiguration();
        auto configuration = checkinNow("checking in for the outage");
        if (!configuration) return;
        const auto worst = configuration->worstService();
        if (!_report.check(worst && worst->message, "the configuration has a service with a message")) return;
        _report.fact("Worst service: " + worst->name + " (" + std::string(toString(worst->state)) + "), message \"" +
                     worst->message->title.value_or("") + "\"");
        auto banner = qt::updateMessageView(_stage.bannerHost(), _stage.content(), Palomir::MessageViewLocation::top, 8.0);
        if (!_report.check(!banner.isNull(), "updateMessageView shows a banner at the top of the host's screen"))
            return;
        banner->setUserInterfaceStyle(qt::UserInterfaceStyle::light);
        banner->setMessage(*worst->message);
        demo::settle(250);
        _report.check(banner->titleLabel() &&
                          banner->titleLabel()->property("text").toString().toStdString() ==
                              worst->message->title.value_or(""),
                      "the banner's title is the message's title");
        savePNG("banner.png");
        banner->expandButtonPressed();
        demo::settle(qt::MessageViewController::toggleDuration + 250);
        _report.check(banner->descriptionContainer() && banner->descriptionContainer()->isVisible(),
                      "the expand button shows the description");
        savePNG("banner-expanded.png");
        delete banner;
    }

    std::optional<LockdownResult> lockdownIfNeeded(const std::string& what) {
        Awaited<LockdownResult> awaited;
        _report.beginProgress(what);
        Palomir::shared().lockdownIfNeeded(
            _stage.adapter(), true,
            [this](DismissAction action) {
                _report.detail(std::string("the user chose ") +
                               (action == DismissAction::close ? "to close the screen" : "the action"));
            },
            awaited.completion());
        auto result = awaited.wait();
        _report.endProgress(result ? describe(*result) : "no answer");
        // The screen slides in after the completion's check-in; let it land.
        demo::settle(qt::RootViewController::animationDuration + 250);
        return result;
    }

    void lockdowns() {
        struct Step {
            std::string scenario;
            LockdownResult expected;
            std::string png;
        };
        const std::vector<Step> steps{{"soft-lockdown", LockdownResult::lockedDown(LockdownType::soft), "lockdown-soft.png"},
                                      {"hard-lockdown", LockdownResult::lockedDown(LockdownType::hard), "lockdown-hard.png"},
                                      {"notes-only", LockdownResult::open(), ""}};
        for (const auto& step : steps) {
            _report.section(step.png.empty() ? "Lockdown lifted" : "Lockdown: " + step.scenario);
            if (!serve(step.scenario)) continue;
            forgetConfiguration();
            auto result = lockdownIfNeeded("lockdownIfNeeded");
            _report.check(result && *result == step.expected, "lockdownIfNeeded reports " + describe(step.expected));
            const auto presented = _stage.adapter()->root()->presented().size();
            if (step.png.empty()) {
                _report.check(presented == 0, "the lockdown screen is gone");
            } else {
                _report.check(presented == 1, "exactly one lockdown screen is over the host's window");
                savePNG(step.png);
            }
        }
        _report.fact("Screens the client has presented in all: " +
                     std::to_string(Palomir::shared().viewControllers().size()));
    }

    void feedback() {
        _report.section("Feedback");
        const fs::path screenshot = _options.out / "lockdown-soft.png";
        std::string message =
            "Hello! After the update prompt I tapped \"Maybe later\" and the app carried on as it should. "
            "Then the next morning it asked for version 4 and would not let me in any more. ";
        while (message.size() <= 1400) message += "Here is more of what I did, step by step, so you can follow along. ";
        _report.fact("Title \"Blocked after the update prompt\", a message of " + std::to_string(message.size()) +
                     " characters, the screenshot " + screenshot.filename().string() + " and the client's log files.");
        auto& palomir = Palomir::shared();
        const auto logs = palomir.logFiles();
        for (const auto& log : logs) _report.detail("log file " + log.filename().string());

        const auto before = _backend.feedback();
        // Palomir lives for the whole process; the provider list only borrows it.
        std::shared_ptr<AttachmentProvider> logProvider(&palomir, [](AttachmentProvider*) {});
        Awaited<Result<std::string, PalomirError>> awaited;
        _report.beginProgress("uploading the files and submitting");
        palomir.feedback("Blocked after the update prompt", message, "reader@example.com",
                         std::vector<fs::path>{screenshot}, {logProvider}, mainQueue(), awaited.completion());
        auto result = awaited.wait(60000);
        _report.endProgress(!result ? "no answer" : result->hasValue() ? "done" : "failed");
        if (!_report.check(result && result->hasValue(), std::string("the feedback is accepted") +
                                                              (result && result->hasError()
                                                                   ? ": " + result->error().errorDescription()
                                                                   : "")))
            return;

        auto recorded = _backend.feedback();
        if (!_report.check(recorded.hasValue() && before.hasValue() &&
                               recorded.value().size() == before.value().size() + 1,
                           "the backend recorded one feedback"))
            return;
        const auto& record = recorded.value().back();
        _report.fact("The backend recorded:");
        _report.detail("title: " + record.title);
        _report.detail("submitted by: " + record.submittedBy);
        _report.detail("message: " + std::to_string(record.message.size()) + " characters");
        for (const auto& file : record.files)
            _report.detail("file " + file.filename + ": " + std::to_string(file.byteSize) + " bytes, " +
                           (file.contentType.empty() ? "no content type" : file.contentType) + ", " +
                           (file.uploaded ? "bytes arrived" : "bytes MISSING"));

        _report.check(record.message == message.substr(0, 1000), "the message was cut to its first 1000 characters");
        auto find = [&](const std::string& name) -> const demo::SeenFile* {
            for (const auto& file : record.files)
                if (file.filename == name) return &file;
            return nullptr;
        };
        std::error_code ec;
        const auto screenshotSize = static_cast<std::int64_t>(fs::file_size(screenshot, ec));
        const auto* png = find(screenshot.filename().string());
        _report.check(png && png->uploaded && png->contentType == "image/png" && png->byteSize == screenshotSize,
                      "the screenshot arrived whole, as image/png");
        const auto* full = find("full_message.txt");
        _report.check(full && full->uploaded && full->byteSize == static_cast<std::int64_t>(message.size()),
                      "the whole message arrived as full_message.txt");
        std::size_t logCount = 0;
        for (const auto& file : record.files)
            if (file.filename.rfind("palomir-main-", 0) == 0 && file.uploaded && file.contentType == "text/plain") ++logCount;
        _report.check(logCount >= 1 && logCount == logs.size(),
                      "the client's log files arrived (" + std::to_string(logCount) + ")");
        _report.check(record.files.size() == 2 + logs.size(), "no other file was attached");
    }

    int conclude() {
        _report.section("Summary");
        _report.fact("Screens written:");
        for (const auto& path : _written) _report.detail(path.string());
        if (_report.failures() == 0) {
            _report.fact("All " + std::to_string(_report.checks()) + " checks passed.");
            return 0;
        }
        _report.fact(std::to_string(_report.failures()) + " of " + std::to_string(_report.checks()) +
                     " checks FAILED.");
        return 1;
    }

    Options _options;
    demo::Backend& _backend;
    demo::Stage& _stage;
    demo::Report _report;
    std::optional<Configuration> _first;
    std::vector<fs::path> _written;
};

// The console half of the default logger would interleave the client's own
// log lines with the demo's output; its log files stay.
void quietenConsole(bool verbose) {
    auto& palomir = Palomir::shared();
    auto combined = std::dynamic_pointer_cast<CombinedLogger>(palomir.logger());
    if (!combined || verbose) return;
    std::vector<std::shared_ptr<Logger>> kept;
    for (const auto& logger : combined->fileLoggers())
        if (!std::dynamic_pointer_cast<NSLogger>(logger)) kept.push_back(logger);
    palomir.setLogger(std::make_shared<CombinedLogger>(kept));
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App cli{
        "palomir-demo: a host application that walks through everything Palomir does, against a sandbox backend.\n"
        "\n"
        "It starts a sandbox in this process (or uses the palomir-sandbox given by --base-url), then:\n"
        "  1. sets the app and user credentials;\n"
        "  2. checks in and prints the configuration (version, next check-in, theme, notes, lockdown, services);\n"
        "  3. checks in again and shows, by the backend's request count, that the answer came from memory;\n"
        "  4. presents the notes screen and saves it as notes.png;\n"
        "  5. fetches the user's and the system services, printing each notification as it arrives;\n"
        "  6. shows the service banner of the outage scenario (banner.png, banner-expanded.png);\n"
        "  7. runs lockdownIfNeeded for a soft and then a hard lockdown (lockdown-soft.png, lockdown-hard.png),\n"
        "     and once more after the lockdown is lifted;\n"
        "  8. submits feedback with a screenshot, a message over 1000 characters and the client's log files,\n"
        "     and prints what the backend recorded.\n"
        "Each step is checked; the exit status is 0 only when every check passed.\n"
        "Screens are drawn offscreen unless --gui is given and a display is available.",
        "palomir-demo"};
    cli.add_option("--out", options.out, "Folder for the PNG files and the client's caches (log files)")
        ->default_val(options.out.string());
    cli.add_option("--scenarios", options.scenarios,
                   "Folder with the scenario files notes-only, outage, soft-lockdown and hard-lockdown (.json)")
        ->default_val(options.scenarios.string());
    cli.add_flag("--gui", options.gui, "Show the screens in a window, when a display is available");
    cli.add_option("--pace", options.paceMilliseconds, "Pause between sections, in milliseconds")
        ->default_val(options.paceMilliseconds)
        ->check(CLI::Range(0, 10000));
    cli.add_flag("--verbose", options.verbose,
                 "Also print the client's log lines and the sandbox's request lines (standard error)");
    auto* baseURL = cli.add_option("--base-url", options.remote.baseURL,
                                   "Use a running palomir-sandbox at this API base URL (https://localhost:PORT/api) "
                                   "instead of starting one; its admin routes must be reachable");
    CLI::Option* ca = cli.add_option("--ca", options.remote.caFile, "The CA file (ca.pem) that palomir-sandbox wrote")
                   ->check(CLI::ExistingFile);
    CLI::Option* bundle = cli.add_option("--bundle-dir", options.remote.bundleDirectory,
                                  "The bundle folder where palomir-sandbox wrote localhost.crt, the key to pin")
                       ->check(CLI::ExistingDirectory);
    CLI::Option* token = cli.add_option("--token", options.remote.token, "The sandbox's app token")
                      ->default_val("sandbox-token");
    CLI::Option* secret = cli.add_option("--secret", options.remote.secret, "The sandbox's app secret")
                       ->default_val("sandbox-secret");
    CLI::Option* adminToken =
        cli.add_option("--admin-token", options.remote.adminToken,
                       "The admin token palomir-sandbox printed, which its admin routes require");
    baseURL->needs(ca)->needs(bundle)->needs(adminToken);
    for (CLI::Option* option : {ca, bundle, token, secret, adminToken}) option->needs(baseURL);
    CLI11_PARSE(cli, argc, argv);

    for (const char* name : {"notes-only", "outage", "soft-lockdown", "hard-lockdown"}) {
        if (!fs::exists(options.scenarios / (std::string(name) + ".json"))) {
            std::cerr << "palomir-demo: no scenario " << name << ".json in " << options.scenarios.string()
                      << " (see --scenarios)\n";
            return 2;
        }
    }
    std::error_code ec;
    fs::create_directories(options.out / "caches", ec);
    if (ec) {
        std::cerr << "palomir-demo: cannot make " << options.out.string() << ": " << ec.message() << "\n";
        return 2;
    }
    options.out = fs::absolute(options.out);
    options.scenarios = fs::absolute(options.scenarios);

    if (options.gui && !displayAvailable()) {
        std::cout << "palomir-demo: no display found; drawing offscreen instead\n";
        options.gui = false;
    }
    if (!options.gui) qputenv("QT_QPA_PLATFORM", "offscreen");
    // The software scene graph draws the same everywhere, and grabWindow
    // works without a GPU.
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);

    // Qt would read options of its own from the command line; it gets none.
    int qtArgc = 1;
    QGuiApplication application(qtArgc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Notes"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("example.com"));
    QCoreApplication::setApplicationVersion(QStringLiteral("3.4.0"));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("My Notes"));

    // Log files go with the rest of the demo's output; this must happen
    // before the client is first used.
    setCachesDirectory(options.out / "caches");
    qt::install(application);
    quietenConsole(options.verbose);

    Result<std::unique_ptr<demo::Backend>, std::string> backend = Err{std::string()};
    if (options.remote.baseURL.empty()) {
        backend = demo::startInProcess(demo::InProcessOptions{options.scenarios / "notes-only.json", {},
                                                              options.verbose});
    } else {
        backend = demo::connectRemote(options.remote);
    }
    if (backend.hasError()) {
        std::cerr << "palomir-demo: the backend could not be started: " << backend.error() << "\n";
        return 1;
    }

    demo::Stage stage;
    Demo walkthrough(options, *backend.value(), stage);
    return walkthrough.run();
}
