#pragma once

// `HumanReadableError`: an error that can be shown to a person.
//
// Example:
//
//     class ExportFailed final : public HumanReadableError {
//       public:
//         std::optional<std::string> highValueTitle() const override { return "Could not export"; }
//         std::optional<std::string> additionalInfo() const override { return std::nullopt; }
//         std::optional<std::string> additionalDiagnostics() const override {
//             return std::nullopt;
//         }
//     };
//     Error failure = withUnderlying(ExportFailed(), Error::current());  // inside a catch block

#include <atomic>
#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "mirels/Export.h"
#include "mirels/errors/HumanReadableErrorOptions.h"

namespace mirels {

class DiagnosticsCollector;
class PlatformError;
class PropertyList;

/// The deepest packed error (`plistRepresentation`): a leaf is one level and each wrapper of a
/// main and an underlying error adds one. Packing, writing (XML or binary) and reading all accept
/// exactly this many levels and refuse one more with a `PropertyListSerializationError` "errors
/// nested deeper than 510 levels". It is the property-list depth limit (512) less the two levels
/// of the platform error that carries a packed error across processes, so that whatever can be
/// packed can also be written.
inline constexpr std::size_t maximumSerializedErrorDepth = 510;

/// An error that can be shown to a person: a short title, a longer explanation, free-form
/// diagnostics, presentation flags, and a full multi-line diagnostic dump. Every error type of the
/// library derives from it; `what()` is its `description()`.
///
/// Conformers supply `additionalInfo` and `additionalDiagnostics`; every other operation has a
/// default. Errors are values: derived classes are copyable, and copies share nothing.
class MIRELS_EXPORT HumanReadableError : public std::exception {
  public:
    ~HumanReadableError() override;

    /// A title worth showing prominently.
    virtual std::optional<std::string> highValueTitle() const { return std::nullopt; }
    /// A title to show when there is no high-value one.
    virtual std::optional<std::string> lowValueTitle() const { return std::nullopt; }
    virtual std::optional<std::string> additionalInfo() const = 0;
    virtual std::optional<std::string> additionalDiagnostics() const = 0;
    virtual std::optional<HumanReadableErrorOptions> options() const { return std::nullopt; }
    virtual void collectDiagnostics(DiagnosticsCollector& /*collector*/) const {}
    /// True unless the error is known to be final.
    virtual bool canTryAgain() const { return true; }
    /// The unqualified name of the error's dynamic type.
    virtual std::string errorTypeDescription() const;
    virtual bool isPotentialCrash() const { return false; }
    /// Type name, ": " title, then info and diagnostics paragraphs (see `composeDiagnostics`).
    virtual std::string fullDiagnosticsOutput() const;
    /// The leaf form of the serialised error: "errorType" = "leaf", the texts that are present,
    /// "options" as an integer when present, and "isNative". Wrappers nest; past
    /// `maximumSerializedErrorDepth` levels packing throws `PropertyListSerializationError`.
    virtual PropertyList plistRepresentation() const;
    /// True unless the error was rebuilt from a foreign error.
    virtual bool isNativeHumanReadable() const { return true; }

    std::string description() const { return fullDiagnosticsOutput(); }
    /// `highValueTitle`, else `lowValueTitle`.
    std::optional<std::string> effectiveTitle() const;
    /// `options`, else the empty set.
    HumanReadableErrorOptions effectiveOptions() const;

    /// The main error when this is an `UnderlyingErrorWrapper`, else this error itself.
    const HumanReadableError& unwrapped() const noexcept;

    /// This error packed for another process (throws like `plistRepresentation`): a platform error
    /// in the library's domain with code -1 and exactly two user-info entries, the localized
    /// description (the effective title, or "Unexpected mirel error") and "QKHumanReadableError"
    /// (`plistRepresentation`). `humanReadable` rebuilds it in the receiving process.
    PlatformError serializableNSError() const;

    /// The description, computed on first use and kept.
    const char* what() const noexcept override;

    /// The text every full diagnostics output shares: `typeName`, then ": " and the title when
    /// present, then "\n\n" and each of info and diagnostics that is present, post-processed by
    /// `applyDiagnosticsReplacements`.
    static std::string composeDiagnostics(std::string_view typeName,
                                          const std::optional<std::string>& title,
                                          const std::optional<std::string>& info,
                                          const std::optional<std::string>& diagnostics);

    /// The three literal replacements applied to every full diagnostics text, in order:
    /// "quokka" -> "kestrelmirels", "Quokka" -> "Kestrel Mirels", a typed backslash-n -> a line
    /// feed.
    static std::string applyDiagnosticsReplacements(std::string text);

  protected:
    HumanReadableError() = default;
    HumanReadableError(const HumanReadableError& other) noexcept;
    HumanReadableError& operator=(const HumanReadableError& other) noexcept;

  private:
    mutable std::atomic<const std::string*> whatText_{nullptr};
};

}  // namespace mirels
