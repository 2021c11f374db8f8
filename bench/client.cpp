// bench-libs: palomir_test_support
//
// The shared client's costs:
//  - a check-in answered from memory against its floor, a mutex-guarded read
//    of the held configuration plus posting the same completion to the same
//    serial queue, timed until the completion ran, with allocations counted;
//  - creating the shared client in a fresh process (a helper program started
//    once per sample);
//  - the resident memory the client adds up to its first check-in against a
//    local HTTPS server (same helper, given the server), and how often the
//    library's threads wake while the client then sits idle for 10 s;
//  - the stripped size of the shared library.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "palomir/bundle.hpp"
#include "palomir/client.hpp"
#include "palomir/model.hpp"
#include "palomir_test/temp_dir.hpp"
#include "palomir_test/tls.hpp"
#include "tools/first_checkin.hpp"

// ---------------------------------------------------------------------------
// Every allocation of the process is counted; the ones made by the calling
// thread inside a call are counted apart.

#if defined(__GNUC__) && !defined(__clang__)
// The replacements below pair malloc with free; GCC cannot see that new and
// delete are both replaced.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

namespace {
std::atomic<std::uint64_t> gAllocations{0};
thread_local std::uint64_t tThreadAllocations = 0;
}  // namespace

void* operator new(std::size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    ++tThreadAllocations;
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    ++tThreadAllocations;
    return std::malloc(size ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;
using palomir::Configuration;
using palomir::DispatchQueue;
using palomir::Palomir;

constexpr int kMemoryPairs = 20000;
constexpr int kColdStarts = 25;
constexpr int kResidentRuns = 5;

// A configuration of realistic size that names no next timed check-in, so the
// client serves it from memory for the rest of the process.
std::string heldDocument() {
    json doc{{"version", "2024.05.1"},
             {"next_checkin", {{"on_event", {"launch", "foreground"}}}},
             {"theme", {{"text_color", "#1C1C1E"}, {"background_color", "#FFFFFF"}}},
             {"notes", json::array()},
             {"lockdown", {{"active", false}, {"type", "soft"}, {"latest_version", "1.0.0"}, {"notes", json::array()}}},
             {"services", json::array()}};
    for (int i = 0; i < 4; ++i) {
        char id[40];
        std::snprintf(id, sizeof id, "3F2504E0-4F89-41D3-9A0C-%012d", i);
        doc["notes"].push_back({{"identifier", id},
                                {"title", "What is new in part " + std::to_string(i)},
                                {"content", std::string(300, 'x')}});
    }
    for (int i = 0; i < 8; ++i)
        doc["services"].push_back({{"name", "Service " + std::to_string(i)},
                                   {"identifier", "service-" + std::to_string(i)},
                                   {"is_available", true},
                                   {"state", "ok"},
                                   {"triggers_message", false}});
    return doc.dump();
}

Configuration heldConfiguration() {
    auto decoded = palomir::decodeJson<Configuration>(heldDocument());
    if (decoded.hasError()) {
        std::fprintf(stderr, "held configuration does not decode: %s\n", decoded.error().message().c_str());
        std::abort();
    }
    return std::move(decoded).value();
}

double percentile(std::vector<double> samples, double fraction) {
    if (samples.empty()) return 0;
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(samples.size() - 1) + 0.5);
    std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(index), samples.end());
    return samples[index];
}

double micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

struct Row {
    std::string figure;
    std::string unit;
    double ours = 0;
    std::optional<double> floor;  // the peer, when there is one
    std::string target;
    bool met = false;
};
std::vector<Row> gRows;

// ---------------------------------------------------------------------------
// a. Check-in answered from memory.

// The floor: what any cache in front of a queue hop has to do.
struct Floor {
    std::mutex mutex;
    std::shared_ptr<const Configuration> held;

    void checkin(std::shared_ptr<DispatchQueue> queue, Palomir::Completion<Configuration> completion) {
        std::shared_ptr<const Configuration> configuration;
        {
            std::lock_guard lock(mutex);
            configuration = held;
        }
        queue->async([completion, configuration] { completion(palomir::Ok{*configuration}); });
    }
};

struct RoundTrip {
    std::atomic<int> done{0};
    Palomir::Completion<Configuration> completion;

