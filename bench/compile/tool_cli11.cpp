// The tool of tool_mirels.cpp written with CLI11: one subcommand with the same 15 options and
// positional arguments.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

enum class Mode { debug, release, profile };

struct Settings {
    std::string output, input, config, name, target;
    bool verbose = false, quiet = false, force = false, dryRun = false, color = false;
    std::int64_t jobs = 1, level = 0, retries = 0, timeout = 0;
    Mode mode = Mode::debug;
    std::string first;
    std::vector<std::string> rest;
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("A tool.");
    app.require_subcommand(1);
    Settings s;
    CLI::App* build = app.add_subcommand("build", "Builds.");
    build->add_option("-o,--output", s.output, "Output file.");
    build->add_option("-i,--input", s.input, "Input file.");
    build->add_option("-c,--config", s.config, "Configuration.");
    build->add_option("-n,--name", s.name, "Name.");
    build->add_option("-t,--target", s.target, "Target.");
    build->add_flag("-v,--verbose", s.verbose, "Verbose.");
    build->add_flag("-q,--quiet", s.quiet, "Quiet.");
    build->add_flag("-f,--force", s.force, "Force.");
    build->add_flag("--dry-run", s.dryRun, "Dry run.");
    build->add_flag("--color", s.color, "Colour.");
    build->add_option("-j,--jobs", s.jobs, "Jobs.");
    build->add_option("-l,--level", s.level, "Level.");
    build->add_option("--retries", s.retries, "Retries.");
    build->add_option("--timeout", s.timeout, "Timeout.");
    const std::map<std::string, Mode> modes = {
        {"debug", Mode::debug}, {"release", Mode::release}, {"profile", Mode::profile}};
    build->add_option("-m,--mode", s.mode, "Mode.")->transform(CLI::CheckedTransformer(modes));
    build->add_option("first", s.first, "First.");
    build->add_option("rest", s.rest, "Rest.");
    build->callback([&] { std::puts(s.output.c_str()); });
    CLI11_PARSE(app, argc, argv);
    return 0;
}
