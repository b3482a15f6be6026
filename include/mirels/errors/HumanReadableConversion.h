#pragma once

#include "mirels/Export.h"

// Turning any error into a `HumanReadableError`, chaining errors, and the conformers that the
// conversion produces.

#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <typeinfo>

#include "mirels/core/Callsite.h"
#include "mirels/errors/CallsiteError.h"
#include "mirels/errors/Error.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/errors/PlatformError.h"

namespace mirels {

/// A shared, read-only handle on a human-readable error.
using HumanReadableErrorRef = std::shared_ptr<const HumanReadableError>;

/// `error` as a human-readable error, by the first rule that applies:
/// 1. it already is one: that very error (sharing the `Error`'s storage, without allocating);
/// 2. it is a platform error carrying a packed human-readable error ("QKHumanReadableError") that
///    decodes: the decoded error;
/// 3. it is a platform error with a non-empty user info: a `HumanReadableNSError`, wrapped with
///    the human-readable form of its underlying error when it has one;
/// 4. otherwise a `HumanReadableSwiftError`.
/// Never fails.
MIRELS_EXPORT HumanReadableErrorRef humanReadable(const Error& error);
/// The same for a thrown object, which must not be null.
MIRELS_EXPORT HumanReadableErrorRef humanReadable(std::exception_ptr thrown);

/// The error's own `errorTypeDescription` when it is human-readable, else the unqualified name of
/// its dynamic type.
MIRELS_EXPORT std::string errorTypeDescription(const Error& error);

/// `main` with `underlying` as its cause: `main` itself when `underlying` is absent, else an
/// `UnderlyingErrorWrapper` of the human-readable forms of both.
[[nodiscard]] MIRELS_EXPORT Error withUnderlying(const Error& main,
                                                 const std::optional<Error>& underlying);
MIRELS_EXPORT HumanReadableErrorRef withUnderlying(HumanReadableErrorRef main,
                                                   const std::optional<Error>& underlying);

/// The full diagnostics of a list of errors, as accumulating errors print it: "Error <n>:\n"
/// and each error's text indented by three spaces, separated by a line of 30 equals signs.
MIRELS_EXPORT std::string accumulatedDiagnosticsOutput(std::span<const Error> errors);

/// The packed human-readable error inside `error`'s user info, or null when it carries none. A
/// damaged one is logged ("Invalid HumanReadableError serialization: ...") and gives null too.
MIRELS_EXPORT HumanReadableErrorRef deserializeHumanReadableError(const PlatformError& error);

/// An error as a platform error object: a platform error itself, else an error whose domain is
/// the unqualified name of its type, with code 1 and an empty user info.
MIRELS_EXPORT PlatformError bridgeToPlatformError(const Error& error);

/// A main error and the error that caused it. Every answer comes from the two parts: titles and
/// options from the main error when it has them, else from the underlying one; the full
/// diagnostics show the underlying error's text below the main one, indented with "|  ".
class MIRELS_EXPORT UnderlyingErrorWrapper final : public HumanReadableError {
  public:
    /// Both must be non-null.
    UnderlyingErrorWrapper(HumanReadableErrorRef main, HumanReadableErrorRef underlying);

    const HumanReadableErrorRef& main() const noexcept { return main_; }
    const HumanReadableErrorRef& underlying() const noexcept { return underlying_; }

    std::optional<std::string> highValueTitle() const override;
    std::optional<std::string> lowValueTitle() const override;
    /// Both present: "<main>: <underlying>"; otherwise whichever is present.
    std::optional<std::string> additionalInfo() const override;
    /// As `additionalInfo`.
    std::optional<std::string> additionalDiagnostics() const override;
    std::optional<HumanReadableErrorOptions> options() const override;
    /// The main error's, then the underlying error's.
    void collectDiagnostics(DiagnosticsCollector& collector) const override;
    bool canTryAgain() const override { return main_->canTryAgain(); }
    /// "<main>.<underlying>".
    std::string errorTypeDescription() const override;
    bool isPotentialCrash() const override { return false; }
    std::string fullDiagnosticsOutput() const override;
    /// The wrapper form: "errorType" = "wrapper", "main" and "underlying".
    PropertyList plistRepresentation() const override;
    bool isNativeHumanReadable() const override { return main_->isNativeHumanReadable(); }

  private:
    HumanReadableErrorRef main_;
    HumanReadableErrorRef underlying_;
};

/// Any other error value, shown by its type and its default textual rendering. Not native.
class MIRELS_EXPORT HumanReadableSwiftError final : public HumanReadableError {
  public:
    explicit HumanReadableSwiftError(Error error);

    const Error& error() const noexcept { return error_; }
    const std::type_info& errorType() const noexcept { return error_.type(); }

    std::optional<std::string> additionalInfo() const override { return std::nullopt; }
    /// "<type name>: <rendering>".
    std::optional<std::string> additionalDiagnostics() const override;
    /// The unqualified name of `errorType`.
    std::string errorTypeDescription() const override;
    bool isNativeHumanReadable() const override { return false; }

  private:
    Error error_;
};

/// A platform error object shown by its texts: its localized description as the title, its
/// recovery suggestion as the info and its domain, code and other user-info entries as the
/// diagnostics. Not native.
class MIRELS_EXPORT HumanReadableNSError final : public HumanReadableError {
  public:
    /// `error` must hold a `PlatformError`.
    explicit HumanReadableNSError(Error error);
    explicit HumanReadableNSError(PlatformError error);

    const PlatformError& error() const noexcept { return *platformError_; }

    std::optional<std::string> lowValueTitle() const override;
    std::optional<std::string> additionalInfo() const override;
    /// "<domain> (<code>):" and, for each user-info entry other than the standard description,
    /// recovery-suggestion and underlying-error entries, "\n==<key>: <value>".
    std::optional<std::string> additionalDiagnostics() const override;
    /// "NSError.<domain>.<code>".
    std::string errorTypeDescription() const override;
    bool isNativeHumanReadable() const override { return false; }

  private:
    Error error_;
    const PlatformError* platformError_;
};

/// A human-readable error rebuilt from its packed form in another process: the six stored values
/// and nothing else.
class MIRELS_EXPORT RemoteHumanReadableError final : public HumanReadableError {
  public:
    struct Values {
        std::optional<std::string> highValueTitle;
        std::optional<std::string> lowValueTitle;
        std::optional<std::string> additionalInfo;
        std::optional<std::string> additionalDiagnostics;
        std::optional<HumanReadableErrorOptions> options;
        bool isNativeHumanReadable = true;
    };

    explicit RemoteHumanReadableError(Values values) : values_(std::move(values)) {}

    const Values& values() const noexcept { return values_; }

    std::optional<std::string> highValueTitle() const override { return values_.highValueTitle; }
    std::optional<std::string> lowValueTitle() const override { return values_.lowValueTitle; }
    std::optional<std::string> additionalInfo() const override { return values_.additionalInfo; }
    std::optional<std::string> additionalDiagnostics() const override {
        return values_.additionalDiagnostics;
    }
    std::optional<HumanReadableErrorOptions> options() const override { return values_.options; }
    bool isNativeHumanReadable() const override { return values_.isNativeHumanReadable; }

  private:
    Values values_;
};

/// `error`'s human-readable form with a `CallsiteError` for `callsite` attached as its underlying
/// error, so that the trail's title names the place the error passed through.
MIRELS_EXPORT UnderlyingErrorWrapper trackingCallsite(const Error& error,
                                                      Callsite callsite = Callsite::current());

}  // namespace mirels
