#pragma once

// `CommandLineOptions`: the options and argument consumers that fill a settings record `T`, in
// declaration order. Also `CommandLineValueFetcher`, `CommandLineEnumeration`,
// `CommandLineOptionDescription`, `CommandLineOption`, `CommandLineArgumentConsumer`,
// `CommandLineOptionBuilder` and more.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <optional>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/RawValueCases.h"

namespace mirels {

// The command-line grammar of the library's tools: options start with a dash and take their
// value after "=" or as the next argument; everything else is positional and goes to the
// argument consumers in turn. There is no end-of-options marker.
//
// This header needs no error types: the errors (CommandLineErrors.h) are thrown out of line, so
// that a tool's translation unit stays cheap to compile.

class CommandLineValueFetcher;

namespace detail {

/// One entry of an option set's name table: a name and the option that owns it.
struct CommandLineOptionName {
    std::string name;
    std::uint32_t option;
};

/// The name table of an option set, sorted by name, each name owned by the last option that
/// declares it.
MIRELS_EXPORT std::vector<CommandLineOptionName> makeCommandLineNameTable(
    std::span<const std::vector<std::string>* const> namesPerOption);

/// "-v" for a one-character name, "--verbose" otherwise, with " PARAMETER" when the option takes
/// a value; all names joined with ", ".
MIRELS_EXPORT std::string commandLineOptionShortUsage(
    const std::string& name, const std::vector<std::string>& aliases,
    const std::optional<std::string>& parameterDescription);
MIRELS_EXPORT std::string commandLineConsumerShortUsage(const std::string& name,
                                                        std::optional<std::int64_t> limit);
MIRELS_EXPORT std::string commandLineOptionsShortUsage(bool hasOptions,
                                                       std::span<const std::string> consumers);
/// The text in upper case (ASCII letters; other bytes unchanged).
MIRELS_EXPORT std::string commandLineUppercased(std::string_view text);

/// Stops the process for a consumer limit below one.
MIRELS_EXPORT void checkConsumerLimit(const std::optional<std::int64_t>& limit,
                                      const std::string& name, Callsite callsite);

/// Parses `text` as a signed decimal integer of the field's type; any other text, "+5", " 5",
/// "5x" and values outside the type's range throw `InvalidInteger` for `option`.
MIRELS_EXPORT std::int64_t parseCommandLineInteger(std::string_view text, std::string_view option,
                                                   std::int64_t min, std::int64_t max);
MIRELS_EXPORT std::uint64_t parseCommandLineUnsigned(std::string_view text, std::string_view option,
                                                     std::uint64_t max);

[[noreturn]] MIRELS_EXPORT void throwUnknownEnumValue(std::string option, std::string value,
                                                      std::vector<std::string> permitted);
MIRELS_EXPORT std::string enumeratedDescription(std::string description,
                                                const std::string& parameter,
                                                std::span<const std::string_view> rawValues);

/// The walk over the arguments, shared by every settings type. `apply` runs option `index`
/// with the fetcher; `aggregate` hands a positional argument to consumer `index`.
struct CommandLineParseTarget {
    void* context;
    void (*apply)(void* context, std::size_t index, CommandLineValueFetcher& fetch);
    void (*aggregate)(void* context, std::size_t index, std::string_view argument);
};
MIRELS_EXPORT void parseCommandLine(std::span<const CommandLineOptionName> names,
                                    std::span<const std::optional<std::int64_t>> limits,
                                    std::span<const std::string_view> arguments,
                                    CommandLineParseTarget target);

}  // namespace detail

/// What an option's `apply` calls for its value. The first call returns the inline value (the
/// text after "=" in `--output=file`) when there is one; every other call takes the next argument
/// from the list, whatever it looks like (a following "-x" is a value too), and moves past it.
/// When the list is exhausted it throws `OptionNeedsArgumentError`.
///
/// The returned text views the caller's argument list and stays valid until `parse` returns;
/// copy what you keep.
class MIRELS_EXPORT CommandLineValueFetcher {
  public:
    std::string_view operator()();

    /// The option's name as typed, without its dashes (`o` for `-o=x`).
    std::string_view typedName() const noexcept { return typedName_; }

