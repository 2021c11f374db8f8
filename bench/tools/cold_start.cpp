// Started fresh by the client benchmark for every sample: times
// Palomir::shared() from the start of main, and, when given a backend,
// measures the resident memory that the client adds up to its first
// completed check-in.
//
//   palomir-cold-start                              -> "shared_us <n>"
//   palomir-cold-start <base url> <ca.pem> <dir>    -> also "rss_before_kb <n>",
//                                                      "rss_after_kb <n>", "checkin ok|failed"
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "palomir/client.hpp"

namespace {

long residentKilobytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    const bool withBackend = argc == 4;
    const long before = withBackend ? residentKilobytes() : 0;

    const auto start = std::chrono::steady_clock::now();
    palomir::Palomir& client = palomir::Palomir::shared();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    std::printf("shared_us %.1f\n", std::chrono::duration<double, std::micro>(elapsed).count());
    if (!withBackend) return 0;

    palomir::BackendOptions options;
    options.baseURL = argv[1];
    options.trustAnchors = {argv[2]};
    options.resourceDirectory = argv[3];
    client.setBackend(options);
    client.setAppCredentials(palomir::AppCredentials{"0b5c4f0e9a6d4e2f8c1a7b3d5e9f1a2b", "5f1e3c9a7b2d4e6f8a0c1b3d5e7f9a2c"});

    std::atomic<int> done{0};
    bool ok = false;
    auto queue = palomir::DispatchQueue::makeSerial("bench.cold-start");
    client.checkin(queue, [&](palomir::Result<palomir::Configuration, palomir::Error> result) {
        ok = result.hasValue();
        done.store(1);
        done.notify_one();
    });
    done.wait(0);
    const long after = residentKilobytes();
    std::printf("rss_before_kb %ld\nrss_after_kb %ld\ncheckin %s\n", before, after, ok ? "ok" : "failed");
    return ok ? 0 : 1;
}