    RoundTrip()
        : completion([this](palomir::Result<Configuration, palomir::Error> result) {
              benchmark::DoNotOptimize(result);
              done.store(1, std::memory_order_release);
              done.notify_one();
          }) {}

    void wait() {
        done.wait(0, std::memory_order_acquire);
        done.store(0, std::memory_order_relaxed);
    }
};

struct Counts {
    std::vector<double> latency;
    std::uint64_t allocations = 0;        // whole round trip, every thread
    std::uint64_t callerAllocations = 0;  // inside the call, calling thread
};

template <class Call>
void measureOnce(Counts& counts, RoundTrip& trip, Call call) {
    const std::uint64_t allBefore = gAllocations.load();
    const std::uint64_t threadBefore = tThreadAllocations;
    const auto start = Clock::now();
    call();
    const std::uint64_t threadAfter = tThreadAllocations;
    trip.wait();
    const auto elapsed = Clock::now() - start;
    counts.latency.push_back(micros(elapsed));
    counts.allocations += gAllocations.load() - allBefore;
    counts.callerAllocations += threadAfter - threadBefore;
}

void BM_MemoryCheckin(benchmark::State& state) {
    Palomir& client = Palomir::shared();
    Configuration configuration = heldConfiguration();
    client.setConfiguration(configuration);
    Floor floor;
    floor.held = std::make_shared<const Configuration>(configuration);
    auto queue = DispatchQueue::makeSerial("bench.delivery");
    RoundTrip trip;

    // What copying the configuration into the completion's result costs: the
    // completion takes it by value, so both sides pay it on the queue.
    const std::uint64_t copyBefore = gAllocations.load();
    {
        palomir::Result<Configuration, palomir::Error> copy = palomir::Ok{configuration};
        benchmark::DoNotOptimize(copy);
    }
    const double copyAllocations = static_cast<double>(gAllocations.load() - copyBefore);

    for (int i = 0; i < 1000; ++i) {
        client.checkin(queue, trip.completion);
        trip.wait();
        floor.checkin(queue, trip.completion);
        trip.wait();
    }

    Counts ours, theirs;
    ours.latency.reserve(kMemoryPairs);
    theirs.latency.reserve(kMemoryPairs);
    // Which side goes first is drawn at random: the queue's storage grows in
    // fixed steps, and a regular alternation would charge those steps to
    // one side only.
    std::uint32_t draw = 0x9E3779B9u;
    for (auto _ : state) {
        auto timeOurs = [&] { measureOnce(ours, trip, [&] { client.checkin(queue, trip.completion); }); };
        auto timeTheirs = [&] { measureOnce(theirs, trip, [&] { floor.checkin(queue, trip.completion); }); };
        draw ^= draw << 13;
        draw ^= draw >> 17;
        draw ^= draw << 5;
        if (draw & 1u) {
            timeOurs();
            timeTheirs();
        } else {
            timeTheirs();
            timeOurs();
        }
        state.SetIterationTime((ours.latency.back() + theirs.latency.back()) * 1e-6);
    }
    const double n = static_cast<double>(ours.latency.size());
    const double oursMedian = percentile(ours.latency, 0.5), theirsMedian = percentile(theirs.latency, 0.5);
    const double oursP99 = percentile(ours.latency, 0.99), theirsP99 = percentile(theirs.latency, 0.99);
    state.counters["palomir_median_us"] = oursMedian;
    state.counters["floor_median_us"] = theirsMedian;
    state.counters["palomir_p99_us"] = oursP99;
    state.counters["floor_p99_us"] = theirsP99;
    state.counters["ratio_median"] = oursMedian / theirsMedian;
    state.counters["palomir_allocs"] = static_cast<double>(ours.allocations) / n;
    state.counters["floor_allocs"] = static_cast<double>(theirs.allocations) / n;
    state.counters["palomir_allocs_in_call"] = static_cast<double>(ours.callerAllocations) / n;
    state.counters["floor_allocs_in_call"] = static_cast<double>(theirs.callerAllocations) / n;
    state.counters["config_copy_allocs"] = copyAllocations;

    const double ratio = oursMedian / theirsMedian;
    gRows.push_back({"memory check-in median", "us", oursMedian, theirsMedian, "<= 1.5x", ratio <= 1.5});
    gRows.push_back({"memory check-in p99", "us", oursP99, theirsP99, "-", true});
    const double oursAllocs = static_cast<double>(ours.allocations) / n;
    const double theirsAllocs = static_cast<double>(theirs.allocations) / n;
    gRows.push_back({"allocations per round trip", "count", oursAllocs, theirsAllocs, "= floor",
                     oursAllocs <= theirsAllocs + 0.01});
    gRows.push_back({"allocations inside the call", "count", static_cast<double>(ours.callerAllocations) / n,
                     static_cast<double>(theirs.callerAllocations) / n, "= floor",
                     ours.callerAllocations <= theirs.callerAllocations});
    gRows.push_back({"of which: configuration copy", "count", copyAllocations, copyAllocations, "-", true});
}
BENCHMARK(BM_MemoryCheckin)
    ->Name("Checkin/memory/palomir_vs_floor")
    ->Iterations(kMemoryPairs)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// b and c. A fresh process per sample.

