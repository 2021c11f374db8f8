#include "palomir/credentials.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace palomir {
namespace {

// The header a credentials object answers with, failing unless it answers at once.
std::optional<std::string> answerOf(UserCredentials& credentials) {
    std::optional<std::optional<std::string>> answer;
    credentials.authHeader([&](std::optional<std::string> value) { answer = value; });
    EXPECT_TRUE(answer) << "no answer at once";
    return answer.value_or(std::nullopt);
}

TEST(UserTokenNormalisation, StaticAndClosureAgree) {
    // Kept as given: any letter case, with or without a blank after the word.
    // Prefixed: a shorter word, or one after a blank.
    const std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> cases = {
        {"abc", "Bearer abc"},        {"", std::nullopt},          {std::nullopt, std::nullopt},
        {"BEARER abc", "BEARER abc"}, {"bEaReRabc", "bEaReRabc"},  {"bear", "Bearer bear"},
        {" bearer x", "Bearer  bearer x"}};
    for (const auto& [given, header] : cases) {
        const std::optional<std::string> token = given;  // a lambda cannot capture a structured binding here
        SCOPED_TRACE(token.value_or("(none)"));
        ClosureUserCredentials closure([token](ClosureUserCredentials::Callback callback) { callback(token); });
        EXPECT_EQ(answerOf(closure), header);
        if (token) {
            StaticUserCredentials fixed(*token);
            EXPECT_EQ(answerOf(fixed), header);
        }
    }
}

// Only the first answer of a request counts, even from copies racing on
// several threads; each request has its own callback, so one left unanswered
// holds up no other, and is freed with the callback once nobody keeps it.
TEST(ClosureUserCredentials, EachRequestIsAnsweredOnceWheneverItsAnswerComes) {
    std::vector<std::optional<std::string>> answers;
    ClosureUserCredentials repeating([](ClosureUserCredentials::Callback callback) {
        auto copy = callback;
        callback("first");
        copy("second");
        callback(std::nullopt);
    });
    repeating.authHeader([&](std::optional<std::string> value) { answers.push_back(value); });
    EXPECT_EQ(answers, std::vector<std::optional<std::string>>{"Bearer first"});

    std::atomic<int> completions{0};
    std::vector<std::thread> threads;
    ClosureUserCredentials racing([&](ClosureUserCredentials::Callback callback) {
        for (int i = 0; i < 8; ++i) threads.emplace_back([callback] { callback("t"); });
    });
    racing.authHeader([&](std::optional<std::string>) { ++completions; });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(completions.load(), 1);

    std::vector<ClosureUserCredentials::Callback> pending;
    ClosureUserCredentials holding([&](ClosureUserCredentials::Callback callback) {
        if (pending.size() < 2) return pending.push_back(callback);
        callback("third");
    });
    auto held = std::make_shared<int>(0);
    bool firstAnswered = false;
    holding.authHeader([&firstAnswered, held](std::optional<std::string>) { firstAnswered = true; });
    std::optional<std::string> second, third;
    holding.authHeader([&](std::optional<std::string> v) { second = v; });
    holding.authHeader([&](std::optional<std::string> v) { third = v; });
    EXPECT_EQ(third, "Bearer third");
    EXPECT_EQ(second, std::nullopt);
    std::thread([&] { pending[1]("late"); }).join();
    EXPECT_EQ(second, "Bearer late");
    EXPECT_FALSE(firstAnswered);
    pending.clear();
    EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace palomir
