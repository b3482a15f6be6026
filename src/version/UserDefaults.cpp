#include "mirels/version/UserDefaults.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <system_error>
#include <utility>
#include <vector>

#include "../core/SystemErrorText.h"
#include "mirels/core/FatalError.h"
#include "mirels/platform/Log.h"
#include "mirels/plist/PlistSerialization.h"

namespace mirels {

namespace {

// A preferences file larger than this is not read (it is not one this store wrote).
constexpr off_t maximumFileSize = off_t{64} * 1024 * 1024;

const Logger& defaultsLog() {
    static const auto* logger = new Logger(std::string(UserDefaults::standardDomain), "defaults");
    return *logger;
}

void checkDomain(std::string_view domain) {
    if (domain.empty() || domain == "." || domain == ".." ||
        domain.find('/') != std::string_view::npos) {
        fatalError("a user-defaults domain must be a file name without \"/\", not \"" +
                   std::string(domain) + "\"");
    }
}

std::filesystem::path homeDirectory() {
    // The library never changes the environment; getenv only races a caller's own setenv.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (const char* home = ::getenv("HOME"); home != nullptr && *home != '\0') return home;
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return "/";
}

// Reads a whole file; an error text on failure.
std::optional<std::string> readFile(const std::filesystem::path& file, std::string& contents) {
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "cannot open: " + detail::systemErrorText(errno);
    std::optional<std::string> problem;
    char buffer[16384];
    while (true) {
        ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR) continue;
            problem = "cannot read: " + detail::systemErrorText(errno);
            break;
        }
        if (count == 0) break;
        contents.append(buffer, static_cast<std::size_t>(count));
        if (contents.size() > static_cast<std::size_t>(maximumFileSize)) {
            problem = "file too large";
            break;
        }
    }
    ::close(fd);
    return problem;
}

// Writes `contents` to a new file beside `file` and renames it over `file`.
std::optional<std::string> replaceFile(const std::filesystem::path& file,
                                       std::string_view contents) {
    std::error_code error;
    std::filesystem::create_directories(file.parent_path(), error);
    if (error) return "cannot create its folder: " + error.message();
    std::string temporary = file.string() + ".XXXXXX";
    int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return "cannot create a temporary file: " + detail::systemErrorText(errno);
    const char* data = contents.data();
    std::size_t left = contents.size();
    std::optional<std::string> problem;
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            problem = "cannot write: " + detail::systemErrorText(errno);
            break;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    // Flushed before the rename, so that a crash leaves the old file or the new one, whole.
    if (!problem && ::fsync(fd) != 0) problem = "cannot write: " + detail::systemErrorText(errno);
    if (::close(fd) != 0 && !problem) problem = "cannot write: " + detail::systemErrorText(errno);
    if (!problem && ::rename(temporary.c_str(), file.c_str()) != 0) {
        problem = "cannot replace it: " + detail::systemErrorText(errno);
    }
    if (problem) ::unlink(temporary.c_str());
    return problem;
}

}  // namespace

UserDefaults& UserDefaults::standard() {
    // Never destroyed: preferences are read from static destructors and late threads too.
    static auto* defaults = new UserDefaults(std::string(standardDomain));
    return *defaults;
}

UserDefaults::UserDefaults(std::string domain)
    : domain_(std::move(domain)), file_((checkDomain(domain_), fileForDomain(domain_))) {}

UserDefaults::UserDefaults(std::string domain, std::filesystem::path file)
    : domain_(std::move(domain)), file_(std::move(file)) {}

std::filesystem::path UserDefaults::fileForDomain(std::string_view domain) {
    std::filesystem::path base;
    // A relative XDG_CONFIG_HOME is not valid and is ignored, as other XDG programs do.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): as for HOME above
    if (const char* config = ::getenv("XDG_CONFIG_HOME"); config != nullptr && config[0] == '/') {
        base = config;
    } else {
        base = homeDirectory() / ".config";
    }
    return base / "mirels" / (std::string(domain) + ".plist");
}

std::optional<std::string> UserDefaults::refresh(State& state) const {
    FileVersion current;
    struct stat info {};
    if (::stat(file_.c_str(), &info) == 0) {
        current.exists = true;
        current.device = info.st_dev;
        current.inode = info.st_ino;
        current.size = info.st_size;
        current.modifiedNanoseconds =
            static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    }
    if (state.loaded == current) return std::nullopt;
    state.loaded = current;
    state.values.clear();
    if (!current.exists) return std::nullopt;

    std::optional<std::string> problem;
    if (!S_ISREG(info.st_mode)) {
        problem = "not a regular file";
    } else if (info.st_size > maximumFileSize) {
        problem = "file too large";
    } else {
        std::string contents;
        problem = readFile(file_, contents);
        if (!problem) {
            try {
                PlistValue top = parsePropertyList(contents);
                if (auto* dictionary = top.getIf<PlistDictionary>()) {
                    state.values = std::move(*dictionary);
                } else {
                    problem = "the top level is a " + std::string(plistKindName(top.kind())) +
                              ", not a Dictionary";
                }
            } catch (const PropertyListSerializationError& error) {
                problem = error.what();
            }
        }
    }
    if (!problem || state.reportedDamage == current) return std::nullopt;
    state.reportedDamage = current;
    return problem;
}

