#include "palomir/dispatch.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

using namespace palomir;
using namespace std::chrono_literals;

// (runUntil and an unbound main queue waiting for its drain are proven by
// the C facade's runs; completions on the queues they name by the soak.)

// Items from several threads run one at a time, each thread's in order, with
// their own queue current and no other; an item posted from the queue itself
// runs after the one that posted it. The group waits for all of it.
TEST(SerialQueue, RunsWorkOneAtATimeInSubmissionOrderOfEachThreadAndTheGroupWaitsForIt) {
    auto queue = DispatchQueue::makeSerial("test.fifo");
    auto other = DispatchQueue::makeSerial("test.other");
    constexpr int kThreads = 4, kItems = 500;
    // Only the worker touches lastSeen and events, so no lock is needed
    // unless the queue runs items concurrently.
    std::vector<int> lastSeen(kThreads, -1);
    std::vector<std::string> events;
    std::atomic<int> inFlight{0};
    std::atomic<bool> disorder{false};
    DispatchGroup group;
    group.enter();
    queue->async([&] {
        queue->async([&] {
            events.push_back("inner");
            group.leave();
        });
        events.push_back("outer ends");
    });
    std::vector<std::jthread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < kItems; ++i) {
                group.enter();
                queue->async([&, t, i] {
                    if (inFlight++ != 0 || lastSeen[t] != i - 1 || !queue->isCurrent() || other->isCurrent())
                        disorder = true;
                    lastSeen[t] = i;
                    --inFlight;
                    group.leave();
                });
            }
        });
    }
    producers.clear();
    ASSERT_TRUE(group.waitFor(10s));
    EXPECT_FALSE(disorder);
    EXPECT_EQ(events, (std::vector<std::string>{"outer ends", "inner"}));
}

TEST(SerialQueue, ADroppedQueueRunsItsPendingWorkAndWorkHoldingItReleasesItOnItsOwnWorker) {
    auto queue = DispatchQueue::makeSerial("test.dropped");
    std::weak_ptr<DispatchQueue> weak = queue;
    std::atomic<int> count{0};
    std::promise<void> gate;
    queue->async([opened = gate.get_future().share()] { opened.wait(); });
    for (int i = 0; i < 100; ++i) queue->async([&] { ++count; });
    // The last item holds the queue: a self-join there would abort, a leak
    // would keep the queue alive.
    queue->async([self = queue] {});
    queue.reset();
    EXPECT_FALSE(weak.expired());
    gate.set_value();
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (!weak.expired() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(count.load(), 100);
}

TEST(MainQueue, NeverRunsInlineDrainsOnlyWhatIsPendingAndHandsItToABoundPoster) {
    auto main = MainQueue::shared();
    std::vector<int> order;
    main->async([&] {
        order.push_back(main->isCurrent() ? 1 : -1);
        main->async([&] { order.push_back(3); });
    });
    main->async([&] { order.push_back(2); });
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(main->drain(), 2u);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));

    // The item queued while draining is still pending: a poster bound now
    // receives it, and every later one.
    std::vector<DispatchQueue::Work> posted;
    main->bind([&](DispatchQueue::Work work) { posted.push_back(std::move(work)); });
    main->async([&] { order.push_back(main->isCurrent() ? 4 : -4); });
    EXPECT_EQ(main->drain(), 0u);
    ASSERT_EQ(posted.size(), 2u);
    for (auto& work : posted) work();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
    main->bind({});
}

TEST(DispatchGroup, NotifiesOnItsQueueOnceEveryPieceHasLeftAndNeverInline) {
    auto queue = DispatchQueue::makeSerial("test.group");
    DispatchGroup group;
    group.enter();
    std::promise<bool> notified;
    group.notify(queue, [&] { notified.set_value(queue->isCurrent()); });
    auto future = notified.get_future();
    EXPECT_FALSE(group.waitFor(20ms));
    EXPECT_EQ(future.wait_for(0s), std::future_status::timeout);
    group.leave();
    ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(future.get());

    // With nothing outstanding the work is still delivered asynchronously.
    auto main = MainQueue::shared();
    bool ran = false;
    group.notify(main, [&] { ran = true; });
    EXPECT_FALSE(ran);
    EXPECT_EQ(main->drain(), 1u);
    EXPECT_TRUE(ran);
}
