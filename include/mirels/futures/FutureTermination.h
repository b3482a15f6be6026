#pragma once

// `FutureTermination`: how a future ended. Also `FutureCanceled`, `FutureValue`, `FutureState`.

#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/TypeName.h"
#include "mirels/errors/Error.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/errors/Result.h"

namespace mirels {

/// What a canceled future reports to observers that expect a success-or-failure result: the
/// operation was canceled, from `callsite`.
class MIRELS_EXPORT FutureCanceled final : public HumanReadableError {
  public:
    explicit FutureCanceled(Callsite callsite) noexcept : callsite_(callsite) {}

    /// Where the cancel was requested.
    Callsite callsite() const noexcept { return callsite_; }

    /// "the operation was canceled"
    std::optional<std::string> lowValueTitle() const override;
    /// Absent.
    std::optional<std::string> additionalInfo() const override;
    /// "cancelation callsite: " and the call site's description.
    std::optional<std::string> additionalDiagnostics() const override;

  private:
    Callsite callsite_;
};

/// The value a future of `T` hands out: `T` itself, or an empty placeholder for a future of
/// nothing, so that "the succeeded value" has a type for every future.
template <class T>
using FutureValue = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

template <class T>
class FutureTermination;

namespace detail {

template <class T>
struct IsResult : std::false_type {};
template <class T>
struct IsResult<Result<T>> : std::true_type {};

/// A `Result<T>` holding the success value `value` (nothing for a future of nothing).
template <class T>
Result<T> successResult(FutureValue<T> value) {
    if constexpr (std::is_void_v<T>) {
        return Result<void>();
    } else {
        return Result<T>(std::move(value));
    }
}

/// Calls `f` with the success value of `result` (with nothing for `Result<void>`).
template <class T, class F>
decltype(auto) invokeWithSuccess(F& f, const Result<T>& result) {
    if constexpr (std::is_void_v<T>) {
        return f();
    } else {
        return f(*result.successValue());
    }
}

/// What `f` gives for a success value of `T`.
template <class F, class T>
struct SuccessInvokeResult {
    using type = std::invoke_result_t<F&, const T&>;
};
template <class F>
struct SuccessInvokeResult<F, void> {
    using type = std::invoke_result_t<F&>;
};
template <class F, class T>
using SuccessInvokeResultType = typename SuccessInvokeResult<F, T>::type;

/// `f` can be called with a success value of `T` (with nothing when `T` is void).
template <class F, class T>
concept SuccessCallable = (std::is_void_v<T> && std::is_invocable_v<F&>) ||
                          (!std::is_void_v<T> && std::is_invocable_v<F&, const FutureValue<T>&>);

/// `f` maps a result of `T` to a result of some type.
template <class F, class T>
concept ResultMapping =
    std::is_invocable_v<F&&, const Result<T>&> &&
    IsResult<std::remove_cvref_t<std::invoke_result_t<F&&, const Result<T>&>>>::value;

/// Runs `f` on the success value of `result` and wraps what it gives (or throws) in a result;
/// a failure passes through.
template <class Out, class In, class F>
Result<Out> mapSuccessResult(F& f, const Result<In>& result) {
    if (const Error* error = result.failureError()) return Result<Out>(*error);
    try {
        if constexpr (std::is_void_v<Out>) {
            invokeWithSuccess<In>(f, result);
            return Result<void>();
        } else {
            return Result<Out>(invokeWithSuccess<In>(f, result));
        }
    } catch (...) {
        return Result<Out>(Error::current());
    }
}

}  // namespace detail

/// How a future ended: succeeded with a value, failed with an error, or canceled from a call
/// site.
///
/// A value type. Its description names the case only ("succeeded<int>", "failed", "canceled"),
/// never the value or the error.
template <class T>
class FutureTermination {
  public:
    using Value = T;
    /// The error that a canceled termination becomes in a result.
    using FutureCanceled = mirels::FutureCanceled;

