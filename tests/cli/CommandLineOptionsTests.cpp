#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "mirels/cli/CommandLineErrors.h"
#include "mirels/cli/CommandLineOptions.h"

namespace mirels {

enum class Mode { debug, release, profile };

template <>
struct RawValueCases<Mode> {
    static constexpr std::array cases = {std::pair{Mode::debug, "debug"},
                                         std::pair{Mode::release, "release"},
                                         std::pair{Mode::profile, "profile"}};
};

namespace {

struct Settings {
    std::optional<std::string> output;
    bool verbose = false;
    std::int64_t count = 0;
    std::int8_t small = 0;
    std::uint16_t port = 0;
    Mode mode = Mode::debug;
    std::optional<Mode> optionalMode;
    std::optional<std::string> first;
    std::vector<std::string> rest;
    std::vector<std::string> defines;
};

using Option = CommandLineOption<Settings>;
using Consumer = CommandLineArgumentConsumer<Settings>;
using Options = CommandLineOptions<Settings>;

Options standardOptions() {
    return Options(
        {Option::string("output", {"o"}, "path", &Settings::output, "Where to write."),
         Option::boolean("verbose", {"v"}, &Settings::verbose, "Talk more."),
         Option::integer("count", {"n"}, "number", &Settings::count, "How many."),
         Option::integer("small", {}, "number", &Settings::small, "A byte."),
         Option::integer("port", {}, "number", &Settings::port, "A port."),
         Option::enumeration("mode", {"m"}, std::nullopt, &Settings::mode, "The build mode."),
         Option::optionalEnumeration("maybe", {}, "kind", &Settings::optionalMode, "Maybe."),
         Option("define", {"D"}, "pair", "Adds a definition; takes two values.",
                [](Settings& settings, CommandLineValueFetcher& fetch) {
                    std::string key(fetch());
                    settings.defines.push_back(key + "=" + std::string(fetch()));
                })},
        {Consumer::string("first", &Settings::first), Consumer::strings("rest", &Settings::rest)});
}

template <class E>
E parseFailure(const Options& options, std::vector<std::string> arguments) {
    try {
        (void)options.parse(arguments, Settings());
    } catch (const E& error) {
        return error;
    }
    ADD_FAILURE() << "expected " << typeid(E).name();
    throw std::logic_error("no error");
}

TEST(CommandLineOptions, EveryFormOfAValueOptionSetsTheSameField) {
    const Options options = standardOptions();
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"-o", "out.txt"},
                                                      {"--o", "out.txt"},
                                                      {"--o=out.txt"},
                                                      {"-o=out.txt"},
                                                      {"--output", "out.txt"},
                                                      {"---output-", "out.txt"},
                                                      {"--output==out.txt=ignored"}}) {
        EXPECT_EQ(options.parse(arguments, Settings()).output, "out.txt") << arguments[0];
    }
    // "--name=" has no inline value, so the next argument is taken, even one that looks like an
    // option; a later occurrence wins.
    Settings settings = options.parse({"--output=", "-v", "-o", "a", "--output", "b"}, Settings());
    EXPECT_EQ(settings.output, "b");
    EXPECT_FALSE(settings.verbose);
    // A switch ignores its inline value; options and positionals interleave.
    settings = options.parse({"x", "--verbose=no", "y", "-n", "-5", "z"}, Settings());
    EXPECT_TRUE(settings.verbose);
    EXPECT_EQ(settings.count, -5);
    EXPECT_EQ(settings.first, "x");
    EXPECT_EQ(settings.rest, (std::vector<std::string>{"y", "z"}));
    // The general form asks for two values: inline first, then the next argument.
    settings = options.parse({"-D=a=b", "c", "--define", "k", "v"}, Settings());
    EXPECT_EQ(settings.defines, (std::vector<std::string>{"a=c", "k=v"}));
    // Arguments may come from argv-like storage too.
    const char* argv[] = {"-vo", "--verbose"};
    EXPECT_TRUE(options.parse(std::span<const char* const>(argv + 1, 1), Settings()).verbose);
}

