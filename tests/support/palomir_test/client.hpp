#pragma once

// What tests of the client hear from it: the one completion of an
// asynchronous call, and what it logs.

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>
#include <utility>

#include "palomir/palomir.hpp"

namespace palomir {

// Collects the one completion of an operation; fails when it runs on the
// calling thread, off the given queue, or more than once.
template <class T, class E = Error>
class Awaited {
public:
    explicit Awaited(std::shared_ptr<DispatchQueue> queue) : _queue(std::move(queue)) {}

    Palomir::Completion<T, E> completion() {
        return [this, caller = std::this_thread::get_id()](Result<T, E> result) {
            std::lock_guard lock(_mutex);
            if (std::this_thread::get_id() == caller) _inline = true;
            if (!_queue->isCurrent()) _offQueue = true;
            if (++_calls == 1) {
                _result.emplace(std::move(result));
                _promise.set_value();
            }
        };
    }

    Result<T, E> get(std::chrono::seconds limit = std::chrono::seconds(30)) {
        EXPECT_EQ(_future.wait_for(limit), std::future_status::ready);
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        std::lock_guard lock(_mutex);
        EXPECT_EQ(_calls, 1);
        EXPECT_FALSE(_inline);
        EXPECT_FALSE(_offQueue);
        return *_result;
    }

private:
    std::shared_ptr<DispatchQueue> _queue;
    std::mutex _mutex;
    std::promise<void> _promise;
    std::future<void> _future = _promise.get_future();
    std::optional<Result<T, E>> _result;
    int _calls = 0;
    bool _inline = false;
    bool _offQueue = false;
};

class CapturingLogger : public Logger {
public:
    void log(const std::string& message, LogType type) override {
        std::lock_guard lock(_mutex);
        _lines.emplace_back(message, type);
    }
    // The first line logged at `type` that begins with `start`.
    std::optional<std::string> logged(const std::string& start, LogType type) const {
        std::lock_guard lock(_mutex);
        for (const auto& [line, t] : _lines)
            if (t == type && line.starts_with(start)) return line;
        return std::nullopt;
    }

private:
    mutable std::mutex _mutex;
    std::vector<std::pair<std::string, LogType>> _lines;
};

}  // namespace palomir
