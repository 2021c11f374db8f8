// Eight host threads use the whole client at once for a sustained period:
// check-ins, the four service fetches, feedback with attachments (the
// client's own log files among them), web requests and logging, while app
// credentials, user credentials and the backend are swapped under the
// requests already on the wire. Every operation must complete exactly once,
// asynchronously on the queue it named; a watchdog aborts the run, naming
// what is still outstanding, when nothing moves for too long, including
// while the completions drain at the end. Built with the thread or address
// sanitizer, this is the race, deadlock and leak check of the client.
//
//   PALOMIR_SOAK_SECONDS        how long the threads issue work (default 3)
//   PALOMIR_SOAK_STALL_SECONDS  how long the watchdog waits for any
//                               progress before it aborts (default 30)

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iomanip>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
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
namespace sb = palomir::sandbox;

constexpr int kThreads = 8;
// Async operations one thread may have under way before it waits; keeps the
// serial feedback queue and the sandbox from an unbounded backlog.
constexpr int kInFlightPerThread = 6;

double secondsFromEnvironment(const char* name, double fallback) {
    const char* text = std::getenv(name);
    if (!text || !*text) return fallback;
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    return (end && *end == '\0' && value > 0) ? value : fallback;
}

enum class Op {
    checkin, services, service, systemServices, systemService, feedback, webRequest, log,
    appCredentials, userCredentials, backend
};
constexpr std::size_t kOps = static_cast<std::size_t>(Op::backend) + 1;

const char* nameOf(Op op) {
    static constexpr std::array<const char*, kOps> names{
        "checkin",    "services", "service",           "systemServices",     "systemService", "feedback",
        "webRequest", "log",      "setAppCredentials", "setUserCredentials", "setBackend"};
    return names[static_cast<std::size_t>(op)];
}

const std::string kMissingCredentials = "Missing app token and/or secret";
// Check-in gives up after a second without data; on a loaded machine under a
// sanitizer that happens, and is an answer like any other.
const std::string kTimedOut = "The request timed out";

struct Tally {
    std::uint64_t issued = 0;
    std::uint64_t completed = 0;
    std::uint64_t succeeded = 0;
    std::uint64_t missingCredentials = 0;
    std::uint64_t timedOut = 0;
    std::uint64_t unexpected = 0;
    std::uint64_t duplicates = 0;
    std::uint64_t misdelivered = 0;
};

// Every operation issued, by id, until its completion; what the watchdog
// and the final checks read.
class Ledger {
public:
    struct Pending {
        Op op;
        int thread;
        Clock::time_point since;
    };

    std::uint64_t begin(Op op, int thread) {
        std::lock_guard lock(_mutex);
        const auto id = _nextId++;
        _pending.emplace(id, Pending{op, thread, Clock::now()});
        ++_tallies[index(op)].issued;
        ++_inFlight[thread];
        _lastProgress = Clock::now();
        return id;
    }

    // `error` is empty for success; `rightPlace` whether it ran on the
    // delivery queue and not on the calling thread.
    void finish(std::uint64_t id, Op op, const std::string& error, bool rightPlace) {
        {
            std::lock_guard lock(_mutex);
            auto& tally = _tallies[index(op)];
            auto found = _pending.find(id);
            if (found == _pending.end()) {
                ++tally.duplicates;
                return;
            }
            --_inFlight[found->second.thread];
            _pending.erase(found);
            ++tally.completed;
            if (!rightPlace) ++tally.misdelivered;
            if (error.empty()) {
                ++tally.succeeded;
            } else if (error == kMissingCredentials) {
                ++tally.missingCredentials;
            } else if (error.find(kTimedOut) != std::string::npos) {
                ++tally.timedOut;
            } else {
                ++tally.unexpected;
                if (_unexpected.size() < 10) _unexpected.push_back(std::string(nameOf(op)) + ": " + error);
            }
            _lastProgress = Clock::now();
        }
        _changed.notify_all();
    }

    // An operation without a completion (logging, credential changes).
    void done(Op op) {
        std::lock_guard lock(_mutex);
        auto& tally = _tallies[index(op)];
        ++tally.issued;
        ++tally.completed;
        ++tally.succeeded;
        _lastProgress = Clock::now();
    }

    // Waits until `thread` may issue another operation, or `stop` is set.
    void awaitRoom(int thread, const std::atomic<bool>& stop) {
        std::unique_lock lock(_mutex);
        while (_inFlight[thread] >= kInFlightPerThread && !stop) _changed.wait_for(lock, 50ms);
    }

    std::size_t outstanding() const {
        std::lock_guard lock(_mutex);
        return _pending.size();
    }

    Clock::time_point lastProgress() const {
        std::lock_guard lock(_mutex);
        return _lastProgress;
    }

