#include "palomir/dispatch.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

using namespace palomir;
using namespace std::chrono_literals;

namespace {

template <class T>
bool ready(std::future<T>& future) {
    return future.wait_for(5s) == std::future_status::ready;
}

}  // namespace

TEST(SerialQueue, RunsWorkOneAtATimeInSubmissionOrderOfEachThread) {
    auto queue = DispatchQueue::makeSerial("test.fifo");
    constexpr int kThreads = 4;
    constexpr int kItems = 500;
    std::vector<int> lastSeen(kThreads, -1);
    std::atomic<int> inFlight{0};
    std::atomic<bool> overlapped{false};
    std::atomic<bool> outOfOrder{false};
    DispatchGroup group;
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < kItems; ++i) {
                group.enter();
                queue->async([&, t, i] {
                    if (inFlight.fetch_add(1) != 0) overlapped = true;
                    // Only the worker touches lastSeen, so no lock is needed
                    // unless the queue runs items concurrently.
                    if (lastSeen[t] != i - 1) outOfOrder = true;
                    lastSeen[t] = i;
                    inFlight.fetch_sub(1);
                    group.leave();
                });
            }
        });
    }
    for (auto& producer : producers) producer.join();
    ASSERT_TRUE(group.waitFor(10s));
    EXPECT_FALSE(overlapped);
    EXPECT_FALSE(outOfOrder);
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(lastSeen[t], kItems - 1);
}

TEST(SerialQueue, WorkPostedFromTheQueueItselfRunsLaterAndOnlyItsOwnQueueIsCurrent) {
    auto queue = DispatchQueue::makeSerial("test.reentrant");
    auto other = DispatchQueue::makeSerial("test.other");
    EXPECT_FALSE(queue->isCurrent());
    EXPECT_EQ(queue->label(), "test.reentrant");
    std::promise<std::vector<std::string>> promise;
    auto events = std::make_shared<std::vector<std::string>>();
    queue->async([&, events] {
        events->push_back(queue->isCurrent() && !other->isCurrent() ? "outer begins" : "outer elsewhere");
        queue->async([&, events] {
            events->push_back("inner");
            promise.set_value(*events);
        });
        events->push_back("outer ends");
    });
    auto future = promise.get_future();
    ASSERT_TRUE(ready(future));
    EXPECT_EQ(future.get(), (std::vector<std::string>{"outer begins", "outer ends", "inner"}));
}

TEST(SerialQueue, ADroppedQueueRunsItsPendingWorkAndWorkHoldingItReleasesItOnItsOwnWorker) {
    auto queue = DispatchQueue::makeSerial("test.dropped");
    std::weak_ptr<DispatchQueue> weak = queue;
    std::atomic<int> count{0};
    std::promise<void> gate;
    std::promise<void> finished;
    queue->async([opened = gate.get_future().share()] { opened.wait(); });
    for (int i = 0; i < 100; ++i) queue->async([&] { ++count; });
    queue->async([&] { finished.set_value(); });
    queue.reset();
    EXPECT_TRUE(weak.expired());
    gate.set_value();
    auto future = finished.get_future();
    ASSERT_TRUE(ready(future));
    EXPECT_EQ(count.load(), 100);

    // A self-join there would abort, a leak would keep the queue alive.
    queue = DispatchQueue::makeSerial("test.self");
    weak = queue;
    queue->async([self = queue] {});
    queue.reset();
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (!weak.expired() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(weak.expired());
}

TEST(MainQueue, AsyncNeverRunsInlineAndDrainRunsOnlyWhatIsPending) {
    auto main = MainQueue::shared();
    EXPECT_EQ(mainQueue(), std::static_pointer_cast<DispatchQueue>(main));
    std::vector<int> order;
    bool currentInside = false;
    main->async([&] {
        order.push_back(1);
        currentInside = main->isCurrent();
        main->async([&] { order.push_back(3); });
    });
    main->async([&] { order.push_back(2); });
    EXPECT_TRUE(order.empty());
    EXPECT_FALSE(main->isCurrent());
    EXPECT_EQ(main->drain(), 2u);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_TRUE(currentInside);
    EXPECT_EQ(main->drain(), 1u);
    EXPECT_EQ(main->drain(), 0u);

    // runUntil drains what other threads post, and gives up at its deadline.
    bool done = false;
    std::thread poster([&] {
        std::this_thread::sleep_for(20ms);
        main->async([&] { done = main->isCurrent(); });
    });
    EXPECT_TRUE(main->runUntil([&] { return done; }, 5s));
    poster.join();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(main->runUntil([] { return false; }, 30ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
}

TEST(MainQueue, BindHandsPendingAndLaterWorkToThePoster) {
    auto main = MainQueue::shared();
    std::vector<int> order;
    main->async([&] { order.push_back(1); });
    std::vector<DispatchQueue::Work> posted;
    main->bind([&](DispatchQueue::Work work) { posted.push_back(std::move(work)); });
    ASSERT_EQ(posted.size(), 1u);
    main->async([&] { order.push_back(main->isCurrent() ? 2 : -2); });
    ASSERT_EQ(posted.size(), 2u);
    EXPECT_EQ(main->drain(), 0u);
    EXPECT_TRUE(order.empty());
    for (auto& work : posted) work();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));

    main->bind({});
    main->async([&] { order.push_back(3); });
    EXPECT_EQ(posted.size(), 2u);
    EXPECT_EQ(main->drain(), 1u);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(DispatchGroup, WaitsForEveryEnteredPieceOfWorkThenNotifiesOnTheQueue) {
    auto first = DispatchQueue::makeSerial("test.group.1");
    auto second = DispatchQueue::makeSerial("test.group.2");
    DispatchGroup group;
    EXPECT_TRUE(group.waitFor(0ms));
    std::atomic<int> finished{0};
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    for (int i = 0; i < 8; ++i) {
        group.enter();
        (i % 2 ? first : second)->async([&, opened] {
            opened.wait();
            ++finished;
            group.leave();
        });
    }
    std::promise<int> notified;
    group.notify(first, [&] { notified.set_value(first->isCurrent() ? finished.load() : -1); });
    EXPECT_FALSE(group.waitFor(20ms));
    gate.set_value();
    group.wait();
    EXPECT_EQ(finished.load(), 8);
    auto future = notified.get_future();
    ASSERT_TRUE(ready(future));
    EXPECT_EQ(future.get(), 8);

    // With nothing outstanding the work is still delivered asynchronously.
    auto main = MainQueue::shared();
    bool ran = false;
    group.notify(main, [&] { ran = true; });
    EXPECT_FALSE(ran);
    EXPECT_EQ(main->drain(), 1u);
    EXPECT_TRUE(ran);
}