template <class Result, class Body>
Result UserDefaults::read(Body&& body) const {
    std::optional<std::string> problem;
    Result result = state_.syncWrite([&](State& state) {
        problem = refresh(state);
        return body(std::as_const(state.values));
    });
    if (problem) {
        defaultsLog().error("Ignoring preferences file %{public}s: %{public}s", file_.string(),
                            *problem);
    }
    return result;
}

std::optional<PlistValue> UserDefaults::object(std::string_view key) const {
    return read<std::optional<PlistValue>>(
        [&](const PlistDictionary& values) -> std::optional<PlistValue> {
            auto found = values.find(key);
            if (found == values.end()) return std::nullopt;
            return found->second;
        });
}

std::optional<bool> UserDefaults::boolean(std::string_view key) const {
    return read<std::optional<bool>>([&](const PlistDictionary& values) -> std::optional<bool> {
        auto found = values.find(key);
        if (found == values.end()) return std::nullopt;
        if (const bool* flag = found->second.getIf<bool>()) return *flag;
        return std::nullopt;
    });
}

std::optional<std::string> UserDefaults::string(std::string_view key) const {
    return read<std::optional<std::string>>(
        [&](const PlistDictionary& values) -> std::optional<std::string> {
            auto found = values.find(key);
            if (found == values.end()) return std::nullopt;
            if (const auto* text = found->second.getIf<std::string>()) return *text;
            return std::nullopt;
        });
}

std::optional<std::int64_t> UserDefaults::integer(std::string_view key) const {
    return read<std::optional<std::int64_t>>(
        [&](const PlistDictionary& values) -> std::optional<std::int64_t> {
            auto found = values.find(key);
            if (found == values.end()) return std::nullopt;
            if (const auto* number = found->second.getIf<std::int64_t>()) return *number;
            return std::nullopt;
        });
}

PlistDictionary UserDefaults::dictionaryRepresentation() const {
    return read<PlistDictionary>([](const PlistDictionary& values) { return values; });
}

std::optional<std::string> UserDefaults::write(State& state) const {
    // Serialising first means a value that cannot be stored throws before anything changes.
    std::string xml = toXML(PlistValue(state.values));
    std::optional<std::string> problem = replaceFile(file_, xml);
    if (problem) return problem;
    struct stat info {};
    if (::stat(file_.c_str(), &info) == 0) {
        state.loaded = FileVersion{
            true, info.st_dev, info.st_ino, info.st_size,
            static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec};
    }
    return std::nullopt;
}

void UserDefaults::set(std::string_view key, PlistValue value) {
    std::optional<std::string> damage;
    std::optional<std::string> writeProblem;
    std::exception_ptr failure;
    state_.syncWrite([&](State& state) {
        damage = refresh(state);
        PlistDictionary previous = state.values;
        state.values.insert_or_assign(std::string(key), std::move(value));
        try {
            writeProblem = write(state);
        } catch (...) {
            state.values = std::move(previous);
            failure = std::current_exception();
        }
    });
    if (damage) {
        defaultsLog().error("Ignoring preferences file %{public}s: %{public}s", file_.string(),
                            *damage);
    }
    if (writeProblem) {
        defaultsLog().error("Could not write preferences file %{public}s: %{public}s",
                            file_.string(), *writeProblem);
    }
    if (failure) std::rethrow_exception(failure);
}

void UserDefaults::remove(std::string_view key) {
    std::optional<std::string> damage;
    std::optional<std::string> writeProblem;
    state_.syncWrite([&](State& state) {
        damage = refresh(state);
        auto found = state.values.find(key);
        if (found == state.values.end()) return;
        state.values.erase(found);
        try {
            writeProblem = write(state);
        } catch (const std::exception& error) {
            writeProblem = error.what();
        }
    });
    if (damage) {
        defaultsLog().error("Ignoring preferences file %{public}s: %{public}s", file_.string(),
                            *damage);
    }
    if (writeProblem) {
        defaultsLog().error("Could not write preferences file %{public}s: %{public}s",
                            file_.string(), *writeProblem);
    }
}

}  // namespace mirels
