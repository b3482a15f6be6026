#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace mirels::testing {

/// Points the preference store at a private folder when the runner did not, so that a test binary
/// started by hand never reads or writes the user's own settings.
class MirelsEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        if (getenv("XDG_CONFIG_HOME") == nullptr) {
            std::string dir = (std::filesystem::temp_directory_path() / "mirels-tests-XXXXXX");
            if (mkdtemp(dir.data()) != nullptr) setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
        }
    }
};

/// For tests that run children under ptrace (the crash reporter): a sanitizer build's leak
/// checker stops the world with ptrace at exit, which a process that is already traced cannot
/// do, so it fails and the child's exit status is lost. Leak checking stays on in this process.
inline void disableLeakCheckingInChildren() {
    const char* current = getenv("ASAN_OPTIONS");
    std::string options = current == nullptr ? "" : current;
    if (options.find("detect_leaks=0") != std::string::npos) return;
    if (!options.empty()) options += ':';
    options += "detect_leaks=0";
    setenv("ASAN_OPTIONS", options.c_str(), 1);
}

}  // namespace mirels::testing
