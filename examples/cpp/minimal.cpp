// A minimal C++ host: points Palomir at a backend, checks in once and prints
// what the backend said. Usage:
//   palomir-minimal <base-url> <ca.pem> <bundle-dir> <app-token> <app-secret>
// (palomir-sandbox prints the values to use.) Without arguments it only
// shows that the library links and starts.
#include <iostream>

#include <palomir/palomir.hpp>

int main(int argc, char** argv) {
    using namespace palomir;
    if (argc != 6) {
        std::cout << "usage: " << argv[0] << " <base-url> <ca.pem> <bundle-dir> <app-token> <app-secret>\n";
        return argc == 1 ? 0 : 2;
    }

    // A host without a UI loop of its own lets the main queue run here.
    auto main = MainQueue::shared();
    Bundle::setMain(Bundle(nlohmann::json{{"CFBundleIdentifier", "com.example.minimal"},
                                          {"CFBundleShortVersionString", "1.0"},
                                          {"CFBundleVersion", "1"}},
                           std::nullopt));

    auto& palomir = Palomir::shared();
    palomir.setBackend(BackendOptions{argv[1], {argv[2]}, argv[3]});
    palomir.setAppCredentials(AppCredentials{argv[4], argv[5]});

    int status = 1;
    bool done = false;
    palomir.checkin(main, [&](Result<Configuration, Error> result) {
        done = true;
        if (result.hasError()) {
            std::cerr << "check-in failed: " << result.error().localizedDescription() << "\n";
            return;
        }
        const Configuration& configuration = result.value();
        std::cout << "configuration " << configuration.version << ": " << configuration.notes.size() << " notes, "
                  << (evaluate(configuration.lockdown).isLockedDown() ? "locked down" : "open") << "\n";
        status = 0;
    });
    main->runUntil([&] { return done; }, std::chrono::seconds(30));
    return status;
}
