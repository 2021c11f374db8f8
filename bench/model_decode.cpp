// Typed decoding of a check-in configuration against a plain JSON parse of the
// same text, at three document sizes. Informative only: a document is decoded
// once per check-in, so no figure here is a target.

#include <benchmark/benchmark.h>

#include <string>

#include "palomir/model.hpp"

namespace {

using nlohmann::json;

json note(int i, std::size_t contentLength) {
    char id[40];
    std::snprintf(id, sizeof id, "3F2504E0-4F89-41D3-9A0C-%012d", i);
    json n{{"identifier", id},
           {"title", "What is new in part " + std::to_string(i)},
           {"content", std::string(contentLength, 'x')}};
    if (i % 2 == 0) n["subtitle"] = "A subtitle for note " + std::to_string(i);
    if (i % 3 == 0) n["image"] = "https://cdn.example.com/notes/" + std::to_string(i) + ".png";
    return n;
}

json service(int i) {
    json s{{"name", "Service " + std::to_string(i)},
           {"identifier", "service-" + std::to_string(i)},
           {"url", "https://status.example.com/services/" + std::to_string(i)},
           {"is_available", i % 5 != 0},
           {"state", i % 4 == 0 ? "warning" : "ok"},
           {"triggers_message", i % 4 == 0}};
    if (i % 4 == 0)
        s["message"] = {{"title", "Slow responses"},
                        {"description", "Some requests take longer than usual."},
                        {"url", "https://status.example.com/incidents/" + std::to_string(i)},
                        {"background_color_light", "#FFF4E5"},
                        {"background_color_dark", "#3D2A00"}};
    return s;
}

std::string configuration(int notes, int services, int lockdownNotes, std::size_t contentLength) {
    json doc{{"version", "2024.05.1"},
             {"next_checkin", {{"automatically_at", "2024-05-01T08:30:00.000+02:00"}, {"on_event", {"launch", "foreground"}}}},
             {"theme",
              {{"text_color", "#1C1C1E"},
               {"background_color", "#FFFFFF"},
               {"background_gradient", {{"colors", {"#FF8800", "#FF880080", "#fff"}}, {"startPoint", {0, 0}}, {"endPoint", {0, 1}}}},
               {"inner_background_color", "#F2F2F7"},
               {"action_button_color", "#007AFF"}}},
             {"notes", json::array()},
             {"lockdown",
              {{"active", true},
               {"type", "soft"},
               {"latest_version", "4.0.0"},
               {"title", "Please update"},
               {"action_url", "https://apps.example.com/app/id123456"},
               {"notes", json::array()}}},
             {"services", json::array()}};
    for (int i = 0; i < notes; ++i) doc["notes"].push_back(note(i, contentLength));
    for (int i = 0; i < lockdownNotes; ++i) doc["lockdown"]["notes"].push_back(note(100 + i, contentLength));
    for (int i = 0; i < services; ++i) doc["services"].push_back(service(i));
    return doc.dump();
}

// Roughly 1, 5 and 20 KB.
const std::string& document(std::int64_t size) {
    static const std::string small = configuration(1, 2, 1, 60);
    static const std::string medium = configuration(4, 8, 2, 300);
    static const std::string large = configuration(10, 20, 3, 1200);
    return size == 0 ? small : size == 1 ? medium : large;
}

void label(benchmark::State& state, const std::string& text) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.counters["doc_bytes"] = static_cast<double>(text.size());
}

void PlainParse(benchmark::State& state) {
    const std::string& text = document(state.range(0));
    for (auto _ : state) benchmark::DoNotOptimize(json::parse(text));
    label(state, text);
}

void TypedDecodeFromText(benchmark::State& state) {
    const std::string& text = document(state.range(0));
    if (!palomir::decodeJson<palomir::Configuration>(text).hasValue()) state.SkipWithError("document does not decode");
    for (auto _ : state) benchmark::DoNotOptimize(palomir::decodeJson<palomir::Configuration>(text));
    label(state, text);
}

void TypedDecodeFromParsedJson(benchmark::State& state) {
    const std::string& text = document(state.range(0));
    const json parsed = json::parse(text);
    for (auto _ : state) benchmark::DoNotOptimize(palomir::decode<palomir::Configuration>(parsed));
    label(state, text);
}

BENCHMARK(PlainParse)->DenseRange(0, 2);
BENCHMARK(TypedDecodeFromText)->DenseRange(0, 2);
BENCHMARK(TypedDecodeFromParsedJson)->DenseRange(0, 2);

}  // namespace

BENCHMARK_MAIN();