    Tally tally(Op op) const {
        std::lock_guard lock(_mutex);
        return _tallies[index(op)];
    }

    std::vector<std::string> unexpected() const {
        std::lock_guard lock(_mutex);
        return _unexpected;
    }

    // "2 outstanding: #17 checkin from thread 4 for 31.0 s, ...", oldest
    // first (ids grow), at most ten.
    std::string outstandingReport() const {
        std::lock_guard lock(_mutex);
        std::ostringstream out;
        out << _pending.size() << " outstanding" << std::fixed << std::setprecision(1);
        const char* separator = ": ";
        int shown = 0;
        for (const auto& [id, pending] : _pending) {
            if (shown++ == 10) break;
            out << separator << '#' << id << ' ' << nameOf(pending.op) << " from thread " << pending.thread << " for "
                << std::chrono::duration<double>(Clock::now() - pending.since).count() << " s";
            separator = ", ";
        }
        return out.str();
    }

private:
    static std::size_t index(Op op) { return static_cast<std::size_t>(op); }

    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::uint64_t _nextId = 1;
    std::map<std::uint64_t, Pending> _pending;
    std::array<Tally, kOps> _tallies{};
    std::array<int, kThreads> _inFlight{};
    std::vector<std::string> _unexpected;
    Clock::time_point _lastProgress = Clock::now();
};

// What each host thread is inside of, so that a deadlock names the call.
class Activity {
public:
    void enter(int thread, Op op) {
        _op[thread].store(static_cast<int>(op));
        _since[thread].store(Clock::now().time_since_epoch().count());
    }
    void leave(int thread) { _op[thread].store(-1); }

    std::string report() const {
        std::ostringstream out;
        const auto now = Clock::now().time_since_epoch().count();
        for (int t = 0; t < kThreads; ++t) {
            const int op = _op[t].load();
            if (op < 0) continue;
            const double seconds = std::chrono::duration<double>(Clock::duration(now - _since[t].load())).count();
            out << "; thread " << t << " inside " << nameOf(static_cast<Op>(op)) << " for " << std::fixed
                << std::setprecision(1) << seconds << " s";
        }
        return out.str();
    }

private:
    std::array<std::atomic<int>, kThreads> _op{-1, -1, -1, -1, -1, -1, -1, -1};
    std::array<std::atomic<Clock::rep>, kThreads> _since{};
};

// Ends the process with a description once no operation has been issued or
// completed for `limit`, because a deadlocked host thread would otherwise
// hold the test until its time-out.
class Watchdog {
public:
    Watchdog(const Ledger& ledger, const Activity& activity, std::chrono::duration<double> limit)
        : _ledger(ledger), _activity(activity), _limit(limit), _thread([this] { watch(); }) {}

    ~Watchdog() {
        {
            std::lock_guard lock(_mutex);
            _stopped = true;
        }
        _wake.notify_all();
        _thread.join();
    }

    void setPhase(std::string phase) {
        std::lock_guard lock(_mutex);
        _phase = std::move(phase);
    }

private:
    void watch() {
        std::unique_lock lock(_mutex);
        while (!_stopped) {
            _wake.wait_for(lock, 100ms);
            if (_stopped) return;
            const auto quiet = Clock::now() - _ledger.lastProgress();
            if (quiet < _limit) continue;
            std::ostringstream out;
            out << "soak watchdog: no progress for " << std::fixed << std::setprecision(1)
                << std::chrono::duration<double>(quiet).count() << " s while " << _phase << "; "
                << _ledger.outstandingReport() << _activity.report();
            std::fprintf(stderr, "%s\n", out.str().c_str());
            std::fflush(stderr);
            std::abort();
        }
    }

    const Ledger& _ledger;
    const Activity& _activity;
    const std::chrono::duration<double> _limit;
    std::mutex _mutex;
    std::condition_variable _wake;
    bool _stopped = false;
    std::string _phase = "issuing work";
    std::thread _thread;
};

// A Palomir that lives for the process, lent as an attachment provider.
std::shared_ptr<AttachmentProvider> clientLogFiles() {
    return std::shared_ptr<AttachmentProvider>(&Palomir::shared(), [](AttachmentProvider*) {});
}

class Soak : public SandboxClientTest {
protected:
    void SetUp() override {
        // The client's own console and file logger stays, so logging from
        // every thread reaches the file logger and its files are attached.
        startSandbox({}, /*hostLogger=*/false);
        // Every check-in asks the backend again.
        scenarioFile("outage.json", 0);
        _attachmentFile = _data / "attachment.txt";
        std::ofstream(_attachmentFile) << "attached from disk\n";
        for (int q = 0; q < 4; ++q) _queues.push_back(DispatchQueue::makeSerial("soak.delivery." + std::to_string(q)));
        _listObserver = Palomir::shared().notificationCenter().addObserver(
            std::string(Palomir::servicesUpdated), nullptr, [this](const Notification&) { ++_listPosts; });
    }

