#pragma once

// What the demo prints: a heading per section, indented facts, a progress
// line for steps that wait on the network, and one line per check, counted
// so that the exit status can tell whether every step did what it says.

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

namespace demo {

class Report {
public:
    explicit Report(std::chrono::milliseconds pace) : _pace(pace) {}

    void section(const std::string& title) {
        if (_sections++ > 0) {
            std::cout << "\n";
            std::this_thread::sleep_for(_pace);
        }
        std::cout << "== " << title << "\n" << std::flush;
    }
    void fact(const std::string& text) { std::cout << "   " << text << "\n" << std::flush; }
    void detail(const std::string& text) { std::cout << "     " << text << "\n" << std::flush; }

    /// Returns `passed`, so that a step can stop at a failed check.
    bool check(bool passed, const std::string& what) {
        ++_checks;
        if (!passed) ++_failures;
        std::cout << (passed ? "   ok    " : "   FAILED ") << what << "\n" << std::flush;
        return passed;
    }

    void beginProgress(const std::string& what) {
        _progressStart = std::chrono::steady_clock::now();
        std::cout << "   ... " << what << " " << std::flush;
    }
    void endProgress(const std::string& outcome) {
        const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - _progressStart);
        std::cout << outcome << " (" << elapsed.count() << " ms)\n" << std::flush;
    }

    int checks() const { return _checks; }
    int failures() const { return _failures; }

private:
    std::chrono::milliseconds _pace;
    std::chrono::steady_clock::time_point _progressStart;
    int _sections = 0;
    int _checks = 0;
    int _failures = 0;
};

}  // namespace demo
