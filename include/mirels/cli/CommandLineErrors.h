#pragma once

// `UnknownOptionError`: an argument named no option of the set, or was positional with no consumer
// left to take it. Also `OptionNeedsArgumentError`, `InvalidInteger`, `UnknownEnumValue`,
// `MissingCommandError`, `UnknownCommandError`.

#include <optional>
#include <string>
#include <vector>

#include "mirels/Export.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

// The failures of parsing a command line and of picking a command. Each is a human-readable error
// whose message is its `additionalInfo`; a tool prints that message when it gives up.

/// An argument named no option of the set, or was positional with no consumer left to take it.
/// Carries the argument as written, dashes and inline value included.
class MIRELS_EXPORT UnknownOptionError final : public HumanReadableError {
  public:
    explicit UnknownOptionError(std::string argument) : argument_(std::move(argument)) {}
    const std::string& argument() const noexcept { return argument_; }
    /// Unknown command line option "--frob"
    std::string message() const;
    std::optional<std::string> additionalInfo() const override { return message(); }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

  private:
    std::string argument_;
};

/// An option asked for a value after the last argument. Carries the option's name as typed,
/// without dashes (`o` for `-o`), so the message names what the user wrote.
class MIRELS_EXPORT OptionNeedsArgumentError final : public HumanReadableError {
  public:
    explicit OptionNeedsArgumentError(std::string name) : name_(std::move(name)) {}
    const std::string& name() const noexcept { return name_; }
    /// Option "o" requires a value
    std::string message() const;
    std::optional<std::string> additionalInfo() const override { return message(); }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

  private:
    std::string name_;
};

/// An integer option's value is no signed decimal integer of the field's range. Carries the
/// option's primary name and the text.
class MIRELS_EXPORT InvalidInteger final : public HumanReadableError {
  public:
    InvalidInteger(std::string option, std::string text)
        : option_(std::move(option)), text_(std::move(text)) {}
    const std::string& option() const noexcept { return option_; }
    const std::string& text() const noexcept { return text_; }
    /// Invalid integer passed for "count": "12x"
    std::string message() const;
    std::optional<std::string> additionalInfo() const override { return message(); }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

  private:
    std::string option_;
    std::string text_;
};

/// An enumeration option's value is none of the raw values. Carries the option's primary name,
/// the value and the permitted raw values in case order.
class MIRELS_EXPORT UnknownEnumValue final : public HumanReadableError {
  public:
    UnknownEnumValue(std::string option, std::string value, std::vector<std::string> permitted)
        : option_(std::move(option)), value_(std::move(value)), permitted_(std::move(permitted)) {}
    const std::string& option() const noexcept { return option_; }
    const std::string& value() const noexcept { return value_; }
    const std::vector<std::string>& permittedValues() const noexcept { return permitted_; }
    /// Invalid value passed for "mode": "fast
    /// Must be one of: debug, release
    /// (the quote before the value stays open).
    std::string message() const;
    std::optional<std::string> additionalInfo() const override { return message(); }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

  private:
    std::string option_;
    std::string value_;
    std::vector<std::string> permitted_;
};

/// A tool was run without arguments.
class MIRELS_EXPORT MissingCommandError final : public HumanReadableError {
  public:
    /// Must pass command
    std::string message() const { return "Must pass command"; }
    std::optional<std::string> additionalInfo() const override { return message(); }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }
};

/// A tool's first argument named none of its commands.
class MIRELS_EXPORT UnknownCommandError final : public HumanReadableError {
  public:
    explicit UnknownCommandError(std::string commandName) : commandName_(std::move(commandName)) {}
    const std::string& commandName() const noexcept { return commandName_; }
    /// Unknown command "frob"
    std::string message() const { return "Unknown command \"" + commandName_ + "\""; }
    std::optional<std::string> additionalInfo() const override { return message(); }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

  private:
    std::string commandName_;
};

}  // namespace mirels
