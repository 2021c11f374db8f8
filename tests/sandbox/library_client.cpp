// The library's own feedback for the dashboard's browser test:
//   library_client BASE_URL CA_FILE BUNDLE_DIR TITLE FILE
// Prints "ok" or the library's error, and exits non-zero on an error.
#include <iostream>

#include <palomir/palomir.hpp>

int main(int argc, char** argv) {
    using namespace palomir;
    if (argc != 6) return 2;
    auto main = MainQueue::shared();
    Bundle::setMain(Bundle(nlohmann::json{{"CFBundleIdentifier", "io.palomir.browser-test"},
                                          {"CFBundleShortVersionString", "1.0"},
                                          {"CFBundleVersion", "1"}},
                           std::nullopt));
    Palomir::shared().setBackend(BackendOptions{argv[1], {argv[2]}, argv[3]});
    Palomir::shared().setAppCredentials(AppCredentials{"sandbox-token", "sandbox-secret"});
    std::optional<std::string> outcome;
    Palomir::shared().feedback(argv[4], "Sent by the browser test.", "tester@example.com",
                               std::vector<std::filesystem::path>{argv[5]}, {}, main,
                               [&](Result<std::string, PalomirError> result) {
                                   outcome = result.hasError() ? result.error().localizedDescription() : "ok";
                               });
    main->runUntil([&] { return outcome.has_value(); }, std::chrono::seconds(30));
    std::cout << outcome.value_or("no answer within 30 s") << "\n";
    return outcome == "ok" ? 0 : 1;
}
