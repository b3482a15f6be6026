#pragma once

// `CommandLineTool`: a program of several commands. Also `DefaultInit`,
// `CommandLineCommandProtocol`, `CommandLineCommand`, `CommandLineCommandType`.
//
// Example:
//
//     struct Build : CommandLineCommand<Build> {
//         using Options = BuildSettings;  // a default-constructible settings record
//         static constexpr std::string_view name = "build";
//         static constexpr std::string_view description = "Builds the files.";
//         static CommandLineOptions<Options> options();
//         static void execute(const Options& options, AnyCommandLinePrinter& printer);
//     };
//     int main() {
//         CommandLineTool tool("Builds things.", {commandType<Build>}, {"build OPTIONS [FILE]"});
//         tool.run();  // reads the process's arguments; prints usage and errors
//     }

#include <concepts>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/Export.h"
#include "mirels/cli/CommandLineOptions.h"
#include "mirels/cli/CommandLinePrinter.h"

namespace mirels {

/// A type that can be made without arguments: a command's settings record.
template <class T>
concept DefaultInit = std::default_initializable<T>;

/// What a tool needs of a command type. Commands are types with static members, not instances:
///
///     static constexpr std::string_view name = "build";
///     static constexpr std::string_view description = "Builds the project.";
///     static std::string shortUsage();
///     static std::vector<CommandLineOptionDescription> optionDescriptions();
///     static void run(std::span<const std::string> arguments, AnyCommandLinePrinter& printer);
///
/// `run` receives the arguments after the command's name and may throw; the error reaches the
/// tool's caller unchanged. Commands with a settings record derive from `CommandLineCommand`,
/// which supplies the last three.
template <class C>
concept CommandLineCommandProtocol =
    requires(std::span<const std::string> arguments, AnyCommandLinePrinter& printer) {
        { C::name } -> std::convertible_to<std::string_view>;
        { C::description } -> std::convertible_to<std::string_view>;
        { C::shortUsage() } -> std::convertible_to<std::string>;
        {
            C::optionDescriptions()
        } -> std::convertible_to<std::vector<CommandLineOptionDescription>>;
        C::run(arguments, printer);
    };

/// The base of a command with a settings record. The command supplies
///
///     using Options = BuildSettings;                         // default-constructible
///     static CommandLineOptions<Options> options();          // made once, on first use
///     static void execute(const Options& options, AnyCommandLinePrinter& printer);
///
/// besides `name` and `description`, and this base provides `shortUsage` (the options' usage),
/// `optionDescriptions` (one per option, in declaration order) and `run`, which parses the
/// arguments into `Options()` and executes the command with the result; parse errors pass
/// through.
template <class Derived>
struct CommandLineCommand {
    /// The command's option set, made by `Derived::options()` once per process.
    static const auto& commandLineOptions() {
        static const auto options = Derived::options();
        return options;
    }

    static std::string shortUsage() { return commandLineOptions().shortUsage(); }

    static std::vector<CommandLineOptionDescription> optionDescriptions() {
        return commandLineOptions().optionDescriptions();
    }

    static void run(std::span<const std::string> arguments, AnyCommandLinePrinter& printer) {
        using Options = typename Derived::Options;
        static_assert(DefaultInit<Options>, "a command's Options must be default-constructible");
        Derived::execute(commandLineOptions().parse(arguments, Options()), printer);
    }
};

/// A command type, as a tool holds it: the command's static members behind one value.
class CommandLineCommandType {
  public:
    template <CommandLineCommandProtocol C>
    static constexpr CommandLineCommandType of() noexcept {
        return CommandLineCommandType(
            [] { return std::string_view(C::name); },
            [] { return std::string_view(C::description); },
            [] { return std::string(C::shortUsage()); },
            [] { return std::vector<CommandLineOptionDescription>(C::optionDescriptions()); },
            [](std::span<const std::string> arguments, AnyCommandLinePrinter& printer) {
                C::run(arguments, printer);
            });
    }

