// bench-libs: spdlog::spdlog
// The file logger against an asynchronous spdlog file logger writing the same
// lines, and against raw write(2) of the same bytes. Run in Release.
#include <fcntl.h>
#include <malloc.h>
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

struct Figures {
    double medianNs = 0, p999Ns = 0, linesPerSecond = 0, bytesPerSecond = 0;
};
std::map<std::string, Figures> gFigures;  // key: "<impl>/<threads>"

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
    void log(const std::string& text) { logger->log(text, palomir::LogType::info); }
    void finish() { logger->flush(); }
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

// Every line present once, each thread's lines in order, and the line shape right.
bool verify(const fs::path& file, int threads, int perThread, std::string& why) {
    std::ifstream in(file);
    std::vector<int> next(threads, 0);
    std::size_t count = 0;
    for (std::string line; std::getline(in, line); ++count) {
        auto at = line.find(" [INFO] t");
        if (line.size() < 29 || line.compare(19, 9, "GMT+02:00") != 0 || at != 28) {
            why = "malformed line: " + line;
            return false;
        }
        int t = std::atoi(line.c_str() + at + 9);
        int index = std::atoi(line.c_str() + line.find(' ', at + 9) + 1);
        if (t < 0 || t >= threads || index != next[t]) {
            why = "line out of order or duplicated: " + line;
            return false;
        }
        ++next[t];
    }
    for (int t = 0; t < threads; ++t) {
        if (next[t] != perThread) {
            why = "thread " + std::to_string(t) + " has " + std::to_string(next[t]) + " of " +
                  std::to_string(perThread) + " lines";
            return false;
        }
    }
    return true;
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
        std::string why;
        if (!verify(impl.file, threads, kBurst * kBursts, why)) {
            state.SkipWithError(why.c_str());
            std::fprintf(stderr, "%s: %s\n", Impl::name, why.c_str());
            std::abort();
        }
        for (auto& s : samples) all.insert(all.end(), s.begin(), s.end());
        state.SetIterationTime(seconds);
    }
    std::sort(all.begin(), all.end());
    auto& figures = gFigures[std::string(Impl::name) + "/" + std::to_string(threads)];
    figures.medianNs = all[all.size() / 2];
    figures.p999Ns = all[std::min(all.size() - 1, static_cast<std::size_t>(all.size() * 0.999))];
    state.counters["median_ns"] = figures.medianNs;
    state.counters["p99.9_ns"] = figures.p999Ns;
    state.counters["calls"] = static_cast<double>(all.size());
}

template <class Impl>
void sustained(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const int perThread = kSustainedLines / threads;
    std::vector<double> times;
    std::uintmax_t bytes = 0;
    for (auto _ : state) {
        Impl impl(freshDir());
        // Messages are made beforehand so that only logging is timed.
        std::vector<std::vector<std::string>> messages(threads);
        for (int t = 0; t < threads; ++t)
            for (int i = 0; i < perThread; ++i) messages[t].push_back(message(t, i));
        std::atomic<int> ready{0};
        std::vector<std::thread> workers;
        Clock::time_point start;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                ready.fetch_add(1);
                while (ready.load() < threads + 1) std::this_thread::yield();
                for (const auto& text : messages[t]) impl.log(text);
            });
        }
        while (ready.load() < threads) std::this_thread::yield();
        start = Clock::now();
        ready.fetch_add(1);
        for (auto& w : workers) w.join();
        const double logged = std::chrono::duration<double>(Clock::now() - start).count();
        impl.finish();
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        if (std::getenv("BENCH_SPLIT")) std::fprintf(stderr, "%s/%d logged %.1f ms, written %.1f ms\n", Impl::name, threads, logged * 1e3, seconds * 1e3);
        std::string why;
        if (!verify(impl.file, threads, perThread, why)) {
            state.SkipWithError(why.c_str());
            std::fprintf(stderr, "%s: %s\n", Impl::name, why.c_str());
            std::abort();
        }
        bytes = fs::file_size(impl.file);
        times.push_back(seconds);
        state.SetIterationTime(seconds);
    }
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2];
    auto& figures = gFigures[std::string(Impl::name) + "/" + std::to_string(threads)];
    figures.linesPerSecond = perThread * threads / median;
    figures.bytesPerSecond = static_cast<double>(bytes) / median;
    state.counters["lines_per_s"] = figures.linesPerSecond;
    state.counters["MB_per_s"] = figures.bytesPerSecond / 1e6;
}

