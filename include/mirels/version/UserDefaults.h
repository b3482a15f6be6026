#pragma once

// `UserDefaults`: a per-user preference store.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "mirels/Export.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/plist/PlistValue.h"

namespace mirels {

/// A per-user preference store: one XML property-list file per domain, a dictionary of keys to
/// plain values, at `${XDG_CONFIG_HOME:-$HOME/.config}/mirels/<domain>.plist`.
///
/// Reads see changes made by other processes: before each read the file's identity, size and
/// modification time are compared with the version last read, and a changed file is read
/// again. Writes replace the file atomically (a temporary file renamed over it), so readers
/// never see half a file.
///
/// A missing file means every key is unset. An unreadable, empty, truncated or damaged file,
/// or one whose top level is not a dictionary, is logged once at error level (subsystem
/// "org.mirels.foundation", category "defaults") and read as empty. A write to such a file
/// replaces it. A write that fails is logged the same way; the value stays visible to this
/// object until the file changes.
///
/// Thread-safe. Neither copyable nor movable: share it by reference.
class MIRELS_EXPORT UserDefaults {
  public:
    /// The library's own domain.
    static constexpr std::string_view standardDomain = "org.mirels.foundation";

    /// The store of `standardDomain`, made on first use.
    static UserDefaults& standard();

    /// The store of `domain` at its standard location. A domain is a file name: it must be
    /// non-empty and contain no "/" (a fatal error otherwise).
    explicit UserDefaults(std::string domain);

    /// The store of `domain` kept in `file`, wherever that is (for tests and tools).
    UserDefaults(std::string domain, std::filesystem::path file);

    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    /// Where the file of `domain` lives, from the environment at the time of the call.
    static std::filesystem::path fileForDomain(std::string_view domain);

    const std::string& domain() const noexcept { return domain_; }
    const std::filesystem::path& file() const noexcept { return file_; }

    /// The value of `key`, or nothing when it is unset.
    std::optional<PlistValue> object(std::string_view key) const;
    /// The value of `key` when it is a boolean; nothing when unset or of another kind.
    std::optional<bool> boolean(std::string_view key) const;
    /// The value of `key` when it is a string; nothing when unset or of another kind.
    std::optional<std::string> string(std::string_view key) const;
    /// The value of `key` when it is an integer; nothing when unset or of another kind.
    std::optional<std::int64_t> integer(std::string_view key) const;
    /// Every key and value.
    PlistDictionary dictionaryRepresentation() const;

    /// Sets `key` to `value` and writes the file.
    void set(std::string_view key, PlistValue value);
    /// Unsets `key` and writes the file (nothing is written when it was not set).
    void remove(std::string_view key);

  private:
    // What identifies one version of the file on disk.
    struct FileVersion {
        bool exists = false;
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::int64_t size = 0;
        std::int64_t modifiedNanoseconds = 0;

        friend bool operator==(const FileVersion&, const FileVersion&) = default;
    };

    struct State {
        PlistDictionary values;
        std::optional<FileVersion> loaded;          // the version `values` came from
        std::optional<FileVersion> reportedDamage;  // the damaged version already logged
    };

    // Reads the file again if it changed since it was last read. Returns a problem to log
    // (after the lock is released), if any.
    std::optional<std::string> refresh(State& state) const;
    // Writes `state.values` to the file. Returns a problem to log, if any.
    std::optional<std::string> write(State& state) const;

    template <class Result, class Body>
    Result read(Body&& body) const;

    std::string domain_;
    std::filesystem::path file_;
    mutable ThreadSafe<State> state_;
};

}  // namespace mirels