#ifndef PALOMIR_COLD_START_PROGRAM
#define PALOMIR_COLD_START_PROGRAM ""
#endif
#ifndef PALOMIR_SHARED_LIBRARY
#define PALOMIR_SHARED_LIBRARY ""
#endif

// Runs the helper with `arguments` and returns its "name value" lines.
std::optional<std::map<std::string, std::string>> runHelper(const std::vector<std::string>& arguments,
                                                            const std::filesystem::path& cacheHome) {
    const std::string program = PALOMIR_COLD_START_PROGRAM;
    if (program.empty()) return std::nullopt;
    const std::filesystem::path output = cacheHome / "helper.out";
    std::string command = "XDG_CACHE_HOME='" + cacheHome.string() + "' '" + program + "'";
    for (const auto& argument : arguments) command += " '" + argument + "'";
    const std::filesystem::path errors = cacheHome / "helper.err";
    command += " > '" + output.string() + "' 2> '" + errors.string() + "'";
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "%s failed; its output:\n", program.c_str());
        std::system(("cat '" + output.string() + "' '" + errors.string() + "' >&2").c_str());
        return std::nullopt;
    }
    std::map<std::string, std::string> values;
    FILE* file = std::fopen(output.c_str(), "r");
    if (!file) return std::nullopt;
    char name[64], value[64];
    while (std::fscanf(file, "%63s %63s", name, value) == 2) values[name] = value;
    std::fclose(file);
    return values;
}

void BM_ColdStart(benchmark::State& state) {
    palomir_test::TempDir cache;
    std::vector<double> samples, cpuSamples;
    for (auto _ : state) {
        for (int i = 0; i < kColdStarts; ++i) {
            auto values = runHelper({}, cache.path());
            if (!values || !values->count("shared_us") || !values->count("shared_cpu_us")) {
                state.SkipWithError("the cold-start helper did not run");
                return;
            }
            samples.push_back(std::stod(values->at("shared_us")));
            cpuSamples.push_back(std::stod(values->at("shared_cpu_us")));
        }
        state.SetIterationTime(percentile(samples, 0.5) * 1e-6);
    }
    const double median = percentile(samples, 0.5);
    const double cpuMedian = percentile(cpuSamples, 0.5);
    state.counters["shared_median_us"] = median;
    state.counters["shared_min_us"] = *std::min_element(samples.begin(), samples.end());
    state.counters["shared_max_us"] = *std::max_element(samples.begin(), samples.end());
    state.counters["shared_cpu_median_us"] = cpuMedian;
    gRows.push_back({"Palomir::shared() cold, median", "us", median, std::nullopt, "-", true});
    // What the calling thread itself spent; the rest of the elapsed time it
    // waited for a core (compare with the machine's load).
    gRows.push_back({"  of which on the CPU, median", "us", cpuMedian, std::nullopt, "-", true});
}
BENCHMARK(BM_ColdStart)->Name("ColdStart/shared")->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// c'. Where the added resident memory lies: /proc/self/smaps before the
// client's first use and after its first check-in, in a child process that
// runs this program again (see residentChild below).

struct Pages {
    double file = 0;       // KiB of the mapping's file resident
    double anonymous = 0;  // KiB of private pages: heap, stacks, copied-on-write data
};

