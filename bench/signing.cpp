// Signing one check-in request. Informative only: a request is signed once
// per network exchange of tens of milliseconds.
#include <benchmark/benchmark.h>

#include "api/oauth.hpp"

namespace {

void BM_Signature(benchmark::State& state) {
    const auto url = *palomir::Url::parse("https://api.palomir.io/api/checkin/0b5c4f0e9a6d4e2f8c1a7b3d5e9f1a2b");
    const palomir::OAuthCredentials consumer{"0b5c4f0e9a6d4e2f8c1a7b3d5e9f1a2b", "5f1e3c9a7b2d4e6f8a0c1b3d5e7f9a2c"};
    for (auto _ : state) {
        auto header = palomir::OAuth::calculateSignature(url, "PUT", {}, consumer, std::nullopt);
        benchmark::DoNotOptimize(header);
    }
}
BENCHMARK(BM_Signature);

}  // namespace

BENCHMARK_MAIN();
