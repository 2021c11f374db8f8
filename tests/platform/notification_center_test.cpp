#include "palomir/notification_center.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

using namespace palomir;
using namespace std::chrono_literals;

// (Inline observers, each receiving only its own name's posts with their
// object, are proven by the client's integration run.)
TEST(NotificationCenter, AQueuedObserverRunsOnItsQueueNeverInlineAndNotOnceRemoved) {
    NotificationCenter center;
    auto queue = DispatchQueue::makeSerial("test.observer");
    std::promise<void> gate;
    queue->async([opened = gate.get_future().share()] { opened.wait(); });
    std::promise<std::string> onQueue;
    const auto token = center.addObserver("PalomirServicesDidChange", queue, [&](const Notification& n) {
        onQueue.set_value(queue->isCurrent() ? n.name : "elsewhere");
    });
    center.post("PalomirServicesDidChange");
    auto future = onQueue.get_future();
    // The queue is still blocked, so its observer cannot have been called inline.
    EXPECT_EQ(future.wait_for(0s), std::future_status::timeout);
    gate.set_value();
    ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(future.get(), "PalomirServicesDidChange");
    // A second call would set the promise twice, which throws on the queue's
    // worker before the queue gets to the flush.
    center.removeObserver(token);
    center.post("PalomirServicesDidChange");
    std::promise<void> flushed;
    queue->async([&] { flushed.set_value(); });
    flushed.get_future().wait();
}

TEST(NotificationCenter, ObserversMayRemoveThemselvesAndOthersWhileBeingCalled) {
    NotificationCenter center;
    std::vector<std::string> calls;
    NotificationCenter::Token self;
    NotificationCenter::Token victim;
    self = center.addObserver("n", nullptr, [&](const Notification&) {
        calls.push_back("self");
        center.removeObserver(self);
        center.removeObserver(victim);
        center.addObserver("later", nullptr, [](const Notification&) {});
    });
    victim = center.addObserver("n", nullptr, [&](const Notification&) { calls.push_back("victim"); });
    center.post("n");
    center.removeObserver(self);  // a second removal is harmless
    center.post("n");
    // The victim was removed before its turn within the same post.
    EXPECT_EQ(calls, (std::vector<std::string>{"self"}));
}

// Registrations coming and going on other threads disturb no post.
TEST(NotificationCenter, CountsEveryPostFromManyThreads) {
    NotificationCenter center;
    std::atomic<int> ticks{0};
    center.addObserver("tick", nullptr, [&](const Notification&) { ++ticks; });
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                center.post("tick");
                center.removeObserver(center.addObserver("tock", nullptr, [](const Notification&) {}));
            }
        });
    }
    threads.clear();
    EXPECT_EQ(ticks.load(), 8000);
}
