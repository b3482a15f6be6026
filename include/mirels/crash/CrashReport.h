#pragma once

// `CrashReport`: one crash report of a crashed process.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/Export.h"
#include "mirels/collections/OrderedDictionary.h"
#include "mirels/plist/Json.h"
#include "mirels/plist/PlistValue.h"
#include "mirels/plist/StructuredDescription.h"

namespace mirels {

class CrashReportError;

/// One crash report of a crashed process: who crashed and when, the application-specific
/// information the crashing runtime left behind, the loaded images and the crashing thread's
/// frames. A value; every field is read-only.
///
/// JSON form (one object; unknown keys are ignored):
///   "name" string, "bug_type" string, "pid" 32-bit integer, "time" number of seconds since
///   2001-01-01 00:00:00 UTC (fraction allowed; an integer is accepted), "asi" optional object of
///   string -> array of strings, "images" array of Image, "frames" array of Frame,
///   "logFilePath" optional string.
/// Optional keys that are absent or `null` read as absent. The "asi" entries keep the order of
/// the text. Decoding errors name the key path (`JsonDecodingError`).
class MIRELS_EXPORT CrashReport final : public StructuredStringConvertible {
  public:
    /// One frame of the crashing thread. JSON keys equal the field names; "symbol" and
    /// "symbolLocation" are optional.
    struct Frame {
        /// Index into the report's `images`.
        std::intptr_t imageIndex = 0;
        std::intptr_t imageOffset = 0;
        std::optional<std::string> symbol;
        std::optional<std::intptr_t> symbolLocation;

        static Frame fromJson(const JsonValue& value);
        void writeJson(JsonWriter& writer) const;
        friend bool operator==(const Frame&, const Frame&) = default;
    };

    /// One loaded image. JSON keys equal the field names; "path" and "name" are optional.
    struct Image {
        std::string uuid;
        /// Load address.
        std::intptr_t base = 0;
        std::optional<std::string> path;
        std::optional<std::string> name;

        static Image fromJson(const JsonValue& value);
        void writeJson(JsonWriter& writer) const;
        friend bool operator==(const Image&, const Image&) = default;
    };

    /// Application-specific information: one list of lines per key, in insertion order.
    using ApplicationSpecificInformation = OrderedDictionary<std::string, std::vector<std::string>>;

    CrashReport(std::string name, std::string bugType, std::int32_t pid, PlistDate time,
                std::optional<ApplicationSpecificInformation> asi, std::vector<Image> images,
                std::vector<Frame> frames, std::optional<std::string> logFilePath);

    /// Decodes a report from its JSON object; throws `JsonDecodingError`.
    static CrashReport fromJson(const JsonValue& value);
    /// Parses and decodes JSON text; throws `JsonDecodingError`.
    static CrashReport decode(std::string_view jsonText);

    /// The report in its JSON form (the form `decode` reads).
    std::string jsonText() const;
    void writeJson(JsonWriter& writer) const;

    /// Process name.
    const std::string& name() const noexcept { return name_; }
    /// Report type code (JSON key "bug_type").
    const std::string& bugType() const noexcept { return bugType_; }
    std::int32_t pid() const noexcept { return pid_; }
    PlistDate time() const noexcept { return time_; }
    const std::optional<ApplicationSpecificInformation>& asi() const noexcept { return asi_; }
    const std::vector<Image>& images() const noexcept { return images_; }
    const std::vector<Frame>& frames() const noexcept { return frames_; }
    const std::optional<std::string>& logFilePath() const noexcept { return logFilePath_; }

    /// Appends, in order: "Process: name[pid]", the key-value entry "Date/Time", "Log File: "
    /// with the path or "<none>", the section "Application Specific Information:" (only when
    /// there is some), then the sections "Frames:" (a group "Frame" per frame) and "Images:" (a
    /// group "Image" per image).
    void describe(std::vector<StructuredDescriptionBuildAction>& actions) const override;

    /// The most specific error that explains this crash: the first of
    /// `MissingEnvironmentObjectError`, `ConditionInFileError`, `DyldLibraryLoadCrashError` and
    /// `UncaughtExceptionError` that recognises the report, else `CrashError`. Never fails.
    std::shared_ptr<const CrashReportError> effectiveError() const;

    /// The way "Date/Time" is shown: "2026-11-23 05:24:11 +0000" (UTC; fractions of a second
    /// are left out, as the report is read by people).
    static std::string dateText(PlistDate date);

    friend MIRELS_EXPORT bool operator==(const CrashReport& a, const CrashReport& b);

  private:
    std::string name_;
    std::string bugType_;
    std::int32_t pid_;
    PlistDate time_;
    std::optional<ApplicationSpecificInformation> asi_;
    std::vector<Image> images_;
    std::vector<Frame> frames_;
    std::optional<std::string> logFilePath_;
};

}  // namespace mirels
