#pragma once

#include "mirels/Export.h"

// The one boundary at which exceptions of the platform's exception class, `std::exception` and
// its subclasses that are not library errors, become error values. Library errors (everything
// derived from `HumanReadableError`), platform errors and every other thrown object pass through
// unchanged.

#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "mirels/core/Assertions.h"
#include "mirels/core/Callsite.h"
#include "mirels/errors/Error.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/errors/PlatformError.h"

namespace mirels {

/// The domain of `QKExceptionError`: the library's domain followed by ".ExceptionError".
inline constexpr std::string_view mirelsExceptionErrorDomain =
    "org.mirels.foundation.ExceptionError";

/// An exception with an explicit name and reason, for code that raises exceptions the way the
/// platform's runtime does. The bridge takes its name as the exception's name; for any other
/// `std::exception` the name is its unqualified dynamic type name and the reason its `what()`.
class MIRELS_EXPORT NamedException : public std::exception {
  public:
    NamedException(std::string name, std::string reason)
        : name_(std::move(name)), reason_(std::move(reason)) {}

    const std::string& name() const noexcept { return name_; }
    const std::string& reason() const noexcept { return reason_; }
    const char* what() const noexcept override { return reason_.c_str(); }

  private:
    std::string name_;
    std::string reason_;
};

/// A caught exception as an error value: domain `mirelsExceptionErrorDomain`, code 0, and
/// exactly two user-info entries, the localized description = the exception's name and the
/// localized failure reason = its reason. It keeps the caught exception.
class MIRELS_EXPORT QKExceptionError : public PlatformError {
  public:
    /// Builds the error from a caught exception (`std::current_exception()` in a `catch`).
    explicit QKExceptionError(const std::exception_ptr& exception);

    /// The platform error's domain, code and user-info constructor, which is never used for
    /// real errors: every instance must have an exception, so this one makes a placeholder named
    /// "No exception specified" with the reason "QKExceptionError instantiated for domain <domain>
    /// with code <code>." and proceeds as the exception constructor. The arguments are not kept.
    QKExceptionError(const std::string& domain, std::int64_t code, const UserInfo& userInfo = {});

    /// The caught exception.
    const std::exception_ptr& exception() const noexcept { return exception_; }
    /// The exception's name and reason, as in the user info.
    std::string exceptionName() const;
    std::string exceptionReason() const;

    // The library's factory additions, returning this class (a placeholder exception each).
    static QKExceptionError qk_errorWithUserInfo(const UserInfo& userInfo);
    static QKExceptionError qk_errorWithDescription(std::string description);
    template <class... Args>
    static QKExceptionError qk_errorWithFormat(std::string_view format, const Args&... args) {
        return qk_errorWithDescription(formatErrorText(format, args...));
    }

  private:
    QKExceptionError(std::exception_ptr exception,
                     const std::pair<std::string, std::string>& texts);

    std::exception_ptr exception_;
};

/// The exception-handling errors.
class MIRELS_EXPORT QKExceptionHandlingError final : public HumanReadableError {
  public:
    enum class Code { neitherRaisedExceptionNorReturnedValue };

    /// A guarded closure finished without an outcome.
    static QKExceptionHandlingError neitherRaisedExceptionNorReturnedValue() noexcept {
        return QKExceptionHandlingError(Code::neitherRaisedExceptionNorReturnedValue);
    }

    Code code() const noexcept { return code_; }

    std::optional<std::string> additionalInfo() const override { return std::nullopt; }
    /// The case name.
    std::optional<std::string> additionalDiagnostics() const override;

  private:
    explicit QKExceptionHandlingError(Code code) noexcept : code_(code) {}
    Code code_;
};

/// Runs blocks inside an exception guard.
class QKObjCExceptionHandler {
  public:
    QKObjCExceptionHandler() = delete;

    /// Runs `block`. True when it returns; false when it raises an exception of the platform's
    /// exception class, which is then stored in `*error` as a `QKExceptionError` (when `error` is
    /// given). Library errors, platform errors and every other thrown object propagate unchanged.
    template <class Block>
        requires std::is_invocable_v<Block&&>
    static bool perform(Block&& block, std::optional<QKExceptionError>* error = nullptr) {
        try {
            std::invoke(std::forward<Block>(block));
            return true;
        } catch (const HumanReadableError&) {
            throw;
        } catch (const PlatformError&) {
            throw;
        } catch (const std::exception&) {
            if (error != nullptr) error->emplace(std::current_exception());
            return false;
        }
    }
};

/// Runs `perform` and returns its value. An exception of the platform's exception class that it
/// raises is thrown as a `QKExceptionError`; an error it throws (a library error, a platform
/// error or any other object) is rethrown unchanged, never wrapped.
template <class F>
    requires std::is_invocable_v<F&&> && (!std::is_reference_v<std::invoke_result_t<F &&>>)
std::invoke_result_t<F&&> withCaughtObjectiveCExceptions(F&& perform) {
    using T = std::invoke_result_t<F&&>;
    using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
    // The closure's outcome: its value, or the error it threw.
    std::optional<std::variant<Value, Error>> outcome;
    std::optional<QKExceptionError> raised;
    bool completed = QKObjCExceptionHandler::perform(
        [&] {
            try {
                if constexpr (std::is_void_v<T>) {
                    std::invoke(std::forward<F>(perform));
                    outcome.emplace(std::in_place_index<0>);
                } else {
                    outcome.emplace(std::in_place_index<0>, std::invoke(std::forward<F>(perform)));
                }
            } catch (const HumanReadableError&) {
                outcome.emplace(std::in_place_index<1>, Error::current());
            } catch (const PlatformError&) {
                outcome.emplace(std::in_place_index<1>, Error::current());
            } catch (const std::exception&) {
                throw;  // raised: the handler turns it into an error
            } catch (...) {
                outcome.emplace(std::in_place_index<1>, Error::current());
            }
        },
        &raised);
    // NOLINTNEXTLINE(bugprone-unchecked-optional-access): a false return always stores it.
    if (!completed) throw std::move(*raised);
    auto* stored = assertUnwrap(outcome.has_value() ? &*outcome : nullptr,
                                Callsite::library("withCaughtObjectiveCExceptions(perform:)"));
    if (stored == nullptr) throw QKExceptionHandlingError::neitherRaisedExceptionNorReturnedValue();
    if (stored->index() == 1) std::get<1>(*stored).rethrow();
    if constexpr (!std::is_void_v<T>) return std::move(std::get<0>(*stored));
}

}  // namespace mirels
