#pragma once

#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "mirels/errors/Error.h"

namespace mirels {

/// A success-or-failure value: a `T`, or the `Error` that kept it from being made.
template <class T>
class Result {
  public:
    using Value = T;

    Result(T value) : storage_(std::in_place_index<0>, std::move(value)) {}      // NOLINT
    Result(Error error) : storage_(std::in_place_index<1>, std::move(error)) {}  // NOLINT

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
class Result<void> {
  public:
    using Value = void;

    Result() noexcept = default;
    Result(Error error) : error_(std::move(error)) {}  // NOLINT

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