// Resident pages per mapping name: a file's name (several mappings of one
// library add up), or the kernel's label for anonymous regions ("[heap]",
// "[stack]", or "[anonymous]" for unnamed ones).
std::map<std::string, Pages> residentByMapping() {
    std::map<std::string, Pages> pages;
    FILE* smaps = std::fopen("/proc/self/smaps", "r");
    if (!smaps) return pages;
    char line[512];
    std::string current;
    double rss = 0;
    auto flush = [&] {
        if (current.empty()) return;
        pages[current].file += rss;  // the anonymous part is taken off below
    };
    while (std::fgets(line, sizeof line, smaps)) {
        unsigned long from = 0, to = 0;
        char path[400] = "";
        if (std::sscanf(line, "%lx-%lx %*s %*s %*s %*s %399[^\n]", &from, &to, path) >= 2) {
            flush();
            rss = 0;
            const std::string name = path;
            current = name.empty() ? "[anonymous]" : std::filesystem::path(name).filename().string();
            if (name.rfind('[', 0) == 0) current = name;
            continue;
        }
        double kb = 0;
        if (std::sscanf(line, "Rss: %lf kB", &kb) == 1) rss = kb;
        if (std::sscanf(line, "Anonymous: %lf kB", &kb) == 1) {
            pages[current].anonymous += kb;
            rss -= kb;
        }
    }
    flush();
    std::fclose(smaps);
    // Regions without a file hold only anonymous pages.
    for (auto& [name, p] : pages)
        if (name.rfind('[', 0) == 0) p.file = 0;
    return pages;
}

constexpr const char* kBreakdownFlag = "--resident-breakdown";

// Unmaps the resident pages of read-only file mappings that hold nothing of
// their own (no copied-on-write page), so that the next use maps them again
// from the page cache: afterwards, a library's resident pages are the ones
// the code run since has touched, whatever ran before. Writable mappings,
// and relocated ones, keep their pages.
void forgetReadOnlyFilePages() {
    struct Range {
        unsigned long from, to;
        bool candidate;
    };
    std::vector<Range> ranges;
    FILE* smaps = std::fopen("/proc/self/smaps", "r");
    if (!smaps) return;
    char line[512];
    while (std::fgets(line, sizeof line, smaps)) {
        unsigned long from = 0, to = 0;
        char permissions[8] = "", path[400] = "";
        if (std::sscanf(line, "%lx-%lx %7s %*s %*s %*s %399[^\n]", &from, &to, permissions, path) >= 3) {
            ranges.push_back({from, to, path[0] == '/' && std::strchr(permissions, 'w') == nullptr});
            continue;
        }
        int anonymous = 0;
        if (!ranges.empty() && std::sscanf(line, "Anonymous: %d kB", &anonymous) == 1 && anonymous > 0)
            ranges.back().candidate = false;
    }
    std::fclose(smaps);
    for (const Range& range : ranges)
        if (range.candidate) madvise(reinterpret_cast<void*>(range.from), range.to - range.from, MADV_DONTNEED);
}

// The child: the same steps as the cold-start helper, with the split.
int residentChild(char** argv) {
    forgetReadOnlyFilePages();
    const auto before = residentByMapping();
    // A host describes itself in its main bundle (the helper in an Info.json
    // beside it).
    palomir::Bundle::setMain(palomir::Bundle(json{{"CFBundleIdentifier", "io.palomir.bench"},
                                                  {"CFBundleDisplayName", "Palomir Bench"},
                                                  {"CFBundleShortVersionString", "1.0.0"},
                                                  {"CFBundleVersion", "100"}},
                                             std::nullopt));
    const bool ok = firstCheckin(Palomir::shared(), argv[2], argv[3], argv[4], "bench.breakdown");
    auto after = residentByMapping();
    for (const auto& [name, was] : before) {
        after[name].file -= was.file;
        after[name].anonymous -= was.anonymous;
    }
    for (const auto& [name, added] : after)
        if (added.file != 0 || added.anonymous != 0) std::printf("mapping\t%s\t%.0f\t%.0f\n", name.c_str(), added.file, added.anonymous);
    return ok ? 0 : 1;
}