    void TearDown() override { Palomir::shared().notificationCenter().removeObserver(_listObserver); }

    // A completion that settles operation `id` in the ledger.
    template <class T, class E>
    Palomir::Completion<T, E> settle(Op op, int thread, const std::shared_ptr<DispatchQueue>& queue) {
        const auto id = _ledger.begin(op, thread);
        return [this, id, op, queue, caller = std::this_thread::get_id()](Result<T, E> result) {
            const bool rightPlace = queue->isCurrent() && std::this_thread::get_id() != caller;
            _ledger.finish(id, op, result.hasValue() ? std::string() : result.error().localizedDescription(),
                           rightPlace);
        };
    }

    void issue(Op op, int thread, std::mt19937& random, std::uint64_t serial) {
        auto& palomir = Palomir::shared();
        const auto& queue = _queues[random() % _queues.size()];
        const std::string tag = std::to_string(thread) + "." + std::to_string(serial);
        _activity.enter(thread, op);
        switch (op) {
            case Op::checkin: palomir.checkin(queue, settle<Configuration, Error>(op, thread, queue)); break;
            case Op::services: palomir.services(queue, settle<Palomir::ServicesResult, Error>(op, thread, queue)); break;
            case Op::service:
                palomir.service("photos", queue, settle<Palomir::ServiceResult, Error>(op, thread, queue));
                break;
            case Op::systemServices:
                palomir.systemServices(queue, settle<Palomir::ServicesResult, Error>(op, thread, queue));
                break;
            case Op::systemService:
                palomir.systemService("auth", queue, settle<Palomir::ServiceResult, Error>(op, thread, queue));
                break;
            case Op::feedback: {
                auto completion = settle<std::string, PalomirError>(op, thread, queue);
                switch (random() % 6) {
                    case 0:
                        palomir.feedback("Soak " + tag, "with the client's log files", "soak@example.com",
                                         std::vector<Attachment>{}, {clientLogFiles()}, queue, completion);
                        break;
                    case 1:
                        palomir.feedback("Soak " + tag, "from disk", "soak@example.com",
                                         std::vector<std::filesystem::path>{_attachmentFile, _data / "missing.txt"},
                                         {}, queue, completion);
                        break;
                    case 2:
                        palomir.feedback("Soak " + tag, std::string(1001, 'm'), "soak@example.com",
                                         std::vector<Attachment>{}, {}, queue, completion);
                        break;
                    default:
                        palomir.feedback("Soak " + tag, "two small files", "soak@example.com",
                                         {Attachment::fromText("a-" + tag + ".txt", std::nullopt, "first " + tag),
                                          Attachment::fromText("b-" + tag + ".json", "application/json", "{}")},
                                         {}, queue, completion);
                }
                break;
            }
            case Op::webRequest:
                palomir.webRequest("https://localhost/page/" + tag, queue, settle<URLRequest, Error>(op, thread, queue));
                break;
            case Op::log:
                if (random() % 16 == 0) {
                    (void)palomir.logFiles();
                } else {
                    palomir.logger()->log("soak line " + tag, static_cast<LogType>(random() % 5));
                    ++_linesLogged;
                }
                _ledger.done(op);
                break;
            case Op::appCredentials:
                // Now and then none: whatever starts meanwhile fails locally.
                if (random() % 5 == 0) {
                    palomir.setAppCredentials(std::nullopt);
                } else {
                    palomir.setAppCredentials(AppCredentials{"sandbox-token", "sandbox-secret"});
                }
                _ledger.done(op);
                break;
            case Op::userCredentials:
                switch (random() % 3) {
                    case 0: palomir.setUserCredentials(nullptr); break;
                    case 1: palomir.setUserCredentials(std::make_shared<StaticUserCredentials>("user-" + tag)); break;
                    default:
                        palomir.setUserCredentials(std::make_shared<ClosureUserCredentials>(
                            [tag](const ClosureUserCredentials::Callback& callback) { callback("closure-" + tag); }));
                }
                _ledger.done(op);
                break;
            case Op::backend:
                palomir.setBackend(sandboxBackend());
                _ledger.done(op);
                break;
        }
        _activity.leave(thread);
    }

