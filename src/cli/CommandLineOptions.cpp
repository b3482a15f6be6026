#include "mirels/cli/CommandLineOptions.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <system_error>

#include "mirels/cli/CommandLineErrors.h"
#include "mirels/core/FatalError.h"

namespace mirels {

std::string_view CommandLineValueFetcher::operator()() {
    if (inlineValue_) {
        const std::string_view value = *inlineValue_;
        inlineValue_.reset();
        return value;
    }
    if (position_ >= arguments_.size()) throw OptionNeedsArgumentError(std::string(typedName_));
    return arguments_[position_++];
}

namespace detail {

std::vector<CommandLineOptionName> makeCommandLineNameTable(
    std::span<const std::vector<std::string>* const> namesPerOption) {
    std::vector<CommandLineOptionName> table;
    for (std::size_t option = 0; option < namesPerOption.size(); ++option) {
        for (const std::string& name : *namesPerOption[option]) {
            table.push_back({name, static_cast<std::uint32_t>(option)});
        }
    }
    // Sorted by name, and for equal names by declaration, so that the last option declaring a
    // name is the last of its run; keep only that one.
    std::stable_sort(table.begin(), table.end(),
                     [](const CommandLineOptionName& a, const CommandLineOptionName& b) {
                         return a.name < b.name;
                     });
    std::vector<CommandLineOptionName> unique;
    unique.reserve(table.size());
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (i + 1 < table.size() && table[i + 1].name == table[i].name) continue;
        unique.push_back(std::move(table[i]));
    }
    return unique;
}

std::string commandLineUppercased(std::string_view text) {
    std::string upper(text);
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return upper;
}

namespace {

/// Characters as a terminal counts them: UTF-8 continuation bytes do not start a character.
std::size_t characterCount(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U;
    }));
}

}  // namespace

std::string commandLineOptionShortUsage(const std::string& name,
                                        const std::vector<std::string>& aliases,
                                        const std::optional<std::string>& parameterDescription) {
    const std::string parameter =
        parameterDescription ? " " + commandLineUppercased(*parameterDescription) : std::string();
    std::string usage;
    auto add = [&](const std::string& each) {
        if (!usage.empty()) usage += ", ";
        usage += characterCount(each) == 1 ? "-" : "--";
        usage += each;
        usage += parameter;
    };
    add(name);
    for (const std::string& alias : aliases) add(alias);
    return usage;
}

std::string commandLineConsumerShortUsage(const std::string& name,
                                          std::optional<std::int64_t> limit) {
    std::string upper = commandLineUppercased(name);
    if (!limit) return "[" + upper + "]";
    if (*limit == 1) return upper;
    std::string usage;
    for (std::int64_t i = 1; i <= *limit; ++i) {
        if (i > 1) usage += ' ';
        usage += upper;
        usage += std::to_string(i);
    }
    return usage;
}

std::string commandLineOptionsShortUsage(bool hasOptions, std::span<const std::string> consumers) {
    std::string usage = hasOptions ? "OPTIONS" : "";
    for (const std::string& consumer : consumers) {
        if (!usage.empty()) usage += ' ';
        usage += consumer;
    }
    return usage;
}

void checkConsumerLimit(const std::optional<std::int64_t>& limit, const std::string& name,
                        Callsite callsite) {
    if (limit && *limit < 1) {
        fatalError("The command line argument consumer \"" + name + "\" has a limit of " +
                       std::to_string(*limit) + "; a limit must be at least 1, or absent",
                   callsite);
    }
}

std::int64_t parseCommandLineInteger(std::string_view text, std::string_view option,
                                     std::int64_t min, std::int64_t max) {
    std::int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, 10);
    if (text.empty() || error != std::errc() || stop != end || value < min || value > max) {
        throw InvalidInteger(std::string(option), std::string(text));
    }
    return value;
}

std::uint64_t parseCommandLineUnsigned(std::string_view text, std::string_view option,
                                       std::uint64_t max) {
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, 10);
    if (text.empty() || error != std::errc() || stop != end || value > max) {
        throw InvalidInteger(std::string(option), std::string(text));
    }
    return value;
}

void throwUnknownEnumValue(std::string option, std::string value,
                           std::vector<std::string> permitted) {
    throw UnknownEnumValue(std::move(option), std::move(value), std::move(permitted));
}

std::string enumeratedDescription(std::string description, const std::string& parameter,
                                  std::span<const std::string_view> rawValues) {
    description += "\n\n";
    description += parameter;
    description += " must be one of ";
    for (std::size_t i = 0; i < rawValues.size(); ++i) {
        if (i > 0) description += ", ";
        description += rawValues[i];
    }
    return description;
}

void parseCommandLine(std::span<const CommandLineOptionName> names,
                      std::span<const std::optional<std::int64_t>> limits,
                      std::span<const std::string_view> arguments, CommandLineParseTarget target) {
    std::size_t consumer = 0;
    std::int64_t taken = 0;  // by the current consumer; the ones after it have taken none
    std::size_t position = 0;
    while (position < arguments.size()) {
        const std::string_view argument = arguments[position++];
        if (!argument.starts_with('-')) {
            if (consumer >= limits.size()) throw UnknownOptionError(std::string(argument));
            target.aggregate(target.context, consumer, argument);
            if (const std::optional<std::int64_t>& limit = limits[consumer];
                limit.has_value() && ++taken == *limit) {
                ++consumer;
                taken = 0;
            }
            continue;
        }

        // "--name=value": the name part ends at the first "="; the value is the next non-empty
        // run between "="s, and anything after it is dropped ("--define=a=b" has the value "a").
        std::string_view namePart = argument;
        std::optional<std::string_view> inlineValue;
        if (const std::size_t equals = argument.find('='); equals != std::string_view::npos) {
            namePart = argument.substr(0, equals);
            const std::size_t start = argument.find_first_not_of('=', equals);
            if (start != std::string_view::npos) {
                const std::size_t end = argument.find('=', start);
                inlineValue =
                    argument.substr(start, end == std::string_view::npos ? end : end - start);
            }
        }
        const std::size_t first = namePart.find_first_not_of('-');
        const std::string_view name =
            first == std::string_view::npos
                ? std::string_view()
                : namePart.substr(first, namePart.find_last_not_of('-') - first + 1);

        const auto found = std::lower_bound(names.begin(), names.end(), name,
                                            [](const CommandLineOptionName& entry,
                                               std::string_view key) { return entry.name < key; });
        if (found == names.end() || found->name != name) {
            throw UnknownOptionError(std::string(argument));
        }
        CommandLineValueFetcher fetch(arguments, position, inlineValue, name);
        target.apply(target.context, found->option, fetch);
    }
}

}  // namespace detail

std::string UnknownOptionError::message() const {
    return "Unknown command line option \"" + argument_ + "\"";
}

std::string OptionNeedsArgumentError::message() const {
    return "Option \"" + name_ + "\" requires a value";
}

std::string InvalidInteger::message() const {
    return "Invalid integer passed for \"" + option_ + "\": \"" + text_ + "\"";
}

std::string UnknownEnumValue::message() const {
    std::string text =
        "Invalid value passed for \"" + option_ + "\": \"" + value_ + "\nMust be one of: ";
    for (std::size_t i = 0; i < permitted_.size(); ++i) {
        if (i > 0) text += ", ";
        text += permitted_[i];
    }
    return text;
}

}  // namespace mirels
