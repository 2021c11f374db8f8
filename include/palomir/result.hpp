#pragma once

/// @file
/// Results: how every fallible operation reports a value or an error.

#include <cassert>
#include <type_traits>
#include <utility>
#include <variant>

namespace palomir {

/// A successful outcome, converted to any Result whose T it builds.
template <class T>
struct Ok {
    /// The value, moved into the Result.
    T value;
};

/// A failed outcome, converted to any Result whose E it builds.
template <class E>
struct Err {
    /// The error, moved into the Result.
    E error;
};

/// Lets `Ok{value}` name no type.
template <class T>
Ok(T) -> Ok<T>;
/// Lets `Err{error}` name no type.
template <class E>
Err(E) -> Err<E>;

/// The outcome of an operation that can fail: a value of T or an error of E.
/// C++20 has no std::expected, and Clang 14 cannot use libstdc++'s, hence this.
/// Built from Ok{value} or Err{error}, so T and E may be the same type.
template <class T, class E>
class Result {
public:
    /// A success holding the value.
    template <class U, class = std::enable_if_t<std::is_constructible_v<T, U&&>>>
    Result(Ok<U> ok) : _storage(std::in_place_index<0>, std::move(ok.value)) {}  // NOLINT

    /// A failure holding the error.
    template <class U, class = std::enable_if_t<std::is_constructible_v<E, U&&>>>
    Result(Err<U> err) : _storage(std::in_place_index<1>, std::move(err.error)) {}  // NOLINT

    /// A success, for when T and E would make Ok or Err ambiguous to read.
    static Result success(T value) { return Result(Ok<T>{std::move(value)}); }
    /// A failure, likewise.
    static Result failure(E error) { return Result(Err<E>{std::move(error)}); }

    /// Exactly one of hasValue() and hasError() is true.
    bool hasValue() const noexcept { return _storage.index() == 0; }
    /// The opposite of hasValue().
    bool hasError() const noexcept { return _storage.index() == 1; }

    /// @{
    /// The value. Only on a success: calling it on a failure is a bug that
    /// asserts in debug builds and is undefined otherwise; check hasValue() or
    /// use valueIf().
    const T& value() const& {
        assert(hasValue());
        return std::get<0>(_storage);
    }
    T& value() & {
        assert(hasValue());
        return std::get<0>(_storage);
    }
    T&& value() && {
        assert(hasValue());
        return std::get<0>(std::move(_storage));
    }
    /// @}

    /// @{
    /// The error. Only on a failure, as for value().
    const E& error() const& {
        assert(hasError());
        return std::get<1>(_storage);
    }
    E& error() & {
        assert(hasError());
        return std::get<1>(_storage);
    }
    E&& error() && {
        assert(hasError());
        return std::get<1>(std::move(_storage));
    }

    /// @}

    /// The value, or null on a failure; borrowed from the Result.
    const T* valueIf() const noexcept { return hasValue() ? &std::get<0>(_storage) : nullptr; }
    /// The error, or null on a success; borrowed from the Result.
    const E* errorIf() const noexcept { return hasError() ? &std::get<1>(_storage) : nullptr; }

    /// A success with f applied to the value, or the same failure (f is not called).
    template <class F>
    auto map(F&& f) const& -> Result<std::invoke_result_t<F, const T&>, E> {
        if (hasValue()) return Ok{f(value())};
        return Err{error()};
    }

private:
    std::variant<T, E> _storage;
};

}  // namespace palomir
