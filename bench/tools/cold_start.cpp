// Started fresh by the client benchmark for every sample: times
// Palomir::shared() from the start of main, and, when given a backend,
// measures the resident memory that the client adds up to its first
// completed check-in.
//
//   palomir-cold-start                              -> "shared_us <n>", "shared_cpu_us <n>"
//   palomir-cold-start <base url> <ca.pem> <dir>    -> also "rss_before_kb <n>",
//                                                      "rss_after_kb <n>", "checkin ok|failed",
//                                                      and the resident memory by kind:
//                                                      "<anon|file>_<before|after>_kb <n>"
//   ... <dir> <seconds>                             -> also "idle_wakeups <n>": voluntary
//                                                      context switches of every other
//                                                      thread (exited ones included) while
//                                                      the client sits idle that long
//                                                      after its check-in
//
// The CPU time of the calling thread is printed beside the elapsed time: on
// a loaded machine the elapsed time mostly says how long the thread waited
// for a core.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include "first_checkin.hpp"
#include "palomir/client.hpp"

namespace {

struct Resident {
    long total = -1;
    long anonymous = -1;  // the process's own pages: heap, stacks, mappings
    long file = -1;       // pages of mapped files, mostly shared libraries' code
};

Resident resident() {
    Resident r;
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) r.total = std::strtol(line.c_str() + 6, nullptr, 10);
        if (line.rfind("RssAnon:", 0) == 0) r.anonymous = std::strtol(line.c_str() + 8, nullptr, 10);
        if (line.rfind("RssFile:", 0) == 0) r.file = std::strtol(line.c_str() + 8, nullptr, 10);
    }
    return r;
}

double threadCpuMicros() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

// Voluntary context switches of the whole process less those of the calling
// thread: each is a thread of the library (or of a library it uses) waking.
long othersWakeups() {
    rusage process{}, self{};
    getrusage(RUSAGE_SELF, &process);
    getrusage(RUSAGE_THREAD, &self);
    return process.ru_nvcsw - self.ru_nvcsw;
}

}  // namespace

int main(int argc, char** argv) {
    const bool withBackend = argc == 4 || argc == 5;
    const Resident before = withBackend ? resident() : Resident{};

    const double cpuStart = threadCpuMicros();
    const auto start = std::chrono::steady_clock::now();
    palomir::Palomir& client = palomir::Palomir::shared();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    const double cpu = threadCpuMicros() - cpuStart;
    std::printf("shared_us %.1f\nshared_cpu_us %.1f\n", std::chrono::duration<double, std::micro>(elapsed).count(), cpu);
    if (!withBackend) return 0;

    const bool ok = firstCheckin(client, argv[1], argv[2], argv[3], "bench.cold-start");
    const Resident after = resident();
    std::printf("rss_before_kb %ld\nrss_after_kb %ld\ncheckin %s\n", before.total, after.total, ok ? "ok" : "failed");
    std::printf("anon_before_kb %ld\nanon_after_kb %ld\nfile_before_kb %ld\nfile_after_kb %ld\n", before.anonymous,
                after.anonymous, before.file, after.file);
    if (argc == 5) {
        const long wakeupsBefore = othersWakeups();
        sleep(static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10)));
        std::printf("idle_wakeups %ld\n", othersWakeups() - wakeupsBefore);
    }
    return ok ? 0 : 1;
}
