// bench-libs: spdlog::spdlog
// What the file logger costs a host: the wake-ups one line causes while the
// process is otherwise idle (the target), and a log call's median and the
// sustained rate beside an asynchronous spdlog file logger writing the same
// lines (for information). Run in Release.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "palomir/environment.hpp"
#include "palomir/logging.hpp"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kBurst = 200;          // calls per burst and thread
constexpr int kBursts = 200;         // bursts per thread
constexpr auto kPause = std::chrono::microseconds(300);
constexpr int kSustainedLines = 400000;  // in total, split over the threads
constexpr int kSustainedRuns = 3;

fs::path gRoot;
int gRun = 0;

// A line, then this long with nothing logged, in which the wake-ups are counted.
constexpr auto kQuiet = std::chrono::seconds(2);
constexpr long kWakeupTarget = 3;

struct Figures {
    double medianNs = 0, linesPerSecond = 0, dropped = 0;
};
std::map<std::string, Figures> gFigures;  // key: "<impl>/<threads>"
long gWakeups = -1;

std::string message(int thread, int index) {
    char text[128];
    int n = std::snprintf(text, sizeof text, "t%d %d request finished status 200 path /api/checkin elapsed 42 ms",
                          thread, index);
    return std::string(text, static_cast<std::size_t>(n));
}

// spdlog gets the same line: level label in capitals and the zone as GMT+hh:mm
// (the process runs in a fixed non-zero zone, where %z matches).
class UpperLevelFlag : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg& msg, const std::tm&, spdlog::memory_buf_t& dest) override {
        static constexpr std::string_view labels[] = {"DEBUG", "DEBUG", "INFO", "DEFAULT", "ERROR", "FAULT", "OFF"};
        auto label = labels[static_cast<int>(msg.level)];
        dest.append(label.data(), label.data() + label.size());
    }
    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<UpperLevelFlag>(); }
};

struct Ours {
    static constexpr const char* name = "palomir";
    explicit Ours(const fs::path& dir) {
        palomir::setCachesDirectory(dir);
        std::fflush(stdout);
        int saved = ::dup(STDOUT_FILENO);
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDOUT_FILENO);  // keep the "Created file logger" line out of the report
        logger = std::make_unique<palomir::FileLogger>("bench", std::make_shared<palomir::PalomirLogFormatter>(),
                                                       palomir::LogType::debug, 100);
        std::fflush(stdout);
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
        ::close(null);
        file = *logger->currentLogFile();
    }
    // Kept open to the end: a closing logger prints a line of its own into the report.
    ~Ours() { gOpen.push_back(std::move(logger)); }
    void log(const std::string& text) { logger->log(text, palomir::LogType::info); }
    void finish() { logger->flush(); }
    static inline std::vector<std::unique_ptr<palomir::FileLogger>> gOpen;
    std::unique_ptr<palomir::FileLogger> logger;
    fs::path file;
};

struct Spd {
    static constexpr const char* name = "spdlog";
    explicit Spd(const fs::path& dir) {
        fs::create_directories(dir);
        file = dir / "spdlog.log";
        spdlog::init_thread_pool(8192, 1);
        logger = spdlog::async_factory::create<spdlog::sinks::basic_file_sink_mt>("bench", file.string());
        auto formatter = std::make_unique<spdlog::pattern_formatter>();
        formatter->add_flag<UpperLevelFlag>('*').set_pattern("%Y-%m-%d %H:%M:%SGMT%z [%*] %v");
        logger->set_formatter(std::move(formatter));
        logger->set_level(spdlog::level::trace);
    }
    void log(const std::string& text) { logger->log(spdlog::level::info, std::string_view(text)); }
    // Dropping the logger and the thread pool waits until the queue is written and the file closed.
    void finish() {
        logger.reset();
        spdlog::shutdown();
    }
    ~Spd() {
        if (logger) finish();
    }
    std::shared_ptr<spdlog::logger> logger;
    fs::path file;
};

fs::path freshDir() { return gRoot / ("run-" + std::to_string(++gRun)); }

