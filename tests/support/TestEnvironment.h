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

}  // namespace mirels::testing
