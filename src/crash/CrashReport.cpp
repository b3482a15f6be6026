#include "mirels/crash/CrashReport.h"

#include <cmath>
#include <ctime>

#include "mirels/crash/ConditionInFileError.h"
#include "mirels/crash/CrashError.h"
#include "mirels/crash/DyldLibraryLoadCrashError.h"
#include "mirels/crash/MissingEnvironmentObjectError.h"
#include "mirels/crash/UncaughtExceptionError.h"

namespace mirels {

CrashReport::CrashReport(std::string name, std::string bugType, std::int32_t pid, PlistDate time,
                         std::optional<ApplicationSpecificInformation> asi,
                         std::vector<Image> images, std::vector<Frame> frames,
                         std::optional<std::string> logFilePath)
    : name_(std::move(name)),
      bugType_(std::move(bugType)),
      pid_(pid),
      time_(time),
      asi_(std::move(asi)),
      images_(std::move(images)),
      frames_(std::move(frames)),
      logFilePath_(std::move(logFilePath)) {}

bool operator==(const CrashReport& a, const CrashReport& b) {
    return a.name_ == b.name_ && a.bugType_ == b.bugType_ && a.pid_ == b.pid_ &&
           a.time_ == b.time_ && a.asi_ == b.asi_ && a.images_ == b.images_ &&
           a.frames_ == b.frames_ && a.logFilePath_ == b.logFilePath_;
}

// --- decoding and encoding ---

// Fields are read one after the other, in the order of the type, so that a report with several
// faults always names the same one.

CrashReport::Frame CrashReport::Frame::fromJson(const JsonValue& value) {
    const JsonObject object = value.object();
    Frame frame;
    frame.imageIndex = object.decode<std::intptr_t>("imageIndex");
    frame.imageOffset = object.decode<std::intptr_t>("imageOffset");
    frame.symbol = object.decode<std::optional<std::string>>("symbol");
    frame.symbolLocation = object.decode<std::optional<std::intptr_t>>("symbolLocation");
    return frame;
}

CrashReport::Image CrashReport::Image::fromJson(const JsonValue& value) {
    const JsonObject object = value.object();
    Image image;
    image.uuid = object.decode<std::string>("uuid");
    image.base = object.decode<std::intptr_t>("base");
    image.path = object.decode<std::optional<std::string>>("path");
    image.name = object.decode<std::optional<std::string>>("name");
    return image;
}

CrashReport CrashReport::fromJson(const JsonValue& value) {
    const JsonObject object = value.object();
    auto name = object.decode<std::string>("name");
    auto bugType = object.decode<std::string>("bug_type");
    auto pid = object.decode<std::int32_t>("pid");
    auto time = object.decode<PlistDate>("time");
    auto asi = object.decode<std::optional<ApplicationSpecificInformation>>("asi");
    auto images = object.decode<std::vector<Image>>("images");
    auto frames = object.decode<std::vector<Frame>>("frames");
    auto logFilePath = object.decode<std::optional<std::string>>("logFilePath");
    return CrashReport(std::move(name), std::move(bugType), pid, time, std::move(asi),
                       std::move(images), std::move(frames), std::move(logFilePath));
}

CrashReport CrashReport::decode(std::string_view jsonText) {
    return decodeJson<CrashReport>(jsonText);
}

void CrashReport::Frame::writeJson(JsonWriter& writer) const {
    writer.beginObject();
    writer.key("imageIndex").integer(imageIndex);
    writer.key("imageOffset").integer(imageOffset);
    if (symbol) writer.key("symbol").string(*symbol);
    if (symbolLocation) writer.key("symbolLocation").integer(*symbolLocation);
    writer.endObject();
}

void CrashReport::Image::writeJson(JsonWriter& writer) const {
    writer.beginObject();
    writer.key("uuid").string(uuid);
    writer.key("base").integer(base);
    if (path) writer.key("path").string(*path);
    if (name) writer.key("name").string(*name);
    writer.endObject();
}

void CrashReport::writeJson(JsonWriter& writer) const {
    writer.beginObject();
    writer.key("name").string(name_);
    writer.key("bug_type").string(bugType_);
    writer.key("pid").integer(pid_);
    writer.key("time").number(time_.secondsSinceReferenceDate);
    if (asi_) {
        writer.key("asi").beginObject();
        for (const auto& [key, lines] : *asi_) {
            writer.key(key).beginArray();
            for (const std::string& line : lines) writer.string(line);
            writer.endArray();
        }
        writer.endObject();
    }
    writer.key("images").beginArray();
    for (const Image& image : images_) image.writeJson(writer);
    writer.endArray();
    writer.key("frames").beginArray();
    for (const Frame& frame : frames_) frame.writeJson(writer);
    writer.endArray();
    if (logFilePath_) writer.key("logFilePath").string(*logFilePath_);
    writer.endObject();
}

std::string CrashReport::jsonText() const {
    JsonWriter writer;
    writeJson(writer);
    return writer.take();
}

// --- description ---

std::string CrashReport::dateText(PlistDate date) {
    // 978307200 seconds lie between 1970-01-01 and 2001-01-01, both at midnight UTC.
    constexpr double referenceDateInUnixSeconds = 978307200.0;
    const double unixSeconds =
        std::floor(date.secondsSinceReferenceDate + referenceDateInUnixSeconds);
    std::tm parts{};
    if (std::isfinite(unixSeconds) && unixSeconds > -6.7e10 && unixSeconds < 2.5e11) {
        const auto seconds = static_cast<std::time_t>(unixSeconds);
        if (gmtime_r(&seconds, &parts) != nullptr) {
            char buffer[64];
            const std::size_t length =
                std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &parts);
            if (length > 0) return std::string(buffer, length);
        }
    }
    // Outside the calendar's range: the raw number, so nothing is hidden.
    return std::to_string(date.secondsSinceReferenceDate) +
           " seconds since 2001-01-01 00:00:00 +0000";
}

