#pragma once

/// @file
/// Who the app and its user are, as every backend request is signed and sent.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "palomir/export.hpp"

namespace palomir {

/// The host app's token and secret: the token names the app in request paths
/// and, with the secret, signs every request. The secret is never sent.
struct AppCredentials {
    /// Names the app; the consumer key of the signature.
    std::string token;
    /// Signs requests; stays on the device.
    std::string secret;

    /// Token and secret equal.
    friend bool operator==(const AppCredentials&, const AppCredentials&) = default;
};

/// The "X-Authorization-User" header value for a token: nothing for an absent
/// or empty token, the token itself when it already starts with "bearer" in
/// any letter case, else "Bearer " + token.
PALOMIR_API std::optional<std::string> normalizedUserAuthHeader(const std::optional<std::string>& token);

/// The source of the signed-in user's "X-Authorization-User" header.
/// Shared as std::shared_ptr<UserCredentials>; null means no user.
class PALOMIR_API UserCredentials {
public:
    /// Receives the header value, or nothing for no user.
    using Completion = std::function<void(std::optional<std::string>)>;

    /// Shared by the client and the requests waiting for an answer.
    virtual ~UserCredentials();

    /// Calls `completion` exactly once, on any thread, possibly later, with
    /// the header value or nothing (the request then goes without the header).
    virtual void authHeader(Completion completion) const = 0;

protected:
    /// For implementations.
    UserCredentials() = default;
    /// Implementations may be copied.
    UserCredentials(const UserCredentials&) = default;
    /// Implementations may be assigned.
    UserCredentials& operator=(const UserCredentials&) = default;
};

/// A fixed token, answered at once.
class PALOMIR_API StaticUserCredentials final : public UserCredentials {
public:
    /// Answers with normalizedUserAuthHeader(token).
    explicit StaticUserCredentials(std::string token) : _token(std::move(token)) {}

    /// The token as given; borrowed from this object.
    const std::string& token() const { return _token; }
    /// Answers inside the call, on the calling thread.
    void authHeader(Completion completion) const override;

    /// Same token.
    friend bool operator==(const StaticUserCredentials& a, const StaticUserCredentials& b) {
        return a._token == b._token;
    }

private:
    std::string _token;
};

/// A token that the host supplies on demand, for instance refreshed per
/// request. The closure gets a callback to call with the token (or nothing),
/// on any thread, whenever it has one. Only its first call counts; later ones
/// are ignored. A closure that never calls back holds up only the request
/// that asked.
class PALOMIR_API ClosureUserCredentials final : public UserCredentials {
public:
    /// What the closure calls with the token, from any thread; only the first call counts.
    using Callback = std::function<void(std::optional<std::string>)>;
    /// Asked once per request, from any thread; it should not block.
    using Closure = std::function<void(Callback)>;

    /// Asks `closure` for every request; its token is normalised as with
    /// normalizedUserAuthHeader().
    explicit ClosureUserCredentials(Closure closure) : _closure(std::move(closure)) {}

    /// The closure as given; borrowed from this object.
    const Closure& closure() const { return _closure; }
    void authHeader(Completion completion) const override;

private:
    Closure _closure;
};

}  // namespace palomir