    static FutureTermination succeeded(FutureValue<T> value)
        requires(!std::is_void_v<T>)
    {
        return FutureTermination(InPlace{}, std::move(value));
    }
    static FutureTermination succeeded()
        requires std::is_void_v<T>
    {
        return FutureTermination(InPlace{});
    }
    static FutureTermination failed(Error error) {
        return FutureTermination(InPlace{}, std::move(error));
    }
    static FutureTermination canceled(Callsite callsite) noexcept {
        return FutureTermination(callsite);
    }
    /// Succeeded or failed as `result` says.
    static FutureTermination completed(Result<T> result) {
        return FutureTermination(InPlace{}, std::move(result));
    }

    /// Succeeded or failed.
    bool isCompleted() const noexcept { return !canceled_; }
    bool isSucceeded() const noexcept { return !canceled_ && result_.isSuccess(); }
    bool isFailed() const noexcept { return !canceled_ && result_.isFailure(); }
    bool isCanceled() const noexcept { return canceled_; }

    /// The success-or-failure result, without copying it; null when canceled.
    const Result<T>* resultIfCompleted() const noexcept { return canceled_ ? nullptr : &result_; }

    /// The cancel call site when canceled.
    [[nodiscard]] std::optional<Callsite> canceledCallsite() const noexcept {
        if (canceled_) return callsite_;
        return std::nullopt;
    }

    /// The value when succeeded.
    [[nodiscard]] std::optional<FutureValue<T>> succeededValue() const {
        const Result<T>* result = resultIfCompleted();
        if (result == nullptr || result->isFailure()) return std::nullopt;
        if constexpr (std::is_void_v<T>) {
            return std::monostate{};
        } else {
            return *result->successValue();
        }
    }

    /// The error when failed.
    [[nodiscard]] std::optional<Error> failedError() const {
        const Result<T>* result = resultIfCompleted();
        if (result == nullptr || result->isSuccess()) return std::nullopt;
        return *result->failureError();
    }

    /// The success-or-failure result; absent when canceled.
    [[nodiscard]] std::optional<Result<T>> completedResult() const {
        if (const Result<T>* result = resultIfCompleted()) return *result;
        return std::nullopt;
    }

    /// The success-or-failure result, in which canceled becomes a failure with `FutureCanceled`.
    [[nodiscard]] Result<T> result() const {
        if (const Result<T>* completed = resultIfCompleted()) return *completed;
        return Result<T>(Error(FutureCanceled(callsite_)));
    }

    /// The success-or-failure result, in which `mapCancelation` turns the cancel call site into
    /// a result.
    template <class F>
        requires std::is_invocable_r_v<Result<T>, F&&, Callsite>
    [[nodiscard]] Result<T> resultMappingCancelation(F&& mapCancelation) const {
        if (const Result<T>* completed = resultIfCompleted()) return *completed;
        return std::forward<F>(mapCancelation)(callsite_);
    }

    /// Maps the completed result with `transform` (a result of `T` to a result of another
    /// type); canceled passes through with its call site.
    template <class F>
        requires detail::ResultMapping<F, T>
    auto map(F&& transform) const {
        using Out =
            typename std::remove_cvref_t<std::invoke_result_t<F&&, const Result<T>&>>::Value;
        if (const Result<T>* completed = resultIfCompleted()) {
            return FutureTermination<Out>::completed(std::forward<F>(transform)(*completed));
        }
        return FutureTermination<Out>::canceled(callsite_);
    }

    /// Maps the succeeded value with `transform`; failed and canceled pass through. A throwing
    /// transform gives a failed termination.
    template <class F>
        requires detail::SuccessCallable<F, T>
    auto mapSuccess(F&& transform) const {
        using Out = detail::SuccessInvokeResultType<F, T>;
        if (const Result<T>* completed = resultIfCompleted()) {
            return FutureTermination<Out>::completed(
                detail::mapSuccessResult<Out, T>(transform, *completed));
        }
        return FutureTermination<Out>::canceled(callsite_);
    }

    /// "succeeded<" and the unqualified name of `T` and ">", or "failed", or "canceled".
    std::string description() const {
        if (isCanceled()) return "canceled";
        if (isFailed()) return "failed";
        return "succeeded<" + unqualifiedTypeName<T>() + ">";
    }