    std::string_view name() const { return name_(); }
    std::string_view description() const { return description_(); }
    std::string shortUsage() const { return shortUsage_(); }
    std::vector<CommandLineOptionDescription> optionDescriptions() const {
        return optionDescriptions_();
    }
    void run(std::span<const std::string> arguments, AnyCommandLinePrinter& printer) const {
        run_(arguments, printer);
    }

  private:
    constexpr CommandLineCommandType(
        std::string_view (*name)(), std::string_view (*description)(), std::string (*shortUsage)(),
        std::vector<CommandLineOptionDescription> (*optionDescriptions)(),
        void (*run)(std::span<const std::string>, AnyCommandLinePrinter&)) noexcept
        : name_(name),
          description_(description),
          shortUsage_(shortUsage),
          optionDescriptions_(optionDescriptions),
          run_(run) {}

    std::string_view (*name_)();
    std::string_view (*description_)();
    std::string (*shortUsage_)();
    std::vector<CommandLineOptionDescription> (*optionDescriptions_)();
    void (*run_)(std::span<const std::string>, AnyCommandLinePrinter&);
};

/// The command type `C`, for a tool's command list: `{commandType<Build>, commandType<Clean>}`.
template <CommandLineCommandProtocol C>
inline constexpr CommandLineCommandType commandType = CommandLineCommandType::of<C>();

/// A program of several commands: `tool build -o out`, `tool clean`. The first argument picks the
/// command by its exact name; the rest is the command's. All output goes through `printer`.
///
/// The usage page:
///
///     Usage: tool build OPTIONS FILE
///            tool clean
///
///     <description>
///
///     COMMANDS
///
///     build OPTIONS FILE
///
///     <command description>
///
///     --output PATH, -o PATH
///         <option description, each line indented by four blanks>
///
/// Synopsis lines are the process name and each usage example, aligned under the first. With no
/// usage examples, there is one synopsis line per command: its name and its `shortUsage`. Command
/// blocks are separated by two blank lines, and the page ends with a blank line.
class MIRELS_EXPORT CommandLineTool {
  public:
    CommandLineTool(
        std::string description, std::vector<CommandLineCommandType> commands,
        std::vector<std::string> usageExamples,
        std::shared_ptr<AnyCommandLinePrinter> printer = std::make_shared<CommandLinePrinter>());

    const std::string& description() const noexcept { return description_; }
    const std::vector<CommandLineCommandType>& commands() const noexcept { return commands_; }
    const std::vector<std::string>& usageExamples() const noexcept { return usageExamples_; }
    AnyCommandLinePrinter& printer() const noexcept { return *printer_; }

    /// Runs with the process's arguments (without the program path). Returns when the command
    /// succeeds or help was printed; on any failure prints "*** " and the error's message (the
    /// message of a human-readable error, else its `what()`) and ends the process with status 1.
    void run() const;

    /// Runs with `arguments`: no arguments print the usage page and throw `MissingCommandError`;
    /// a first argument that is a command's name runs that command with the rest (its errors
    /// pass through); otherwise "-h", "--help" and "-help" print the usage page, and anything
    /// else prints the usage page and throws `UnknownCommandError`. Command names are compared
    /// first, so a command may take a help flag's name.
    template <CommandLineArgumentRange R>
    void run(const R& arguments) const {
        std::vector<std::string> list;
        for (auto&& argument : arguments) list.emplace_back(std::string_view(argument));
        runArguments(list);
    }
    void run(std::initializer_list<std::string_view> arguments) const {
        runArguments(std::vector<std::string>(arguments.begin(), arguments.end()));
    }

    /// The usage page (see the class comment).
    std::string usage() const;
    void printUsage() const;

  private:
    void runArguments(std::span<const std::string> arguments) const;

    std::string description_;
    std::vector<CommandLineCommandType> commands_;
    std::vector<std::string> usageExamples_;
    std::shared_ptr<AnyCommandLinePrinter> printer_;
};

}  // namespace mirels
