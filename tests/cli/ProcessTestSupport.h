#pragma once

#include <dirent.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "mirels/cli/CommandLineToolInvocation.h"

namespace mirels::testing {

inline std::string probePath() {
    return std::string(MIRELS_TEST_PROGRAM_DIR) + "/cli_process_probe";
}

/// Open descriptors of this process.
inline int openDescriptorCount() {
    DIR* directory = ::opendir("/proc/self/fd");
    int count = 0;
    while (dirent* entry = ::readdir(directory)) {
        if (entry->d_name[0] != '.') ++count;
    }
    ::closedir(directory);
    return count - 1;  // the one that lists them
}

/// Whether any child of this process has ended without being reaped.
inline bool hasZombieChild() {
    siginfo_t info{};
    if (::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0) return false;  // ECHILD
    return info.si_pid != 0;
}

/// An error the tests can recognise, carrying what the handler received.
struct ToolTestError : std::exception {
    std::string kind;
    std::string text;
    ToolTestError(std::string k, std::string t) : kind(std::move(k)), text(std::move(t)) {}
    const char* what() const noexcept override { return text.c_str(); }
};

inline CommandLineToolInvocation probeInvocation(
    std::vector<std::string> arguments, CommandLineToolInvocation::Environment environment = {},
    std::optional<std::string> workingPath = std::nullopt, std::optional<Logger> log = std::nullopt,
    CommandLineToolInvocation::StandardError standardError =
        CommandLineToolInvocation::StandardError::passThrough) {
    return CommandLineToolInvocation(
        probePath(), std::move(arguments), std::move(environment), std::move(workingPath), "probe",
        std::move(log), false,
        [](const CommandLineToolInvocation&, const std::string& output) {
            return Error(ToolTestError("running", output));
        },
        [](const CommandLineToolInvocation&, const Error& error) {
            return Error(ToolTestError("launch", error.description()));
        },
        standardError);
}

}  // namespace mirels::testing