std::optional<std::map<std::string, Pages>> residentBreakdown(const std::vector<std::string>& arguments,
                                                              const std::filesystem::path& cacheHome) {
    const std::filesystem::path output = cacheHome / "breakdown.out";
    std::string command = "XDG_CACHE_HOME='" + cacheHome.string() + "' '" +
                          std::filesystem::read_symlink("/proc/self/exe").string() + "' " + kBreakdownFlag;
    for (const auto& argument : arguments) command += " '" + argument + "'";
    command += " > '" + output.string() + "' 2>&1";
    if (std::system(command.c_str()) != 0) return std::nullopt;
    std::map<std::string, Pages> pages;
    FILE* file = std::fopen(output.c_str(), "r");
    if (!file) return std::nullopt;
    char line[512], name[400];
    double fileKb = 0, anonymousKb = 0;
    // Other lines are the client's console log.
    while (std::fgets(line, sizeof line, file))
        if (std::sscanf(line, "mapping\t%399[^\t]\t%lf\t%lf", name, &fileKb, &anonymousKb) == 3)
            pages[name] = Pages{fileKb, anonymousKb};
    std::fclose(file);
    return pages;
}

// Per mapping, the median of the runs (a mapping missing from a run added
// nothing in it).
std::map<std::string, Pages> medianBreakdown(const std::vector<std::map<std::string, Pages>>& runs) {
    std::map<std::string, Pages> median;
    for (const auto& run : runs)
        for (const auto& entry : run) median[entry.first];
    for (auto& [name, pages] : median) {
        std::vector<double> file, anonymous;
        for (const auto& run : runs) {
            const auto found = run.find(name);
            file.push_back(found == run.end() ? 0 : found->second.file);
            anonymous.push_back(found == run.end() ? 0 : found->second.anonymous);
        }
        pages = Pages{percentile(file, 0.5), percentile(anonymous, 0.5)};
    }
    return median;
}

std::map<std::string, Pages> gBreakdown;

void printBreakdown() {
    if (gBreakdown.empty()) return;
    std::vector<std::pair<std::string, Pages>> rows(gBreakdown.begin(), gBreakdown.end());
    std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
        return a.second.file + a.second.anonymous > b.second.file + b.second.anonymous;
    });
    std::printf("\nResident memory added up to the first check-in, by mapping (KiB, median of %d fresh processes)\n"
                "Palomir is linked into this program; code pages of libraries count whether or not the program\n"
                "had touched them before (their page tables are cleared first), so \"file\" is the code the\n"
                "check-in runs through, more than the helper's figure, which leaves out pages touched at start-up.\n",
                kResidentRuns);
    std::printf("%-34s %10s %10s\n", "mapping", "file", "anonymous");
    Pages total;
    for (const auto& [name, pages] : rows) {
        total.file += pages.file;
        total.anonymous += pages.anonymous;
        if (std::abs(pages.file) + std::abs(pages.anonymous) < 8) continue;
        std::printf("%-34s %10.0f %10.0f\n", name.c_str(), pages.file, pages.anonymous);
    }
    std::printf("%-34s %10.0f %10.0f   (all mappings, %.0f in all)\n", "sum", total.file, total.anonymous,
                total.file + total.anonymous);
}

