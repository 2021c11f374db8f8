#pragma once

#include <cassert>
#include <type_traits>
#include <utility>
#include <variant>

namespace palomir {

template <class T>
struct Ok {
    T value;
};

template <class E>
struct Err {
    E error;
};

template <class T>
Ok(T) -> Ok<T>;
template <class E>
Err(E) -> Err<E>;

/// The outcome of an operation that can fail: a value of T or an error of E.
/// C++20 has no std::expected, and Clang 14 cannot use libstdc++'s, hence this.
/// Built from Ok{value} or Err{error}, so T and E may be the same type.
template <class T, class E>
class Result {
public:
    template <class U, class = std::enable_if_t<std::is_constructible_v<T, U&&>>>
    Result(Ok<U> ok) : _storage(std::in_place_index<0>, std::move(ok.value)) {}  // NOLINT

    template <class U, class = std::enable_if_t<std::is_constructible_v<E, U&&>>>
    Result(Err<U> err) : _storage(std::in_place_index<1>, std::move(err.error)) {}  // NOLINT

    static Result success(T value) { return Result(Ok<T>{std::move(value)}); }
    static Result failure(E error) { return Result(Err<E>{std::move(error)}); }

    bool hasValue() const noexcept { return _storage.index() == 0; }
    bool hasError() const noexcept { return _storage.index() == 1; }

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

    const T* valueIf() const noexcept { return hasValue() ? &std::get<0>(_storage) : nullptr; }
    const E* errorIf() const noexcept { return hasError() ? &std::get<1>(_storage) : nullptr; }

    template <class F>
    auto map(F&& f) const& -> Result<std::invoke_result_t<F, const T&>, E> {
        if (hasValue()) return Ok{f(value())};
        return Err{error()};
    }

private:
    std::variant<T, E> _storage;
};

}  // namespace palomir
