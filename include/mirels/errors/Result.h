#pragma once

// `Result`: a success-or-failure value.

#include <exception>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "mirels/errors/Error.h"

namespace mirels {

namespace detail {
/// What a result takes as its failure: an `Error`, or an exception object.
template <class E>
concept IsResultError = std::is_same_v<std::remove_cvref_t<E>, Error> ||
                        std::is_base_of_v<std::exception, std::remove_cvref_t<E>>;
}  // namespace detail

/// A success-or-failure value: a `T`, or the `Error` that kept it from being made.
template <class T>
class [[nodiscard]] Result {
  public:
    using Value = T;

    Result(T value) : storage_(std::in_place_index<0>, std::move(value)) {}  // NOLINT
    /// A failure with `error`: an `Error`, or an exception object, which becomes one.
    ///
    /// Deliberately not "anything an `Error` can be made from" (which is any copyable object):
    /// asking that of a type whose copy constructor is still being worked out (this result
    /// itself, or a type holding one) would make the question depend on its own answer.
    template <class E>
        requires detail::IsResultError<E>
    Result(E&& error)  // NOLINT
        : storage_(std::in_place_index<1>, Error(std::forward<E>(error))) {}

    static Result success(T value) { return Result(std::move(value)); }
    static Result failure(Error error) { return Result(std::move(error)); }

    /// Runs `body`; its value, or the error it threw.
    template <class F>
        requires std::is_invocable_r_v<T, F&&>
    static Result catching(F&& body) noexcept {
        try {
            return Result(std::forward<F>(body)());
        } catch (...) {
            return Result(Error::current());
        }
    }

    bool isSuccess() const noexcept { return storage_.index() == 0; }
    bool isFailure() const noexcept { return storage_.index() == 1; }

    const T* successValue() const noexcept { return std::get_if<0>(&storage_); }
    T* successValue() noexcept { return std::get_if<0>(&storage_); }
    const Error* failureError() const noexcept { return std::get_if<1>(&storage_); }

    /// The value, or the error thrown.
    const T& get() const& {
        if (isFailure()) std::get<1>(storage_).rethrow();
        return std::get<0>(storage_);
    }
    T get() && {
        if (isFailure()) std::get<1>(storage_).rethrow();
        return std::move(std::get<0>(storage_));
    }

    friend bool operator==(const Result&, const Result&) = default;

  private:
    std::variant<T, Error> storage_;
};

/// The success-or-failure of an operation that gives no value.
template <>
class [[nodiscard]] Result<void> {
  public:
    using Value = void;

    Result() noexcept = default;
    template <class E>
        requires detail::IsResultError<E>
    Result(E&& error)  // NOLINT
        : error_(Error(std::forward<E>(error))) {}

    static Result success() noexcept { return Result(); }
    static Result failure(Error error) { return Result(std::move(error)); }

    template <class F>
        requires std::is_invocable_v<F&&>
    static Result catching(F&& body) noexcept {
        try {
            std::forward<F>(body)();
            return Result();
        } catch (...) {
            return Result(Error::current());
        }
    }

    bool isSuccess() const noexcept { return !error_.has_value(); }
    bool isFailure() const noexcept { return error_.has_value(); }
    const Error* failureError() const noexcept { return error_ ? &*error_ : nullptr; }

    void get() const {
        if (error_) error_->rethrow();
    }

    friend bool operator==(const Result&, const Result&) = default;

  private:
    std::optional<Error> error_;
};

}  // namespace mirels