    FutureTermination(const FutureTermination& other) : canceled_(other.canceled_) {
        if (canceled_) {
            ::new (static_cast<void*>(&callsite_)) Callsite(other.callsite_);
        } else {
            ::new (static_cast<void*>(&result_)) Result<T>(other.result_);
        }
    }
    FutureTermination(FutureTermination&& other) noexcept(
        std::is_nothrow_move_constructible_v<Result<T>>)
        : canceled_(other.canceled_) {
        if (canceled_) {
            ::new (static_cast<void*>(&callsite_)) Callsite(other.callsite_);
        } else {
            ::new (static_cast<void*>(&result_)) Result<T>(std::move(other.result_));
        }
    }
    FutureTermination& operator=(const FutureTermination& other) {
        if (this != &other) {
            FutureTermination copy(other);
            destroy();
            ::new (static_cast<void*>(this)) FutureTermination(std::move(copy));
        }
        return *this;
    }
    FutureTermination& operator=(FutureTermination&& other) noexcept(
        std::is_nothrow_move_constructible_v<Result<T>>) {
        if (this != &other) {
            destroy();
            ::new (static_cast<void*>(this)) FutureTermination(std::move(other));
        }
        return *this;
    }
    ~FutureTermination() { destroy(); }

    friend bool operator==(const FutureTermination& a, const FutureTermination& b) {
        if (a.canceled_ != b.canceled_) return false;
        return a.canceled_ ? a.callsite_ == b.callsite_ : a.result_ == b.result_;
    }

  private:
    struct InPlace {};
    /// Completed, with the result built in place from `args` (no temporary result to destroy).
    template <class... Args>
    explicit FutureTermination(InPlace /*unused*/, Args&&... args)
        : result_(std::forward<Args>(args)...), canceled_(false) {}
    explicit FutureTermination(Callsite callsite) noexcept : callsite_(callsite), canceled_(true) {}

    void destroy() noexcept {
        if (!canceled_) result_.~Result<T>();
    }

    // A hand-made two-case union: cheaper to compile than a variant, and a future's termination
    // is built for every value type a program uses.
    union {
        Result<T> result_;
        Callsite callsite_;
    };
    bool canceled_;
};

/// Streams `description()`: the case and, when succeeded, the value type.
template <class T>
std::ostream& operator<<(std::ostream& stream, const FutureTermination<T>& value) {
    return stream << value.description();
}

/// Where a future stands: running, or finished with a termination. A snapshot: it may be out of
/// date as soon as it is read.
template <class T>
class FutureState {
  public:
    using Value = T;

    static FutureState running() noexcept { return FutureState(); }
    static FutureState finished(FutureTermination<T> termination) {
        return FutureState(std::move(termination));
    }

    bool isRunning() const noexcept { return !termination_.has_value(); }
    bool isCanceled() const noexcept { return termination_ && termination_->isCanceled(); }

    /// The termination when finished.
    const std::optional<FutureTermination<T>>& termination() const noexcept { return termination_; }

    [[nodiscard]] std::optional<FutureValue<T>> succeededValue() const {
        return termination_ ? termination_->succeededValue() : std::nullopt;
    }
    [[nodiscard]] std::optional<Error> failedError() const {
        return termination_ ? termination_->failedError() : std::nullopt;
    }
    [[nodiscard]] std::optional<Result<T>> completedResult() const {
        return termination_ ? termination_->completedResult() : std::nullopt;
    }

    /// Maps the completed result of a finished state (see `FutureTermination::map`); running
    /// stays running.
    template <class F>
        requires detail::ResultMapping<F, T>
    auto map(F&& transform) const {
        using Out =
            typename std::remove_cvref_t<std::invoke_result_t<F&&, const Result<T>&>>::Value;
        if (!termination_) return FutureState<Out>::running();
        return FutureState<Out>::finished(termination_->map(std::forward<F>(transform)));
    }

    /// "running", or the termination's description.
    std::string description() const {
        return termination_ ? termination_->description() : std::string("running");
    }

    friend bool operator==(const FutureState&, const FutureState&) = default;

  private:
    FutureState() noexcept = default;
    explicit FutureState(FutureTermination<T> termination) : termination_(std::move(termination)) {}

    std::optional<FutureTermination<T>> termination_;
};

/// Streams `description()`: "running" or the termination's description.
template <class T>
std::ostream& operator<<(std::ostream& stream, const FutureState<T>& value) {
    return stream << value.description();
}

}  // namespace mirels
