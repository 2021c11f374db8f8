#include "palomir/credentials.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace palomir {
namespace {

TEST(UserTokenNormalisation, StaticAndClosureAgree) {
    const std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> cases = {
        {"abc", "Bearer abc"},        {"", std::nullopt},         {std::nullopt, std::nullopt},
        {"Bearer abc", "Bearer abc"}, {"bearer abc", "bearer abc"}, {"BEARER abc", "BEARER abc"},
        {"bEaReRabc", "bEaReRabc"},   {"bearer", "bearer"},         {"bear", "Bearer bear"},
        {" bearer x", "Bearer  bearer x"}, {"Basic xyz", "Bearer Basic xyz"}};
    for (const auto& [given, header] : cases) {
        const std::optional<std::string> token = given;  // a lambda cannot capture a structured binding here
        SCOPED_TRACE(token.value_or("(none)"));
        EXPECT_EQ(normalizedUserAuthHeader(token), header);
        if (token) {
            std::optional<std::optional<std::string>> answer;
            StaticUserCredentials(*token).authHeader([&](std::optional<std::string> value) { answer = value; });
            ASSERT_TRUE(answer) << "a static token answers at once";
            EXPECT_EQ(*answer, header);
        }
        std::optional<std::optional<std::string>> answer;
        ClosureUserCredentials([&](ClosureUserCredentials::Callback callback) { callback(token); })
            .authHeader([&](std::optional<std::string> value) { answer = value; });
        ASSERT_TRUE(answer);
        EXPECT_EQ(*answer, header);
    }
}

TEST(ClosureUserCredentials, OnlyTheFirstAnswerIsPassedOnEvenFromRacingCopies) {
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

    // Copies racing on several threads still complete once.
    std::atomic<int> completions{0};
    std::vector<std::thread> threads;
    ClosureUserCredentials racing([&](ClosureUserCredentials::Callback callback) {
        for (int i = 0; i < 8; ++i) threads.emplace_back([callback] { callback("t"); });
    });
    racing.authHeader([&](std::optional<std::string>) { ++completions; });
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
