#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace mirels::testing {

struct ChildResult {
    int exitCode = -1;   // -1 when the child did not exit normally
    std::string output;  // what it wrote to standard output
};

/// Runs `program` with `arguments` and the current environment plus `environment` (which
/// replaces variables of the same name), and waits for it.
inline ChildResult runChild(const std::string& program, const std::vector<std::string>& arguments,
                            const std::vector<std::pair<std::string, std::string>>& environment) {
    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string variable = *entry;
        bool replaced = false;
        for (const auto& [name, value] : environment) {
            if (variable.starts_with(name + "=")) replaced = true;
        }
        if (!replaced) variables.push_back(std::move(variable));
    }
    for (const auto& [name, value] : environment) variables.push_back(name + "=" + value);
    std::vector<char*> envp;
    for (auto& variable : variables) envp.push_back(variable.data());
    envp.push_back(nullptr);
    std::vector<std::string> argumentStrings = {program};
    argumentStrings.insert(argumentStrings.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : argumentStrings) argv.push_back(argument.data());
    argv.push_back(nullptr);

    ChildResult result;
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    pid_t pid = 0;
    int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    if (spawned == 0) {
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(pipeFds[0], buffer, sizeof buffer)) > 0) {
            result.output.append(buffer, static_cast<std::size_t>(count));
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    }
    ::close(pipeFds[0]);
    return result;
}

}  // namespace mirels::testing