TEST(CommandLineOptions, UnknownArgumentsAndMissingValuesFailWithExactMessages) {
    const Options options = standardOptions();
    for (const std::string argument : {"--", "-", "--frob", "-x=1", "--=o", "---", "-="}) {
        const auto error = parseFailure<UnknownOptionError>(options, {argument});
        EXPECT_EQ(error.argument(), argument);
        EXPECT_EQ(error.additionalInfo(), "Unknown command line option \"" + argument + "\"");
    }
    EXPECT_EQ(parseFailure<OptionNeedsArgumentError>(options, {"-v", "-o"}).additionalInfo(),
              "Option \"o\" requires a value");
    // The name as typed, dashes removed, not the primary name.
    EXPECT_EQ(parseFailure<OptionNeedsArgumentError>(options, {"---o-="}).name(), "o");
    EXPECT_EQ(parseFailure<OptionNeedsArgumentError>(options, {"-D=a"}).name(), "D");

    // A limit-1 consumer alone refuses a second positional argument.
    const Options one(Consumer::string("first", &Settings::first));
    EXPECT_EQ(one.parse({"a"}, Settings()).first, "a");
    EXPECT_EQ(parseFailure<UnknownOptionError>(one, {"a", "b"}).additionalInfo(),
              "Unknown command line option \"b\"");
    EXPECT_EQ(parseFailure<UnknownOptionError>(Options(), {""}).argument(), "");
}