  private:
    friend void detail::parseCommandLine(std::span<const detail::CommandLineOptionName>,
                                         std::span<const std::optional<std::int64_t>>,
                                         std::span<const std::string_view>,
                                         detail::CommandLineParseTarget);
    CommandLineValueFetcher(std::span<const std::string_view> arguments, std::size_t& position,
                            std::optional<std::string_view> inlineValue,
                            std::string_view typedName) noexcept
        : arguments_(arguments),
          position_(position),
          inlineValue_(inlineValue),
          typedName_(typedName) {}

    std::span<const std::string_view> arguments_;
    std::size_t& position_;
    std::optional<std::string_view> inlineValue_;
    std::string_view typedName_;
};

/// An enumeration that an option can take by its text raw values (see `RawValueCases`).
template <class E>
concept CommandLineEnumeration = RawRepresentable<E> && std::same_as<RawValueType<E>, std::string>;

/// What usage needs to know of an option, with no tie to the settings type.
struct CommandLineOptionDescription {
    std::string name;
    std::vector<std::string> aliases;
    /// Present exactly when the option takes a value.
    std::optional<std::string> parameterDescription;
    std::string description;

    /// Every name as "-n" (one character) or "--name", followed by " PARAMETER" in upper case
    /// when the option takes a value, joined with ", ": `--output PATH, -o PATH`.
    std::string shortUsage() const {
        return detail::commandLineOptionShortUsage(name, aliases, parameterDescription);
    }

    bool operator==(const CommandLineOptionDescription&) const = default;
};

/// One named option that fills part of a settings record `T`.
///
/// `apply` receives the settings (mutable) and a value fetcher. A switch never calls the fetcher;
/// an option with a value calls it once per value it wants. `apply` may throw; the error ends
/// the parse and reaches the caller of `parse` unchanged.
///
/// A plain value: copies share nothing but the `apply` callable's captures.
template <class T>
class CommandLineOption {
  public:
    using Apply = std::function<void(T&, CommandLineValueFetcher&)>;

    /// The general form. `parameter` is present exactly when the option takes a value.
    CommandLineOption(std::string name, std::vector<std::string> aliases,
                      std::optional<std::string> parameter, std::string description, Apply apply)
        : name(std::move(name)),
          aliases(std::move(aliases)),
          parameterDescription(std::move(parameter)),
          description(std::move(description)),
          apply(std::move(apply)) {}

    /// A switch: sets `field` to true. Any inline value (`--verbose=no`) is ignored.
    static CommandLineOption boolean(std::string name, std::vector<std::string> aliases,
                                     bool T::*field, std::string description) {
        return CommandLineOption(
            std::move(name), std::move(aliases), std::nullopt, std::move(description),
            [field](T& settings, CommandLineValueFetcher&) { settings.*field = true; });
    }

    /// Stores the value in `field`; a later occurrence wins.
    static CommandLineOption string(std::string name, std::vector<std::string> aliases,
                                    std::string parameter, std::optional<std::string> T::*field,
                                    std::string description) {
        return CommandLineOption(std::move(name), std::move(aliases), std::move(parameter),
                                 std::move(description),
                                 [field](T& settings, CommandLineValueFetcher& fetch) {
                                     settings.*field = std::string(fetch());
                                 });
    }

    /// Parses the value as a signed decimal integer ("-12", not "+12", " 12" or "12x") of the
    /// field's type and stores it; other text, or a number outside the type's range, throws
    /// `InvalidInteger` naming this option and the text.
    template <std::integral I>
        requires(!std::same_as<I, bool>)
    static CommandLineOption integer(std::string name, std::vector<std::string> aliases,
                                     std::string parameter, I T::*field, std::string description) {
        std::string optionName = name;
        return CommandLineOption(
            std::move(name), std::move(aliases), std::move(parameter), std::move(description),
            [field, optionName = std::move(optionName)](T& settings,
                                                        CommandLineValueFetcher& fetch) {
                const std::string_view text = fetch();
                if constexpr (std::is_signed_v<I>) {
                    settings.*field = static_cast<I>(detail::parseCommandLineInteger(
                        text, optionName, std::numeric_limits<I>::min(),
                        std::numeric_limits<I>::max()));
                } else {
                    settings.*field = static_cast<I>(detail::parseCommandLineUnsigned(
                        text, optionName, std::numeric_limits<I>::max()));
                }
            });
    }