void CrashReport::describe(std::vector<StructuredDescriptionBuildAction>& actions) const {
    using Action = StructuredDescriptionBuildAction;
    static const std::string none = "<none>";
    actions.push_back(Action::line("Process: " + name_ + "[" + std::to_string(pid_) + "]"));
    actions.push_back(Action::keyValue("Date/Time", dateText(time_)));
    actions.push_back(Action::line("Log File: " + logFilePath_.value_or(none)));

    if (asi_ && !asi_->isEmpty()) {
        std::vector<Action> entries;
        for (const auto& [key, lines] : *asi_) {
            std::vector<Action> lineActions;
            lineActions.reserve(lines.size());
            for (const std::string& line : lines) lineActions.push_back(Action::line(line));
            entries.push_back(Action::section(key, std::move(lineActions)));
        }
        actions.push_back(Action::section("Application Specific Information:", std::move(entries)));
    }

    std::vector<Action> frameGroups;
    frameGroups.reserve(frames_.size());
    for (const Frame& frame : frames_) {
        frameGroups.push_back(Action::group(
            "Frame",
            {Action::line("imageIndex: " + std::to_string(frame.imageIndex)),
             Action::line("imageOffset: " + std::to_string(frame.imageOffset)),
             Action::line("symbol: " + frame.symbol.value_or(none)),
             Action::line("symbolLocation: " +
                          (frame.symbolLocation ? std::to_string(*frame.symbolLocation) : none))}));
    }
    actions.push_back(Action::section("Frames:", std::move(frameGroups)));

    std::vector<Action> imageGroups;
    imageGroups.reserve(images_.size());
    for (const Image& image : images_) {
        imageGroups.push_back(
            Action::group("Image", {Action::line("uuid: " + image.uuid),
                                    Action::line("base: " + std::to_string(image.base)),
                                    Action::line("name: " + image.name.value_or(none)),
                                    Action::line("path: " + image.path.value_or(none))}));
    }
    actions.push_back(Action::section("Images:", std::move(imageGroups)));
}

// --- the effective error ---

std::shared_ptr<const CrashReportError> CrashReport::effectiveError() const {
    // The fixed order: the most specific explanations first.
    if (auto error = detail::attemptCrashReportError<MissingEnvironmentObjectError>(*this))
        return error;
    if (auto error = detail::attemptCrashReportError<ConditionInFileError>(*this)) return error;
    if (auto error = detail::attemptCrashReportError<DyldLibraryLoadCrashError>(*this))
        return error;
    if (auto error = detail::attemptCrashReportError<UncaughtExceptionError>(*this)) return error;
    return std::make_shared<const CrashError>(*this);
}

// --- CrashError ---

std::optional<std::string> CrashError::highValueTitle() const {
    return crashReport().name() + " crashed";
}

std::optional<std::string> CrashError::additionalInfo() const {
    return crashReport().name() + " crashed.";
}

}  // namespace mirels