// Each thread's lines in order and the line shape right; every line is either
// in the file or counted in a "dropped N log lines" line. Returns the lines
// in the file, -1 when something is wrong.
long verify(const fs::path& file, int threads, int perThread, long& dropped, std::string& why) {
    std::ifstream in(file);
    std::vector<int> next(threads, 0);
    long count = 0;
    dropped = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.size() > 28 && line.compare(28, 17, " [ERROR] dropped ") == 0) {
            dropped += std::atol(line.c_str() + 45);
            continue;
        }
        auto at = line.find(" [INFO] t");
        if (line.size() < 29 || line.compare(19, 9, "GMT+02:00") != 0 || at != 28) {
            why = "malformed line: " + line;
            return -1;
        }
        int t = std::atoi(line.c_str() + at + 9);
        int index = std::atoi(line.c_str() + line.find(' ', at + 9) + 1);
        if (t < 0 || t >= threads || index < next[t]) {
            why = "line out of order or duplicated: " + line;
            return -1;
        }
        next[t] = index + 1;
        ++count;
    }
    if (count + dropped != static_cast<long>(threads) * perThread) {
        why = std::to_string(count) + " lines in the file and " + std::to_string(dropped) + " dropped of " +
              std::to_string(threads * perThread);
        return -1;
    }
    return count;
}

[[noreturn]] void fail(benchmark::State& state, const char* name, const std::string& why) {
    state.SkipWithError(why.c_str());
    std::fprintf(stderr, "%s: %s\n", name, why.c_str());
    std::abort();
}

long voluntarySwitches(int who) {
    rusage usage{};
    ::getrusage(who, &usage);
    return usage.ru_nvcsw;
}

// Wake-ups of every thread of the process but this one, exited ones
// included, from one line logged while the logger is idle until the quiet
// period after it ends.
void wakeups(benchmark::State& state) {
    for (auto _ : state) {
        Ours impl(freshDir());
        impl.log(message(0, 0));
        impl.finish();
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const long process = voluntarySwitches(RUSAGE_SELF), mine = voluntarySwitches(RUSAGE_THREAD);
        impl.log(message(0, 1));
        std::this_thread::sleep_for(kQuiet);
        gWakeups = (voluntarySwitches(RUSAGE_SELF) - process) - (voluntarySwitches(RUSAGE_THREAD) - mine);
        long dropped = 0;
        std::string why;
        if (verify(impl.file, 1, 2, dropped, why) != 2) fail(state, "wakeups", why.empty() ? "line missing" : why);
    }
    state.counters["wakeups"] = static_cast<double>(gWakeups);
}

template <class Impl>
void callCost(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    std::vector<double> all;
    double seconds = 0;
    for (auto _ : state) {
        Impl impl(freshDir());
        std::vector<std::vector<double>> samples(threads);
        std::vector<std::thread> workers;
        auto start = Clock::now();
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                auto& mine = samples[t];
                mine.reserve(kBurst * kBursts);
                int index = 0;
                for (int b = 0; b < kBursts; ++b) {
                    for (int i = 0; i < kBurst; ++i) {
                        const std::string text = message(t, index++);
                        auto before = Clock::now();
                        impl.log(text);
                        auto after = Clock::now();
                        mine.push_back(std::chrono::duration<double, std::nano>(after - before).count());
                    }
                    std::this_thread::sleep_for(kPause);
                }
            });
        }
        for (auto& w : workers) w.join();
        seconds = std::chrono::duration<double>(Clock::now() - start).count();
        impl.finish();
        long dropped = 0;
        std::string why;
        if (verify(impl.file, threads, kBurst * kBursts, dropped, why) < 0) fail(state, Impl::name, why);
        for (auto& s : samples) all.insert(all.end(), s.begin(), s.end());
        state.SetIterationTime(seconds);
    }
    std::sort(all.begin(), all.end());
    auto& figures = gFigures[std::string(Impl::name) + "/" + std::to_string(threads)];
    figures.medianNs = all[all.size() / 2];
    state.counters["median_ns"] = figures.medianNs;
    state.counters["calls"] = static_cast<double>(all.size());
}

