#include "palomir/credentials.hpp"

#include <atomic>

namespace palomir {

std::optional<std::string> normalizedUserAuthHeader(const std::optional<std::string>& token) {
    if (!token || token->empty()) return std::nullopt;
    constexpr std::string_view bearer = "bearer";
    bool hasPrefix = token->size() >= bearer.size();
    for (size_t i = 0; hasPrefix && i < bearer.size(); ++i) {
        char c = (*token)[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        hasPrefix = c == bearer[i];
    }
    if (hasPrefix) return token;
    return "Bearer " + *token;
}

UserCredentials::~UserCredentials() = default;

void StaticUserCredentials::authHeader(Completion completion) const {
    if (completion) completion(normalizedUserAuthHeader(_token));
}

namespace {

// Shared by every copy of the callback handed to the host's closure, so that
// whichever copy answers first wins and the completion (with whatever it
// holds on to) is released right after.
struct OnceState {
    std::atomic<bool> answered{false};
    UserCredentials::Completion completion;
};

}  // namespace

void ClosureUserCredentials::authHeader(Completion completion) const {
    auto state = std::make_shared<OnceState>();
    state->completion = std::move(completion);
    if (!_closure) {
        if (state->completion) state->completion(std::nullopt);
        return;
    }
    _closure([state](std::optional<std::string> token) {
        if (state->answered.exchange(true)) return;
        auto completion = std::move(state->completion);
        state->completion = nullptr;
        if (completion) completion(normalizedUserAuthHeader(token));
    });
}

}  // namespace palomir
