#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace mirels::testing {

/// A fresh directory under the system's temporary folder, removed with everything in it when
/// this goes away.
class TemporaryDirectory {
  public:
    explicit TemporaryDirectory(std::string_view prefix = "mirels") {
        std::string pattern =
            (std::filesystem::temp_directory_path() / (std::string(prefix) + "-XXXXXX")).string();
        if (mkdtemp(pattern.data()) == nullptr) {
            ADD_FAILURE() << "mkdtemp failed for " << pattern;
        }
        path_ = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const noexcept { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& child) const {
        return path_ / child;
    }

  private:
    std::filesystem::path path_;
};

}  // namespace mirels::testing