void BM_ResidentMemory(benchmark::State& state) {
    auto pki = palomir_test::Pki::make("palomir-bench");
    palomir_test::TempDir dir;
    pki.leaf.writeDer(dir / "localhost.crt");
    pki.root.writePem(dir / "ca.pem");
    const std::string document = heldDocument();
    palomir_test::TlsTestServer server({pki.chain(),
                                        [&](const palomir_test::RecordedRequest&) {
                                            return palomir_test::TestResponse{200, {}, document, "application/json", std::nullopt};
                                        },
                                        true});
    std::vector<double> added, anonymous, file;
    auto delta = [](const std::map<std::string, std::string>& values, const std::string& kind) {
        return std::stod(values.at(kind + "_after_kb")) - std::stod(values.at(kind + "_before_kb"));
    };
    for (auto _ : state) {
        for (int i = 0; i < kResidentRuns; ++i) {
            auto values = runHelper({server.url("/api"), (dir / "ca.pem").string(), dir.path().string()}, dir.path());
            if (!values || values->count("checkin") == 0 || values->at("checkin") != "ok" ||
                values->count("anon_after_kb") == 0 || values->count("file_after_kb") == 0) {
                state.SkipWithError("the helper's check-in failed");
                return;
            }
            added.push_back(delta(*values, "rss"));
            anonymous.push_back(delta(*values, "anon"));
            file.push_back(delta(*values, "file"));
        }
        state.SetIterationTime(1e-3);
    }
    const double median = percentile(added, 0.5);
    state.counters["rss_added_kb"] = median;
    state.counters["anon_added_kb"] = percentile(anonymous, 0.5);
    state.counters["file_added_kb"] = percentile(file, 0.5);
    gRows.push_back({"RSS added to first check-in", "KiB", median, std::nullopt, "-", true});
    // The split: the process's own pages (heap, stacks), which the host pays
    // for, and pages of mapped files, which are the code of the libraries
    // that the check-in runs (TLS, HTTP, ours) and are shared with every
    // other process using them.
    const double anonymousMedian = percentile(anonymous, 0.5);
    gRows.push_back({"  of which anonymous", "KiB", anonymousMedian, std::nullopt, "< 1024 KiB", anonymousMedian < 1024});
    gRows.push_back({"  of which mapped files", "KiB", percentile(file, 0.5), std::nullopt, "-", true});

    // The same first check-in again, in a fresh copy of this program, split
    // by mapping. Palomir is linked into this program, so its own code shows
    // under the program's name, not the shared library's.
    std::vector<std::map<std::string, Pages>> runs;
    for (int i = 0; i < kResidentRuns; ++i) {
        auto split = residentBreakdown({server.url("/api"), (dir / "ca.pem").string(), dir.path().string()}, dir.path());
        if (!split) {
            state.SkipWithError("the breakdown's check-in failed");
            return;
        }
        runs.push_back(std::move(*split));
    }
    gBreakdown = medianBreakdown(runs);

    // Once: the same first check-in, then 10 s of nothing.
    auto idle = runHelper({server.url("/api"), (dir / "ca.pem").string(), dir.path().string(), "10"}, dir.path());
    if (!idle || idle->count("idle_wakeups") == 0) {
        state.SkipWithError("the idle helper failed");
        return;
    }
    const double wakeups = std::stod(idle->at("idle_wakeups"));
    state.counters["idle_wakeups"] = wakeups;
    gRows.push_back({"wake-ups idle 10 s after check-in", "count", wakeups, std::nullopt, "<= 2", wakeups <= 2});
}
BENCHMARK(BM_ResidentMemory)->Name("ResidentMemory/first_checkin")->Iterations(1)->UseManualTime();

// ---------------------------------------------------------------------------
// d. Size of the shared library, stripped.

void strippedSize() {
    const std::string library = PALOMIR_SHARED_LIBRARY;
    if (library.empty() || !std::filesystem::exists(library)) {
        std::printf("libpalomir.so not found; size not measured\n");
        return;
    }
    palomir_test::TempDir dir;
    const auto copy = dir / "libpalomir.so";
    std::filesystem::copy_file(library, copy);
    const std::string command = "strip '" + copy.string() + "'";
    if (std::system(command.c_str()) != 0) {
        std::printf("strip failed; size not measured\n");
        return;
    }
    const double bytes = static_cast<double>(std::filesystem::file_size(copy));
    gRows.push_back({"libpalomir.so stripped", "bytes", bytes, std::nullopt, "< 1048576", bytes < 1048576});
}

void printSummary() {
    std::printf("\nSummary (shared client)\n");
    std::printf("%-34s %-6s %12s %12s %8s %-12s %s\n", "figure", "unit", "palomir", "floor", "ratio", "target", "met");
    for (const auto& row : gRows) {
        if (row.floor)
            std::printf("%-34s %-6s %12.3f %12.3f %8.3f %-12s %s\n", row.figure.c_str(), row.unit.c_str(), row.ours,
                        *row.floor, *row.floor > 0 ? row.ours / *row.floor : 0.0, row.target.c_str(),
                        row.target == "-" ? "-" : row.met ? "yes" : "NO");
        else
            std::printf("%-34s %-6s %12.0f %12s %8s %-12s %s\n", row.figure.c_str(), row.unit.c_str(), row.ours, "-",
                        "-", row.target.c_str(), row.target == "-" ? "-" : row.met ? "yes" : "NO");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::string(argv[1]) == kBreakdownFlag) return residentChild(argv);
    // The shared client's log files go to a directory of this run.
    palomir_test::TempDir cache;
    setenv("XDG_CACHE_HOME", cache.path().c_str(), 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    strippedSize();
    printSummary();
    printBreakdown();
    return 0;
}