    void work(int thread, std::uint32_t seed) {
        // Weights: mostly requests and logging, with a credentials or
        // backend change about one time in seven.
        // In the order of Op.
        std::discrete_distribution<std::size_t> pick({6, 4, 3, 2, 2, 2, 2, 8, 2, 3, 1});
        std::mt19937 random(seed);
        for (std::uint64_t serial = 0; !_stop; ++serial) {
            _ledger.awaitRoom(thread, _stop);
            if (_stop) break;
            issue(static_cast<Op>(pick(random)), thread, random, serial);
        }
    }

    void report(double issuing, double draining) const {
        std::ostringstream out;
        out << "soak: " << kThreads << " threads issued work for " << std::fixed << std::setprecision(1) << issuing
            << " s; the last completions took " << draining << " s more\n"
            << "operation: issued completed succeeded no-creds timed-out unexpected duplicates misdelivered\n";
        for (std::size_t i = 0; i < kOps; ++i) {
            const auto t = _ledger.tally(static_cast<Op>(i));
            out << nameOf(static_cast<Op>(i)) << ": " << t.issued << ' ' << t.completed << ' ' << t.succeeded << ' '
                << t.missingCredentials << ' ' << t.timedOut << ' ' << t.unexpected << ' ' << t.duplicates << ' '
                << t.misdelivered << '\n';
        }
        std::cout << out.str() << std::flush;
    }

    Ledger _ledger;
    Activity _activity;
    std::atomic<bool> _stop{false};
    std::vector<std::shared_ptr<DispatchQueue>> _queues;
    std::filesystem::path _attachmentFile;
    NotificationCenter::Token _listObserver;
    std::atomic<std::uint64_t> _listPosts{0};
    std::atomic<std::uint64_t> _linesLogged{0};
};

// Lines of the client's log files that carry a host's soak line.
std::uint64_t soakLinesInLogFiles() {
    std::uint64_t count = 0;
    for (const auto& file : Palomir::shared().logFiles()) {
        std::ifstream in(file);
        std::string line;
        while (std::getline(in, line))
            if (line.find("] soak line ") != std::string::npos) ++count;
    }
    return count;
}

TEST_F(Soak, EightThreadsCompleteEveryOperationExactlyOnceWhileCredentialsChange) {
    const double seconds = secondsFromEnvironment("PALOMIR_SOAK_SECONDS", 3);
    const double stallSeconds = secondsFromEnvironment("PALOMIR_SOAK_STALL_SECONDS", 30);
    const auto started = Clock::now();
    auto stopped = started;
    {
        Watchdog watchdog(_ledger, _activity, std::chrono::duration<double>(stallSeconds));
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) threads.emplace_back([this, t] { work(t, 0x50a6u + static_cast<std::uint32_t>(t)); });
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        _stop = true;
        stopped = Clock::now();
        for (auto& thread : threads) thread.join();

        watchdog.setPhase("draining the completions");
        while (_ledger.outstanding() > 0) std::this_thread::sleep_for(20ms);
    }
    const auto drained = Clock::now();

    // A late second call would land on a delivery queue: let every queue
    // run what it holds, twice over, before counting.
    std::this_thread::sleep_for(200ms);
    for (int round = 0; round < 2; ++round) {
        for (const auto& queue : _queues) {
            std::promise<void> emptied;
            queue->async([&] { emptied.set_value(); });
            emptied.get_future().wait();
        }
    }
    report(std::chrono::duration<double>(stopped - started).count(),
           std::chrono::duration<double>(drained - stopped).count());

    for (std::size_t i = 0; i < kOps; ++i) {
        const auto op = static_cast<Op>(i);
        const auto t = _ledger.tally(op);
        SCOPED_TRACE(nameOf(op));
        EXPECT_EQ(t.completed, t.issued);
        EXPECT_EQ(t.duplicates, 0u);
        EXPECT_EQ(t.misdelivered, 0u);
        EXPECT_EQ(t.unexpected, 0u);
        EXPECT_EQ(t.succeeded + t.missingCredentials + t.timedOut + t.unexpected, t.completed);
    }
    for (const auto& text : _ledger.unexpected()) ADD_FAILURE() << "unexpected outcome: " << text;
    EXPECT_GT(_ledger.tally(Op::checkin).succeeded, 0u);
    EXPECT_GT(_ledger.tally(Op::feedback).succeeded, 0u);
    EXPECT_GT(_ledger.tally(Op::appCredentials).issued, 0u);

    // What the completions said matches what happened: one list post per
    // successful list fetch, one recorded feedback per successful one.
    EXPECT_EQ(_listPosts.load(), _ledger.tally(Op::services).succeeded);
    EXPECT_EQ(_sandbox->recordedFeedback().size(), _ledger.tally(Op::feedback).succeeded);
    // Every line logged from every thread is in the file, once.
    EXPECT_EQ(soakLinesInLogFiles(), _linesLogged.load());
}

}  // namespace
}  // namespace palomir
