// palomir-sandbox: serves the backend API on loopback until interrupted.

#include <CLI/CLI.hpp>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "sandbox.hpp"

using namespace palomir::sandbox;

namespace {

int check(const std::string& file) {
    auto scenario = Scenario::fromFile(file);
    if (scenario.hasError()) {
        std::cerr << file << ": " << scenario.error() << "\n";
        return 1;
    }
    std::cout << "ok\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "palomir-sandbox: a local HTTPS backend for Palomir clients.\n"
        "Serves the API under https://localhost:<port>/api with OAuth signature checks, scenarios and\n"
        "faults on demand, and a dashboard at https://localhost:<port>/?token=<admin token>. Admin routes\n"
        "(unsigned; they need the admin token as ?token= or the X-Sandbox-Token header): GET /_sandbox/requests, /_sandbox/uploads,\n"
        "/_sandbox/feedback, /_sandbox/scenario, /_sandbox/faults; POST /_sandbox/scenario\n"
        "({\"path\": FILE} | {\"name\": NAME} | a scenario document), POST /_sandbox/faults\n"
        "({\"faults\": [\"route=kind[:arg]\", ...], \"clear\": true}), DELETE /_sandbox/faults,\n"
        "POST /_sandbox/reset.",
        "palomir-sandbox"};
    app.require_subcommand(0, 1);

    SandboxOptions options;
    std::string scenarioFile, dataDirectory, bundleDirectory, certificateFile, keyFile, caFile;
    std::vector<std::string> faultSettings;
    bool quiet = false;

    app.add_option("--port", options.port, "Port on 127.0.0.1 to listen on; 0 picks a free one (printed)")
        ->default_val(0)
        ->check(CLI::Range(0, 65535));
    app.add_option("--token", options.appToken, "App token the client signs with (the OAuth consumer key)")
        ->default_val(options.appToken);
    app.add_option("--secret", options.appSecret, "App secret that signatures are checked against")
        ->default_val(options.appSecret);
    app.add_option("--admin-token", options.adminToken,
                   "Token the dashboard and the admin routes require (default: a random one, printed at start)");
    std::string previewProgram;
    app.add_option("--preview", previewProgram,
                   "The palomir-preview program that draws the dashboard's screen images (default: the one beside "
                   "palomir-sandbox)")
        ->check(CLI::ExistingFile);
    app.add_option("--scenario", scenarioFile,
                   "Scenario file to serve at start: {\"configuration\": {...}, \"services\": [...], "
                   "\"system_services\": [...]}. Its directory is where POST /_sandbox/scenario looks up names")
        ->check(CLI::ExistingFile);
    app.add_option("--data-dir", dataDirectory,
                   "Directory where uploads and feedback are recorded (default: a temporary one, removed at exit)");
    app.add_option("--bundle-dir", bundleDirectory,
                   "Directory where localhost.crt (server certificate, DER, for pinning) and ca.pem (the CA to "
                   "trust) are written (default: <data-dir>/bundle)");
    auto* cert = app.add_option("--cert", certificateFile,
                                "PEM file with the server certificate chain, leaf first (default: a CA and a "
                                "localhost certificate are made at start)")
                     ->check(CLI::ExistingFile);
    auto* key = app.add_option("--key", keyFile, "PEM file with the server certificate's private key")
                    ->check(CLI::ExistingFile);
    app.add_option("--ca", caFile,
                   "PEM file of the CA that issued --cert, written as ca.pem (default: the last certificate of "
                   "the --cert chain)")
        ->check(CLI::ExistingFile)
        ->needs(cert);
    cert->needs(key);
    key->needs(cert);
    app.add_option("--fault", faultSettings,
                   "Misbehave on a route: route=kind[:arg][*N]. Routes: checkin, services, service, "
                   "direct_uploads, upload, feedback, * (all). Kinds: delay:MS, stall[:MS], drip[:MS], "
                   "status:CODE[:BODY], malformed, truncated, empty, drop, cache-control[:VALUE], "
                   "oversized[:MB], redirect:URL. A trailing *N applies it to the next N requests only. Repeatable");
    app.add_option("--cache-control", options.cacheControl, "Cache-Control value of service answers")
        ->default_val(options.cacheControl);
    app.add_flag("--quiet", quiet, "Do not log each request to standard error");

    auto* checkCommand = app.add_subcommand("check", "Validate a scenario file and exit: prints \"ok\", or the "
                                                     "key path of the first error and exits non-zero");
    std::string checkFile;
    checkCommand->add_option("FILE", checkFile, "Scenario file")->required();

    CLI11_PARSE(app, argc, argv);

    if (*checkCommand) return check(checkFile);

    options.scenarioFile = scenarioFile;
    options.dataDirectory = dataDirectory;
    options.bundleDirectory = bundleDirectory;
    options.certificateFile = certificateFile;
    options.keyFile = keyFile;
    options.caCertificateFile = caFile;
    options.logRequests = !quiet;
    options.previewProgram = previewProgram;
    for (const auto& text : faultSettings) {
        auto setting = parseFaultSetting(text);
        if (setting.hasError()) {
            std::cerr << "palomir-sandbox: " << setting.error() << "\n";
            return 2;
        }
        options.faults.push_back(setting.value());
    }

    // Blocked before any thread starts, so that only sigwait below sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    Sandbox sandbox(options);
    auto started = sandbox.start();
    if (started.hasError()) {
        std::cerr << "palomir-sandbox: " << started.error() << "\n";
        return 1;
    }
    std::cout << "palomir-sandbox listening on " << sandbox.baseURL() << "\n"
              << "  dashboard:   " << sandbox.dashboardURL() << "\n"
              << "  admin token: " << sandbox.adminToken() << "\n"
              << "  port:        " << sandbox.port() << "\n"
              << "  app token:   " << options.appToken << "\n"
              << "  app secret:  " << options.appSecret << "\n"
              << "  scenario:    " << sandbox.scenario().name << "\n"
              << "  pinned cert: " << sandbox.certificateFile().string() << "\n"
              << "  CA:          " << sandbox.caFile().string() << "\n"
              << "  data:        " << sandbox.dataDirectory().string() << "\n";
    for (const auto& [route, fault] : sandbox.faults())
        std::cout << "  fault:       " << toString(route) << "=" << fault.description() << "\n";
    if (sandbox.madeLastingAuthority())
        std::cout << "\nA new CA was made and is kept in " << dataDirectory
                  << "/authority for later starts. To open the dashboard without a warning, trust it once:\n"
                  << "  Chromium/Chrome: Settings > Privacy and security > Security > Manage certificates >\n"
                  << "    Authorities > Import " << sandbox.caFile().string() << " (trust for websites)\n"
                  << "  Firefox: Settings > Privacy & Security > Certificates > View Certificates > Authorities >\n"
                  << "    Import " << sandbox.caFile().string() << "\n"
                  << "  or: certutil -d sql:$HOME/.pki/nssdb -A -t C,, -n palomir-sandbox -i "
                  << sandbox.caFile().string() << "\n";
    std::cout << std::flush;

    int received = 0;
    sigwait(&signals, &received);
    std::cerr << "palomir-sandbox: stopping\n";
    // Requests in flight end and are logged; idle keep-alive connections
    // would hold a full stop() for their time-out, and nothing of theirs is
    // worth keeping.
    sandbox.interrupt();
    std::fflush(stderr);
    if (dataDirectory.empty()) {
        std::error_code error;
        std::filesystem::remove_all(sandbox.dataDirectory(), error);
    }
    std::_Exit(0);
}
