// Eight host threads use the whole client at once for a sustained period:
// check-ins, the four service fetches, feedback (with the client's own log
// files among the attachments), web requests and logging, while app
// credentials, user credentials and the backend are swapped under the
// requests already on the wire. Every completion must arrive exactly once,
// on the queue it named and never inline. Built with the thread or address sanitizer,
// this is the race, deadlock and leak check of the client.
//
//   PALOMIR_SOAK_SECONDS  how long the threads issue work (default 3)

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <random>
#include <thread>

#include "palomir/palomir.hpp"
#include "support.hpp"

// The sandbox's HTTP server library is not built with the thread
// sanitizer, so its own synchronisation is invisible to it and its
// internals report races that are not the client's.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() { return "race:libcpp-httplib.so\n"; }
#endif

namespace palomir {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class Soak : public SandboxClientTest {
protected:
    void SetUp() override {
        // The client's own console and file logger stays, so logging from
        // every thread reaches the file logger and its files are attached.
        startSandbox({}, /*hostLogger=*/false);
        scenarioFile("outage.json", 0);  // every check-in asks the backend again
        std::ofstream(_data / "attachment.txt") << "attached from disk\n";
        for (int q = 0; q < 4; ++q) _queues.push_back(DispatchQueue::makeSerial("soak." + std::to_string(q)));
        _observer = Palomir::shared().notificationCenter().addObserver(
            std::string(Palomir::servicesUpdated), nullptr, [this](const Notification&) { ++_listPosts; });
    }

    void TearDown() override { Palomir::shared().notificationCenter().removeObserver(_observer); }

    // Test failures may be recorded from any thread.
    static void fail(const std::string& what) { ADD_FAILURE() << what; }

    // A completion that must run once, on `queue` and not on the caller's
    // thread, with success (counted in `successes`), missing credentials
    // (they come and go) or a time-out (check-in gives up after a second
    // without data, which a loaded machine under a sanitizer reaches).
    template <class T, class E>
    Palomir::Completion<T, E> once(const std::shared_ptr<DispatchQueue>& queue, const char* what,
                                   std::atomic<std::uint64_t>* successes = nullptr) {
        ++_issued;
        auto calls = std::make_shared<std::atomic<int>>(0);
        return [=, this, caller = std::this_thread::get_id()](Result<T, E> result) {
            if (++*calls > 1) return fail(std::string(what) + " completed twice");
            if (!queue->isCurrent() || std::this_thread::get_id() == caller) fail(std::string(what) + " misdelivered");
            const auto text = result.hasValue() ? std::string() : result.error().localizedDescription();
            if (text.empty() && successes) ++*successes;
            if (!text.empty() && text != "Missing app token and/or secret" &&
                text.find("The request timed out") == std::string::npos)
                fail(std::string(what) + ": " + text);
            ++_completed;
        };
    }