    /// Stores the case whose raw value equals the value; any other value throws
    /// `UnknownEnumValue` listing the raw values. Without `parameter` the parameter description
    /// is the name in upper case. The description gains a paragraph naming the permitted values:
    /// "\n\n" PARAMETER " must be one of " and the raw values in case order, joined with ", ".
    template <CommandLineEnumeration E>
    static CommandLineOption enumeration(std::string name, std::vector<std::string> aliases,
                                         std::optional<std::string> parameter, E T::*field,
                                         std::string description) {
        return makeEnumeration<E>(std::move(name), std::move(aliases), std::move(parameter),
                                  std::move(description),
                                  [field](T& settings, E value) { settings.*field = value; });
    }

    /// As `enumeration`, into an optional field.
    template <CommandLineEnumeration E>
    static CommandLineOption optionalEnumeration(std::string name, std::vector<std::string> aliases,
                                                 std::optional<std::string> parameter,
                                                 std::optional<E> T::*field,
                                                 std::string description) {
        return makeEnumeration<E>(std::move(name), std::move(aliases), std::move(parameter),
                                  std::move(description),
                                  [field](T& settings, E value) { settings.*field = value; });
    }

    std::string name;
    std::vector<std::string> aliases;
    std::optional<std::string> parameterDescription;
    std::string description;
    Apply apply;

    /// `name` followed by `aliases`.
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        all.reserve(aliases.size() + 1);
        all.push_back(name);
        all.insert(all.end(), aliases.begin(), aliases.end());
        return all;
    }

    CommandLineOptionDescription optionDescription() const {
        return {name, aliases, parameterDescription, description};
    }

  private:
    template <class E, class Store>
    static CommandLineOption makeEnumeration(std::string name, std::vector<std::string> aliases,
                                             std::optional<std::string> parameter,
                                             std::string description, Store store) {
        std::string shown = parameter ? std::move(*parameter) : detail::commandLineUppercased(name);
        std::vector<std::string_view> raws;
        raws.reserve(RawValueCases<E>::cases.size());
        for (const auto& entry : RawValueCases<E>::cases) raws.emplace_back(entry.second);
        description = detail::enumeratedDescription(std::move(description), shown, raws);
        std::string optionName = name;
        return CommandLineOption(
            std::move(name), std::move(aliases), std::move(shown), std::move(description),
            [store, optionName = std::move(optionName)](T& settings,
                                                        CommandLineValueFetcher& fetch) {
                const std::string_view value = fetch();
                for (const auto& entry : RawValueCases<E>::cases) {
                    if (std::string_view(entry.second) == value) {
                        store(settings, entry.first);
                        return;
                    }
                }
                std::vector<std::string> permitted;
                for (const auto& entry : RawValueCases<E>::cases) {
                    permitted.emplace_back(entry.second);
                }
                detail::throwUnknownEnumValue(optionName, std::string(value), std::move(permitted));
            });
    }
};

/// Takes positional arguments into a settings record `T`, up to `limit` of them (no limit when
/// absent). A limit below one is a programming error that stops the process when the consumer is
/// made.
template <class T>
class CommandLineArgumentConsumer {
  public:
    using Aggregate = std::function<void(T&, std::string_view)>;

    CommandLineArgumentConsumer(std::string name, std::optional<std::int64_t> limit,
                                Aggregate aggregate, Callsite callsite = Callsite::current())
        : name(std::move(name)), limit(limit), aggregate(std::move(aggregate)) {
        detail::checkConsumerLimit(this->limit, this->name, callsite);
    }

    /// One argument, stored in `field`.
    static CommandLineArgumentConsumer string(std::string name,
                                              std::optional<std::string> T::*field) {
        return CommandLineArgumentConsumer(std::move(name), 1,
                                           [field](T& settings, std::string_view argument) {
                                               settings.*field = std::string(argument);
                                           });
    }

