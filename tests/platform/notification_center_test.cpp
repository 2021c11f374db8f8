#include "palomir/notification_center.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

using namespace palomir;
using namespace std::chrono_literals;

TEST(NotificationCenter, DeliversToObserversOfEqualNamesInlineOrOnTheirQueueUntilRemoved) {
    NotificationCenter center;
    auto queue = DispatchQueue::makeSerial("test.observer");
    std::promise<void> gate;
    queue->async([opened = gate.get_future().share()] { opened.wait(); });
    std::vector<std::string> received;
    std::promise<std::string> onQueue;
    std::string name = "Palomir";
    name += "ServicesDidChange";  // a different buffer from the posted text
    const auto token = center.addObserver(name, nullptr, [&](const Notification& n) {
        received.push_back(n.name + ":" + std::to_string(std::any_cast<int>(n.object)));
    });
    const auto queued = center.addObserver(name, queue, [&](const Notification& n) {
        onQueue.set_value(queue->isCurrent() ? n.name : "elsewhere");
    });
    center.addObserver("Other", nullptr, [&](const Notification& n) { received.push_back("other " + n.name); });

    const std::string posted = "PalomirServicesDidChange";
    center.post(std::string_view(posted), 7);
    center.post("Unobserved");
    EXPECT_EQ(received, (std::vector<std::string>{"PalomirServicesDidChange:7"}));
    auto future = onQueue.get_future();
    // The queue is still blocked, so its observer cannot have been called inline.
    EXPECT_EQ(future.wait_for(0s), std::future_status::timeout);
    gate.set_value();
    ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(future.get(), posted);

    EXPECT_TRUE(token.valid());
    EXPECT_FALSE(NotificationCenter::Token().valid());
    center.removeObserver(token);
    center.removeObserver(token);  // a second removal is harmless
    center.removeObserver(queued);
    center.post(std::string_view(posted), 8);
    EXPECT_EQ(received.size(), 1u);
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
    center.post("n");
    // The victim was removed before its turn within the same post.
    EXPECT_EQ(calls, (std::vector<std::string>{"self"}));
}

TEST(NotificationCenter, CountsEveryPostFromManyThreads) {
    NotificationCenter center;
    std::atomic<int> first{0};
    std::atomic<int> second{0};
    center.addObserver("tick", nullptr, [&](const Notification&) { ++first; });
    center.addObserver("tick", nullptr, [&](const Notification&) { ++second; });
    std::atomic<int> churn{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                center.post("tick");
                // Registrations coming and going must not disturb the others.
                auto token = center.addObserver("tock", nullptr, [&](const Notification&) { ++churn; });
                center.removeObserver(token);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(first.load(), 8000);
    EXPECT_EQ(second.load(), 8000);
    EXPECT_EQ(churn.load(), 0);
}