    void issue(std::mt19937& random, const std::string& tag) {
        // Mostly requests and logging; credentials or backend change about one time in seven.
        thread_local std::discrete_distribution<int> pick({6, 4, 2, 2, 2, 3, 2, 8, 2, 3, 1});
        auto& palomir = Palomir::shared();
        const auto& queue = _queues[random() % _queues.size()];
        using Services = Palomir::ServicesResult;
        using Service = Palomir::ServiceResult;
        switch (pick(random)) {
            case 0: palomir.checkin(queue, once<Configuration, Error>(queue, "checkin", &_checkins)); break;
            case 1: palomir.services(queue, once<Services, Error>(queue, "services", &_listFetches)); break;
            case 2: palomir.service("photos", queue, once<Service, Error>(queue, "service")); break;
            case 3: palomir.systemServices(queue, once<Services, Error>(queue, "systemServices")); break;
            case 4: palomir.systemService("auth", queue, once<Service, Error>(queue, "systemService")); break;
            case 5: {
                auto done = once<std::string, PalomirError>(queue, "feedback", &_feedbacks);
                if (random() % 2) {
                    // The client's own log files, read while every thread writes to them.
                    std::shared_ptr<AttachmentProvider> logs(&palomir, [](AttachmentProvider*) {});
                    palomir.feedback("Soak " + tag, "attachments", "soak@example.com",
                                     {Attachment::fromText("a-" + tag + ".txt", std::nullopt, "first " + tag)},
                                     {logs}, queue, done);
                } else {
                    palomir.feedback("Soak " + tag, "files", "soak@example.com",
                                     std::vector<std::filesystem::path>{_data / "attachment.txt", _data / "gone"}, {},
                                     queue, done);
                }
                break;
            }
            case 6:
                palomir.webRequest("https://localhost/page/" + tag, queue, once<URLRequest, Error>(queue, "webRequest"));
                break;
            case 7:
                palomir.logger()->log("soak line " + tag, static_cast<LogType>(random() % 5));
                ++_linesLogged;
                if (random() % 16 == 0) (void)palomir.logFiles();
                break;
            case 8:
                // Now and then none: whatever starts meanwhile fails locally.
                palomir.setAppCredentials(random() % 5 ? std::optional(AppCredentials{"sandbox-token", "sandbox-secret"})
                                                       : std::nullopt);
                break;
            case 9:
                if (random() % 3 == 0) {
                    palomir.setUserCredentials(nullptr);
                } else if (random() % 2) {
                    palomir.setUserCredentials(std::make_shared<StaticUserCredentials>("user-" + tag));
                } else {
                    palomir.setUserCredentials(std::make_shared<ClosureUserCredentials>(
                        [tag](const ClosureUserCredentials::Callback& callback) { callback("closure-" + tag); }));
                }
                break;
            default: palomir.setBackend(sandboxBackend());
        }
    }

    std::vector<std::shared_ptr<DispatchQueue>> _queues;
    NotificationCenter::Token _observer;
    std::atomic<std::uint64_t> _issued{0}, _completed{0}, _linesLogged{0};
    std::atomic<std::uint64_t> _checkins{0}, _listFetches{0}, _feedbacks{0}, _listPosts{0};
};

TEST_F(Soak, EightThreadsCompleteEveryOperationExactlyOnceWhileCredentialsChange) {
    const char* setting = std::getenv("PALOMIR_SOAK_SECONDS");
    const std::chrono::duration<double> seconds(setting && std::atof(setting) > 0 ? std::atof(setting) : 3);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(0x50a6u + t);
            for (int serial = 0; !stop; ++serial) {
                // A bounded backlog keeps the serial queues and the sandbox from drowning.
                while (_issued - _completed > 48 && !stop) std::this_thread::sleep_for(1ms);
                issue(random, std::to_string(t) + "." + std::to_string(serial));
            }
        });
    }
    std::this_thread::sleep_for(seconds);
    stop = true;
    for (auto& thread : threads) thread.join();
    // A completion that never comes fails the count below; a deadlocked
    // thread holds the join above until ctest's time-out.
    for (auto deadline = Clock::now() + 60s; _completed < _issued && Clock::now() < deadline;)
        std::this_thread::sleep_for(20ms);
    // A late second call would land on a delivery queue: let every queue run
    // what it holds, twice over, before counting.
    std::this_thread::sleep_for(200ms);
    for (int round = 0; round < 2; ++round) {
        for (const auto& queue : _queues) {
            std::promise<void> emptied;
            queue->async([&] { emptied.set_value(); });
            emptied.get_future().wait();
        }
    }

    EXPECT_EQ(_completed.load(), _issued.load());
    EXPECT_GT(_checkins.load(), 0u);
    EXPECT_GT(_feedbacks.load(), 0u);
    // What the completions said matches what happened: one list post per
    // successful list fetch, one recorded feedback per successful one, and
    // every line logged from every thread in the files, once.
    EXPECT_EQ(_listPosts.load(), _listFetches.load());
    EXPECT_EQ(_sandbox->recordedFeedback().size(), _feedbacks.load());
    std::uint64_t lines = 0;
    for (const auto& file : Palomir::shared().logFiles()) {
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);) lines += line.find("] soak line ") != std::string::npos;
    }
    EXPECT_EQ(lines, _linesLogged.load());
    std::printf("soak: %llu operations with completions in %.0f s\n", static_cast<unsigned long long>(_issued.load()),
                seconds.count());
}

}  // namespace
}  // namespace palomir