    /// Every remaining argument, appended to `field`.
    static CommandLineArgumentConsumer strings(std::string name,
                                               std::vector<std::string> T::*field) {
        return CommandLineArgumentConsumer(std::move(name), std::nullopt,
                                           [field](T& settings, std::string_view argument) {
                                               (settings.*field).emplace_back(argument);
                                           });
    }

    std::string name;
    std::optional<std::int64_t> limit;
    Aggregate aggregate;

    /// "[NAME]" without limit, "NAME" for one, "NAME1 NAME2 NAME3" for three.
    std::string shortUsage() const { return detail::commandLineConsumerShortUsage(name, limit); }
};

/// Turns a block of options into a list, in source order.
struct CommandLineOptionBuilder {
    template <class T, class... More>
        requires(std::convertible_to<More, CommandLineOption<T>> && ...)
    static std::vector<CommandLineOption<T>> buildBlock(CommandLineOption<T> first,
                                                        More&&... more) {
        std::vector<CommandLineOption<T>> list;
        list.reserve(1 + sizeof...(More));
        list.push_back(std::move(first));
        (list.push_back(std::forward<More>(more)), ...);
        return list;
    }
    template <class T>
    static std::vector<CommandLineOption<T>> buildBlock() {
        return {};
    }
};

/// Turns a block of argument consumers into a list, in source order.
struct CommandLineArgumentConsumerBuilder {
    template <class T, class... More>
        requires(std::convertible_to<More, CommandLineArgumentConsumer<T>> && ...)
    static std::vector<CommandLineArgumentConsumer<T>> buildBlock(
        CommandLineArgumentConsumer<T> first, More&&... more) {
        std::vector<CommandLineArgumentConsumer<T>> list;
        list.reserve(1 + sizeof...(More));
        list.push_back(std::move(first));
        (list.push_back(std::forward<More>(more)), ...);
        return list;
    }
    template <class T>
    static std::vector<CommandLineArgumentConsumer<T>> buildBlock() {
        return {};
    }
};

/// A list of argument texts that `parse` can read in place: any forward range whose elements
/// are texts that outlive the parse (`std::vector<std::string>`, `argv` as a span of `char*`,
/// `std::string_view`s).
template <class R>
concept CommandLineArgumentRange =
    std::ranges::forward_range<R> &&
    std::convertible_to<std::ranges::range_reference_t<R>, std::string_view> &&
    (std::is_lvalue_reference_v<std::ranges::range_reference_t<R>> ||
     std::same_as<std::remove_cvref_t<std::ranges::range_reference_t<R>>, std::string_view> ||
     std::is_pointer_v<std::remove_cvref_t<std::ranges::range_reference_t<R>>>);

/// The options and argument consumers that fill a settings record `T`, in declaration order.
///
/// The name table is built when the set is made (a name declared by several options belongs to
/// the last of them), so `parse` does no set-up work of its own: it walks the arguments once,
/// finding each option by binary search. A copy shares nothing with the original.
template <class T>
class CommandLineOptions {
  public:
    CommandLineOptions() = default;
    explicit CommandLineOptions(CommandLineOption<T> option)
        : CommandLineOptions(std::vector<CommandLineOption<T>>{std::move(option)}, {}) {}
    explicit CommandLineOptions(CommandLineArgumentConsumer<T> consumer)
        : CommandLineOptions({}, std::vector<CommandLineArgumentConsumer<T>>{std::move(consumer)}) {
    }
    CommandLineOptions(CommandLineOption<T> option, CommandLineArgumentConsumer<T> consumer)
        : CommandLineOptions(std::vector<CommandLineOption<T>>{std::move(option)},
                             std::vector<CommandLineArgumentConsumer<T>>{std::move(consumer)}) {}
    explicit CommandLineOptions(std::vector<CommandLineOption<T>> options)
        : CommandLineOptions(std::move(options), {}) {}
    explicit CommandLineOptions(std::vector<CommandLineArgumentConsumer<T>> consumers)
        : CommandLineOptions({}, std::move(consumers)) {}
    CommandLineOptions(std::vector<CommandLineOption<T>> options,
                       CommandLineArgumentConsumer<T> consumer)
        : CommandLineOptions(std::move(options),
                             std::vector<CommandLineArgumentConsumer<T>>{std::move(consumer)}) {}
    CommandLineOptions(std::vector<CommandLineOption<T>> options,
                       std::vector<CommandLineArgumentConsumer<T>> consumers)
        : options_(std::move(options)), argumentConsumers_(std::move(consumers)) {
        std::vector<const std::vector<std::string>*> names;
        std::vector<std::vector<std::string>> storage;
        storage.reserve(options_.size());
        names.reserve(options_.size());
        for (const auto& option : options_) {
            storage.push_back(option.names());
            names.push_back(&storage.back());
        }
        nameTable_ = detail::makeCommandLineNameTable(names);
        limits_.reserve(argumentConsumers_.size());
        for (const auto& consumer : argumentConsumers_) limits_.push_back(consumer.limit);
    }

