#include "palomir/credentials.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace palomir {
namespace {

struct NormaliseCase {
    std::optional<std::string> token;
    std::optional<std::string> header;
};

class UserTokenNormalisation : public ::testing::TestWithParam<NormaliseCase> {};

TEST_P(UserTokenNormalisation, StaticAndClosureAgree) {
    const auto& c = GetParam();
    EXPECT_EQ(normalizedUserAuthHeader(c.token), c.header);

    if (c.token) {
        std::optional<std::optional<std::string>> answer;
        StaticUserCredentials(*c.token).authHeader([&](std::optional<std::string> value) { answer = value; });
        ASSERT_TRUE(answer) << "a static token answers at once";
        EXPECT_EQ(*answer, c.header);
    }

    std::optional<std::optional<std::string>> answer;
    ClosureUserCredentials([&](ClosureUserCredentials::Callback callback) { callback(c.token); })
        .authHeader([&](std::optional<std::string> value) { answer = value; });
    ASSERT_TRUE(answer);
    EXPECT_EQ(*answer, c.header);
}

INSTANTIATE_TEST_SUITE_P(
    Table, UserTokenNormalisation,
    ::testing::Values(NormaliseCase{"abc", "Bearer abc"}, NormaliseCase{"", std::nullopt},
                      NormaliseCase{std::nullopt, std::nullopt}, NormaliseCase{"Bearer abc", "Bearer abc"},
                      NormaliseCase{"bearer abc", "bearer abc"}, NormaliseCase{"BEARER abc", "BEARER abc"},
                      NormaliseCase{"bEaReRabc", "bEaReRabc"}, NormaliseCase{"bearer", "bearer"},
                      NormaliseCase{"bear", "Bearer bear"}, NormaliseCase{" bearer x", "Bearer  bearer x"},
                      NormaliseCase{"Basic xyz", "Bearer Basic xyz"}));

TEST(ClosureUserCredentials, OnlyTheFirstAnswerIsPassedOn) {
    std::vector<std::optional<std::string>> answers;
    ClosureUserCredentials credentials([](ClosureUserCredentials::Callback callback) {
        auto copy = callback;
        callback("first");
        copy("second");
        callback(std::nullopt);
    });
    credentials.authHeader([&](std::optional<std::string> value) { answers.push_back(value); });
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0], "Bearer first");

    // Each request gets its own once-only callback.
    credentials.authHeader([&](std::optional<std::string> value) { answers.push_back(value); });
    EXPECT_EQ(answers.size(), 2u);
}

TEST(ClosureUserCredentials, RacingCopiesCompleteExactlyOnce) {
    std::atomic<int> completions{0};
    std::vector<std::thread> threads;
    ClosureUserCredentials credentials([&](ClosureUserCredentials::Callback callback) {
        for (int i = 0; i < 8; ++i) threads.emplace_back([callback] { callback("t"); });
    });
    credentials.authHeader([&](std::optional<std::string>) { ++completions; });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(completions.load(), 1);
}

TEST(ClosureUserCredentials, ANeverAnsweringClosureHoldsUpOnlyItsOwnRequest) {
    std::vector<ClosureUserCredentials::Callback> pending;
    ClosureUserCredentials credentials([&](ClosureUserCredentials::Callback callback) {
        if (pending.size() < 2) {
            pending.push_back(callback);
            return;
        }
        callback("third");
    });
    auto held = std::make_shared<int>(0);
    bool firstAnswered = false;
    credentials.authHeader([&firstAnswered, held](std::optional<std::string>) { firstAnswered = true; });
    std::optional<std::string> second;
    credentials.authHeader([&](std::optional<std::string> v) { second = v; });
    std::optional<std::string> third;
    credentials.authHeader([&](std::optional<std::string> v) { third = v; });
    EXPECT_EQ(third, "Bearer third");

    // The second answer arrives later, on another thread.
    EXPECT_EQ(second, std::nullopt);
    std::thread([&] { pending[1]("late"); }).join();
    EXPECT_EQ(second, "Bearer late");

    // The unanswered completion goes together with the callback once nobody keeps it.
    EXPECT_FALSE(firstAnswered);
    pending.clear();
    EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace palomir