// The same bytes as a formatted run, written with write(2) in 64 KB chunks.
void rawWrite(benchmark::State& state) {
    palomir::PalomirLogFormatter formatter;
    std::string bytes;
    for (int i = 0; i < kSustainedLines; ++i) bytes += formatter.format(message(0, i), palomir::LogType::info);
    std::vector<double> times;
    for (auto _ : state) {
        fs::path dir = freshDir();
        fs::create_directories(dir);
        auto start = Clock::now();
        int fd = ::open((dir / "raw.log").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        for (std::size_t at = 0; at < bytes.size();) {
            std::size_t chunk = std::min<std::size_t>(65536, bytes.size() - at);
            ssize_t n = ::write(fd, bytes.data() + at, chunk);
            if (n <= 0) {
                state.SkipWithError("write failed");
                break;
            }
            at += static_cast<std::size_t>(n);
        }
        ::close(fd);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        times.push_back(seconds);
        state.SetIterationTime(seconds);
    }
    std::sort(times.begin(), times.end());
    gFigures["raw/1"].bytesPerSecond = static_cast<double>(bytes.size()) / times[times.size() / 2];
    state.counters["MB_per_s"] = gFigures["raw/1"].bytesPerSecond / 1e6;
}

// Freed heap is handed back first so that only memory still in use counts.
long residentAnonKb() {
    ::malloc_trim(0);
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("RssAnon:", 0) == 0) return std::atol(line.c_str() + 8);
    return 0;
}

// Anonymous memory the file logger adds to the process: after a few lines,
// after a 100 MB burst, and after it has been idle for a while.
void resident(benchmark::State& state) {
    constexpr int kFew = 10;
    constexpr std::size_t kBurstBytes = 100u << 20;
    long few = 0, burst = 0, idle = 0;
    for (auto _ : state) {
        // Earlier runs' loggers are closed once the writer has been idle a while.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const long before = residentAnonKb();
        Ours impl(freshDir());
        for (int i = 0; i < kFew; ++i) impl.log(message(0, i));
        impl.finish();
        few = residentAnonKb() - before;
        const std::size_t lineBytes = fs::file_size(impl.file) / kFew;
        const int lines = static_cast<int>(kBurstBytes / lineBytes);
        for (int i = kFew; i < kFew + lines; ++i) impl.log(message(0, i));
        impl.finish();
        burst = residentAnonKb() - before;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        idle = residentAnonKb() - before;
        std::string why;
        if (!verify(impl.file, 1, kFew + lines, why)) {
            state.SkipWithError(why.c_str());
            std::fprintf(stderr, "resident: %s\n", why.c_str());
            std::abort();
        }
    }
    state.counters["after_10_lines_KB"] = static_cast<double>(few);
    state.counters["after_100MB_KB"] = static_cast<double>(burst);
    state.counters["idle_after_KB"] = static_cast<double>(idle);
}

void printSummary() {
    std::printf("\nSummary (palomir FileLogger vs spdlog async file logger, 8192 slots, block policy)\n");
    std::printf("%-8s %-24s %12s %12s %8s %8s %s\n", "threads", "figure", "palomir", "spdlog", "ratio", "target",
                "met");
    auto row = [](int threads, const char* what, double ours, double theirs, bool lowerIsBetter, double target) {
        double ratio = ours / theirs;
        bool met = lowerIsBetter ? ratio <= target : ratio >= target;
        std::printf("%-8d %-24s %12.1f %12.1f %8.2f %s%-6.2f %s\n", threads, what, ours, theirs, ratio,
                    lowerIsBetter ? "<=" : ">=", target, met ? "yes" : "NO");
    };
    const double raw = gFigures["raw/1"].bytesPerSecond;
    for (int threads : {1, 4}) {
        const auto& o = gFigures["palomir/" + std::to_string(threads)];
        const auto& s = gFigures["spdlog/" + std::to_string(threads)];
        row(threads, "call median (ns)", o.medianNs, s.medianNs, true, 0.8);
        row(threads, "call p99.9 (ns)", o.p999Ns, s.p999Ns, true, 0.5);
        row(threads, "sustained lines/s", o.linesPerSecond, s.linesPerSecond, false, 1.2);
        std::printf("%-8d %-24s %12.1f %12.1f %8.2f >=0.50   %s\n", threads, "MB/s vs raw write(2)",
                    o.bytesPerSecond / 1e6, raw / 1e6, o.bytesPerSecond / raw, o.bytesPerSecond / raw >= 0.5 ? "yes" : "NO");
    }
}

}  // namespace

BENCHMARK_TEMPLATE(callCost, Ours)->Name("CallCost/palomir")->Arg(1)->Arg(4)->Iterations(1)->UseManualTime();
BENCHMARK_TEMPLATE(callCost, Spd)->Name("CallCost/spdlog")->Arg(1)->Arg(4)->Iterations(1)->UseManualTime();
BENCHMARK_TEMPLATE(sustained, Ours)->Name("Sustained/palomir")->Arg(1)->Arg(4)->Iterations(kSustainedRuns)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(sustained, Spd)->Name("Sustained/spdlog")->Arg(1)->Arg(4)->Iterations(kSustainedRuns)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(resident)->Name("Resident/palomir")->Iterations(1);
BENCHMARK(rawWrite)->Name("RawWrite64K")->Iterations(kSustainedRuns)->UseManualTime()->Unit(benchmark::kMillisecond);

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
