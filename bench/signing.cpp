// Signing a request against the bare cost of its HMAC: the peer computes
// HMAC-SHA1 of the same base text with one reused, already keyed MAC context,
// which is the floor any signature has to pay.
#include <benchmark/benchmark.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <cstdlib>

#include "api/oauth.hpp"

namespace {

using palomir::OAuth;
using palomir::OAuthCredentials;
using palomir::Url;

const Url& checkinUrl() {
    static const Url url = *Url::parse("https://api.palomir.io/api/checkin/0b5c4f0e9a6d4e2f8c1a7b3d5e9f1a2b");
    return url;
}
const OAuthCredentials kConsumer{"0b5c4f0e9a6d4e2f8c1a7b3d5e9f1a2b", "5f1e3c9a7b2d4e6f8a0c1b3d5e7f9a2c"};

void BM_FullSignature(benchmark::State& state) {
    for (auto _ : state) {
        auto header = OAuth::calculateSignature(checkinUrl(), "PUT", {}, kConsumer, std::nullopt);
        benchmark::DoNotOptimize(header);
    }
}
BENCHMARK(BM_FullSignature);

void BM_FixedNonceSignature(benchmark::State& state) {
    for (auto _ : state) {
        auto header = OAuth::calculateSignature(checkinUrl(), "PUT", {}, kConsumer, std::nullopt,
                                                "6F9619FF-8B86-D011-B42D-00C04FC964FF", 1700000000);
        benchmark::DoNotOptimize(header);
    }
}
BENCHMARK(BM_FixedNonceSignature);

void BM_BareHmacReusedContext(benchmark::State& state) {
    const std::string base = OAuth::signatureBaseText(checkinUrl(), "PUT", {}, kConsumer, std::nullopt,
                                                      "6F9619FF-8B86-D011-B42D-00C04FC964FF", 1700000000);
    const std::string key = OAuth::signingKey(kConsumer, std::nullopt);
    EVP_MAC* mac = EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr);
    EVP_MAC_CTX* ctx = EVP_MAC_CTX_new(mac);
    char digest[] = "SHA1";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                           OSSL_PARAM_construct_end()};
    if (!ctx || EVP_MAC_init(ctx, reinterpret_cast<const unsigned char*>(key.data()), key.size(), params) != 1) {
        state.SkipWithError("no HMAC context");
        return;
    }
    unsigned char out[20];
    for (auto _ : state) {
        size_t length = 0;
        EVP_MAC_init(ctx, nullptr, 0, nullptr);
        EVP_MAC_update(ctx, reinterpret_cast<const unsigned char*>(base.data()), base.size());
        EVP_MAC_final(ctx, out, &length, sizeof out);
        benchmark::DoNotOptimize(out);
    }
    state.SetLabel(std::to_string(base.size()) + " byte base text");
    EVP_MAC_CTX_free(ctx);
    EVP_MAC_free(mac);
}
BENCHMARK(BM_BareHmacReusedContext);

}  // namespace

BENCHMARK_MAIN();