// Lines per second that reach the file, from the first call until the last
// line is written; a line dropped at the bound does not count.
template <class Impl>
void sustained(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const int perThread = kSustainedLines / threads;
    std::vector<std::pair<double, long>> runs;  // lines per second, lines dropped
    for (auto _ : state) {
        Impl impl(freshDir());
        // Messages are made beforehand so that only logging is timed.
        std::vector<std::vector<std::string>> messages(threads);
        for (int t = 0; t < threads; ++t)
            for (int i = 0; i < perThread; ++i) messages[t].push_back(message(t, i));
        std::atomic<int> ready{0};
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                ready.fetch_add(1);
                while (ready.load() < threads + 1) std::this_thread::yield();
                for (const auto& text : messages[t]) impl.log(text);
            });
        }
        while (ready.load() < threads) std::this_thread::yield();
        const auto start = Clock::now();
        ready.fetch_add(1);
        for (auto& w : workers) w.join();
        impl.finish();
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        long dropped = 0;
        std::string why;
        const long lines = verify(impl.file, threads, perThread, dropped, why);
        if (lines < 0) fail(state, Impl::name, why);
        runs.emplace_back(static_cast<double>(lines) / seconds, dropped);
        state.SetIterationTime(seconds);
    }
    std::sort(runs.begin(), runs.end());
    auto& figures = gFigures[std::string(Impl::name) + "/" + std::to_string(threads)];
    figures.linesPerSecond = runs[runs.size() / 2].first;
    figures.dropped = static_cast<double>(runs[runs.size() / 2].second);
    state.counters["lines_per_s"] = figures.linesPerSecond;
    state.counters["dropped"] = figures.dropped;
}

void printSummary() {
    std::printf("\nSummary (palomir FileLogger; peer: spdlog async file logger, 8192 slots, block policy)\n");
    std::printf("%-36s %12s %12s %8s %s\n", "figure", "palomir", "spdlog", "target", "met");
    std::printf("%-36s %12ld %12s %8s %s\n", "wake-ups for one line, 2 s quiet", gWakeups, "-",
                ("<=" + std::to_string(kWakeupTarget)).c_str(), gWakeups >= 0 && gWakeups <= kWakeupTarget ? "yes" : "NO");
    for (int threads : {1, 4}) {
        const auto& o = gFigures["palomir/" + std::to_string(threads)];
        const auto& s = gFigures["spdlog/" + std::to_string(threads)];
        const std::string n = std::to_string(threads) + (threads == 1 ? " thread: " : " threads: ");
        std::printf("%-36s %12.1f %12.1f %8s %s\n", (n + "call median (ns)").c_str(), o.medianNs, s.medianNs, "-", "-");
        std::printf("%-36s %12.0f %12.0f %8s %s\n", (n + "sustained lines/s").c_str(), o.linesPerSecond,
                    s.linesPerSecond, "-", "-");
        std::printf("%-36s %12.0f %12.0f %8s %s\n", (n + "lines dropped at the bound").c_str(), o.dropped, s.dropped,
                    "-", "-");
    }
}

}  // namespace

// First, while no other logger's threads exist.
BENCHMARK(wakeups)->Name("Wakeups/palomir")->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(callCost, Ours)->Name("CallCost/palomir")->Arg(1)->Arg(4)->Iterations(1)->UseManualTime();
BENCHMARK_TEMPLATE(callCost, Spd)->Name("CallCost/spdlog")->Arg(1)->Arg(4)->Iterations(1)->UseManualTime();
BENCHMARK_TEMPLATE(sustained, Ours)->Name("Sustained/palomir")->Arg(1)->Arg(4)->Iterations(kSustainedRuns)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(sustained, Spd)->Name("Sustained/spdlog")->Arg(1)->Arg(4)->Iterations(kSustainedRuns)->UseManualTime()->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    // A fixed zone two hours east, where spdlog's %z and our GMT form agree.
    setenv("TZ", "CEST-2", 1);
    tzset();
    char pattern[] = "/tmp/palomir-bench-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return 1;
    gRoot = pattern;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printSummary();
    std::error_code ec;
    fs::remove_all(gRoot, ec);
    return 0;
}