    const std::vector<CommandLineOption<T>>& options() const noexcept { return options_; }
    const std::vector<CommandLineArgumentConsumer<T>>& argumentConsumers() const noexcept {
        return argumentConsumers_;
    }

    /// Fills a copy of `settings` from `arguments` (the program name already removed) and returns
    /// it. Throws the first error: `UnknownOptionError` for an unknown name or a positional
    /// argument that no consumer takes, `OptionNeedsArgumentError` when a value is missing, or
    /// whatever an `apply` or `aggregate` throws. On failure no settings are returned.
    template <CommandLineArgumentRange R>
    T parse(const R& arguments, T settings) const {
        std::string_view small[32];
        std::vector<std::string_view> large;
        std::span<const std::string_view> view;
        const auto count = static_cast<std::size_t>(std::ranges::distance(arguments));
        if (count <= std::size(small)) {
            std::size_t i = 0;
            for (auto&& argument : arguments) small[i++] = std::string_view(argument);
            view = std::span<const std::string_view>(small, count);
        } else {
            large.reserve(count);
            for (auto&& argument : arguments) large.emplace_back(argument);
            view = large;
        }
        parseInto(view, settings);
        return settings;
    }

    T parse(std::initializer_list<std::string_view> arguments, T settings) const {
        parseInto(std::span<const std::string_view>(arguments.begin(), arguments.size()), settings);
        return settings;
    }

    /// "OPTIONS" when there is an option, then each consumer's usage, separated by blanks.
    std::string shortUsage() const {
        std::vector<std::string> consumers;
        consumers.reserve(argumentConsumers_.size());
        for (const auto& consumer : argumentConsumers_) consumers.push_back(consumer.shortUsage());
        return detail::commandLineOptionsShortUsage(!options_.empty(), consumers);
    }

    /// One description per option, in declaration order.
    std::vector<CommandLineOptionDescription> optionDescriptions() const {
        std::vector<CommandLineOptionDescription> descriptions;
        descriptions.reserve(options_.size());
        for (const auto& option : options_) descriptions.push_back(option.optionDescription());
        return descriptions;
    }

  private:
    struct Context {
        const CommandLineOptions* self;
        T* settings;
    };

    void parseInto(std::span<const std::string_view> arguments, T& settings) const {
        Context context{this, &settings};
        detail::parseCommandLine(nameTable_, limits_, arguments,
                                 {&context,
                                  [](void* raw, std::size_t index, CommandLineValueFetcher& fetch) {
                                      auto& c = *static_cast<Context*>(raw);
                                      c.self->options_[index].apply(*c.settings, fetch);
                                  },
                                  [](void* raw, std::size_t index, std::string_view argument) {
                                      auto& c = *static_cast<Context*>(raw);
                                      c.self->argumentConsumers_[index].aggregate(*c.settings,
                                                                                  argument);
                                  }});
    }

    std::vector<CommandLineOption<T>> options_;
    std::vector<CommandLineArgumentConsumer<T>> argumentConsumers_;
    std::vector<detail::CommandLineOptionName> nameTable_;
    std::vector<std::optional<std::int64_t>> limits_;
};

}  // namespace mirels