TEST(CommandLineOptions, ConsumersTakeTheirLimitsInTurn) {
    struct Files {
        std::vector<std::string> pairs;
        std::vector<std::string> single;
        std::vector<std::string> rest;
    };
    using C = CommandLineArgumentConsumer<Files>;
    auto into = [](std::vector<std::string> Files::*field) {
        return [field](Files& files, std::string_view argument) {
            (files.*field).emplace_back(argument);
        };
    };
    const CommandLineOptions<Files> options(
        std::vector<C>{C("pair", 2, into(&Files::pairs)), C("one", 1, into(&Files::single)),
                       C("rest", std::nullopt, into(&Files::rest))});
    const Files files = options.parse({"a", "b", "c", "d", "e"}, Files());
    EXPECT_EQ(files.pairs, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(files.single, (std::vector<std::string>{"c"}));
    EXPECT_EQ(files.rest, (std::vector<std::string>{"d", "e"}));
    EXPECT_EQ(options.shortUsage(), "PAIR1 PAIR2 ONE [REST]");
}

TEST(CommandLineOptions, LaterOptionsTakeOverNames) {
    struct Flags {
        std::vector<std::string> seen;
    };
    using O = CommandLineOption<Flags>;
    auto record = [](std::string label) {
        return [label](Flags& flags, CommandLineValueFetcher&) { flags.seen.push_back(label); };
    };
    const CommandLineOptions<Flags> options(
        CommandLineOptionBuilder::buildBlock(O("alpha", {"a", "x"}, std::nullopt, "", record("1")),
                                             O("beta", {"x"}, std::nullopt, "", record("2")),
                                             O("x", {"alpha"}, std::nullopt, "", record("3"))));
    EXPECT_EQ(options.parse({"-a", "-x", "--alpha", "--beta"}, Flags()).seen,
              (std::vector<std::string>{"1", "3", "3", "2"}));
    ASSERT_EQ(options.options().size(), 3u);
    EXPECT_EQ(options.options()[2].names(), (std::vector<std::string>{"x", "alpha"}));
    EXPECT_TRUE(CommandLineOptionBuilder::buildBlock<Flags>().empty());
    EXPECT_EQ(CommandLineArgumentConsumerBuilder::buildBlock(
                  CommandLineArgumentConsumer<Flags>("a", 1, nullptr),
                  CommandLineArgumentConsumer<Flags>("b", std::nullopt, nullptr))[1]
                  .name,
              "b");
}

TEST(CommandLineOptions, ErrorsFromApplyPassThroughAndLeaveTheInputAlone) {
    using O = CommandLineOption<Settings>;
    const Options options(
        O("boom", {}, std::nullopt, "",
          [](Settings&, CommandLineValueFetcher&) { throw std::runtime_error("boom"); }),
        Consumer::strings("rest", &Settings::rest));
    Settings original;
    original.rest = {"kept"};
    EXPECT_THROW((void)options.parse({"a", "--boom", "b"}, original), std::runtime_error);
    EXPECT_EQ(original.rest, (std::vector<std::string>{"kept"}));
}

TEST(CommandLineOptions, IntegersAreSignedDecimalsInTheFieldsRange) {
    const Options options = standardOptions();
    EXPECT_EQ(options.parse({"-n", "9223372036854775807"}, Settings()).count, INT64_MAX);
    EXPECT_EQ(options.parse({"-n=-9223372036854775808"}, Settings()).count, INT64_MIN);
    EXPECT_EQ(options.parse({"--small", "-128"}, Settings()).small, -128);
    EXPECT_EQ(options.parse({"--port", "65535"}, Settings()).port, 65535);
    EXPECT_EQ(options.parse({"-n", "007"}, Settings()).count, 7);
    for (const auto& [option, text] :
         std::vector<std::pair<std::string, std::string>>{{"count", "9223372036854775808"},
                                                          {"count", "+5"},
                                                          {"count", " 5"},
                                                          {"count", "5 "},
                                                          {"count", "5x"},
                                                          {"count", "-"},
                                                          {"count", "0x10"},
                                                          {"count", "1e3"},
                                                          {"count", "\xff"},
                                                          {"small", "128"},
                                                          {"port", "-1"},
                                                          {"port", "65536"}}) {
        const auto error = parseFailure<InvalidInteger>(options, {"--" + option, text});
        EXPECT_EQ(error.option(), option);
        EXPECT_EQ(error.text(), text);
        EXPECT_EQ(error.additionalInfo(),
                  "Invalid integer passed for \"" + option + "\": \"" + text + "\"");
    }
    // "--count=" has no inline value and "-n=" neither, so an empty text only comes as an
    // argument of its own.
    EXPECT_EQ(parseFailure<InvalidInteger>(options, {"-n", ""}).text(), "");
}

TEST(CommandLineOptions, EnumerationsListTheirRawValues) {
    const Options options = standardOptions();
    EXPECT_EQ(options.parse({"-m", "release"}, Settings()).mode, Mode::release);
    EXPECT_EQ(options.parse({"--maybe=profile"}, Settings()).optionalMode, Mode::profile);
    const auto error = parseFailure<UnknownEnumValue>(options, {"--m", "fast"});
    EXPECT_EQ(error.option(), "mode");
    EXPECT_EQ(error.additionalInfo(),
              "Invalid value passed for \"mode\": \"fast\nMust be one of: debug, release, profile");
    EXPECT_EQ(parseFailure<UnknownEnumValue>(options, {"--maybe", "Debug"}).option(), "maybe");

    const auto& mode = options.options()[5];
    EXPECT_EQ(mode.parameterDescription, "MODE");
    EXPECT_EQ(mode.description, "The build mode.\n\nMODE must be one of debug, release, profile");
    const auto& maybe = options.options()[6];
    EXPECT_EQ(maybe.parameterDescription, "kind");
    EXPECT_EQ(maybe.description, "Maybe.\n\nkind must be one of debug, release, profile");
}

TEST(CommandLineOptions, ShortUsageTexts) {
    EXPECT_EQ((CommandLineOptionDescription{"output", {"o"}, "path", ""}.shortUsage()),
              "--output PATH, -o PATH");
    EXPECT_EQ((CommandLineOptionDescription{"v", {"verbose", "é"}, std::nullopt, ""}.shortUsage()),
              "-v, --verbose, -é");
    EXPECT_EQ(Consumer("file", 3, nullptr).shortUsage(), "FILE1 FILE2 FILE3");
    EXPECT_EQ(Consumer("file", 1, nullptr).shortUsage(), "FILE");
    EXPECT_EQ(Consumer("file", std::nullopt, nullptr).shortUsage(), "[FILE]");
    EXPECT_EQ(Options().shortUsage(), "");
    EXPECT_EQ(Options(Consumer::string("in", &Settings::first)).shortUsage(), "IN");
    EXPECT_EQ(Options(Option::boolean("v", {}, &Settings::verbose, "")).shortUsage(), "OPTIONS");
    EXPECT_EQ(standardOptions().shortUsage(), "OPTIONS FIRST [REST]");

    const auto descriptions = standardOptions().optionDescriptions();
    ASSERT_EQ(descriptions.size(), 8u);
    EXPECT_EQ(descriptions[0],
              (CommandLineOptionDescription{"output", {"o"}, "path", "Where to write."}));
    EXPECT_EQ(descriptions[1].parameterDescription, std::nullopt);
}

TEST(CommandLineOptionsDeathTest, AConsumerLimitOfZeroStopsTheProcess) {
    EXPECT_DEATH(Consumer("file", 0, nullptr), "limit of 0");
    EXPECT_DEATH(Consumer("file", -2, nullptr), "limit of -2");
}

}  // namespace
}  // namespace mirels
