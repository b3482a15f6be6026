// Crash reports: decoding a realistic report against nlohmann/json and RapidJSON's DOM (parse and
// extract the same fields), the cost of key paths in errors, a crash-text regex search against a
// raw pcre2_jit_match, the effective error of a report no parser recognises, and describe+render.

#include <rapidjson/document.h>
#include <simdjson.h>

#include <nlohmann/json.hpp>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <string>

#include "mirels/crash/CrashReport.h"
#include "mirels/crash/CrashReportError.h"
#include "mirels/crash/UncaughtExceptionError.h"
#include "support/BenchSupport.h"

using namespace mirels;

namespace {

/// About 4 KB: 20 frames, 10 images, an "asi" map of 3 entries.
CrashReport realisticReport(std::size_t asiLines = 0) {
    std::vector<CrashReport::Image> images;
    for (int i = 0; i < 10; ++i) {
        images.push_back({"4C4C44A3-5555-3144-A1B2-0000000000" + std::to_string(10 + i),
                          0x100000000 + i * 0x10000,
                          "/usr/lib/mirels/libModule" + std::to_string(i) + ".so",
                          "libModule" + std::to_string(i) + ".so"});
    }
    std::vector<CrashReport::Frame> frames;
    for (int i = 0; i < 20; ++i) {
        frames.push_back(
            {i % 10, 0x1234 + i * 64, "Module::function" + std::to_string(i) + "()", i * 4});
    }
    CrashReport::ApplicationSpecificInformation asi;
    if (asiLines == 0) {
        asi.set("main", std::vector<std::string>{"abort() called", "Preview agent lost its host"});
        asi.set("libsystem_c", std::vector<std::string>{"assertion failed in render loop"});
        asi.set("runtime", std::vector<std::string>{"Thread 3: signal SIGABRT"});
    } else {
        std::vector<std::string> lines;
        for (std::size_t i = 0; i < asiLines; ++i) {
            lines.push_back("Thread " + std::to_string(i) +
                            " name: worker   Dispatch queue: org.mirels.render (serial) state=ok");
        }
        asi.set("main", std::move(lines));
    }
    return CrashReport("PreviewAgent", "309", 4242, PlistDate{785329451.125}, std::move(asi),
                       std::move(images), std::move(frames), "/var/log/crash/PreviewAgent.json");
}

const std::string& reportText() {
    static const std::string text = realisticReport().jsonText();
    return text;
}

void CrashDecode_Mirels(benchmark::State& state) {
    const std::string& text = reportText();
    for (auto _ : state) benchmark::DoNotOptimize(CrashReport::decode(text));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.counters["bytes"] = static_cast<double>(text.size());
}
BENCHMARK(CrashDecode_Mirels);

// The same simdjson DOM decoder with no key paths: what the paths cost on the success path.
CrashReport decodeWithoutPaths(const std::string& text) {
    thread_local simdjson::dom::parser parser;
    simdjson::dom::document document;
    simdjson::padded_string padded(text);
    simdjson::dom::element root = parser.parse_into_document(document, padded).value();
    simdjson::dom::object object = root.get_object().value();
    CrashReport::ApplicationSpecificInformation asi;
    const simdjson::dom::object asiObject = object["asi"].get_object().value();
    for (auto field : asiObject) {
        std::vector<std::string> lines;
        const simdjson::dom::array lineArray = field.value.get_array().value();
        for (auto line : lineArray) lines.emplace_back(line.get_string().value());
        asi.set(std::string(field.key), std::move(lines));
    }
    std::vector<CrashReport::Image> images;
    const simdjson::dom::array imageArray = object["images"].get_array().value();
    for (auto value : imageArray) {
        simdjson::dom::object image = value.get_object().value();
        images.push_back({std::string(image["uuid"].get_string().value()),
                          static_cast<std::intptr_t>(image["base"].get_int64().value()),
                          std::string(image["path"].get_string().value()),
                          std::string(image["name"].get_string().value())});
    }
    std::vector<CrashReport::Frame> frames;
    const simdjson::dom::array frameArray = object["frames"].get_array().value();
    for (auto value : frameArray) {
        simdjson::dom::object frame = value.get_object().value();
        frames.push_back({static_cast<std::intptr_t>(frame["imageIndex"].get_int64().value()),
                          static_cast<std::intptr_t>(frame["imageOffset"].get_int64().value()),
                          std::string(frame["symbol"].get_string().value()),
                          static_cast<std::intptr_t>(frame["symbolLocation"].get_int64().value())});
    }
    return CrashReport(std::string(object["name"].get_string().value()),
                       std::string(object["bug_type"].get_string().value()),
                       static_cast<std::int32_t>(object["pid"].get_int64().value()),
                       PlistDate{object["time"].get_double().value()}, std::move(asi),
                       std::move(images), std::move(frames),
                       std::string(object["logFilePath"].get_string().value()));
}

void CrashDecode_SimdjsonWithoutPaths(benchmark::State& state) {
    const std::string& text = reportText();
    for (auto _ : state) benchmark::DoNotOptimize(decodeWithoutPaths(text));
}
BENCHMARK(CrashDecode_SimdjsonWithoutPaths);

void CrashDecode_Nlohmann(benchmark::State& state) {
    const std::string& text = reportText();
    for (auto _ : state) {
        const nlohmann::json json = nlohmann::json::parse(text);
        CrashReport::ApplicationSpecificInformation asi;
        for (const auto& [key, value] : json.at("asi").items()) {
            asi.set(key, value.get<std::vector<std::string>>());
        }
        std::vector<CrashReport::Image> images;
        for (const auto& image : json.at("images")) {
            images.push_back(
                {image.at("uuid").get<std::string>(), image.at("base").get<std::intptr_t>(),
                 image.at("path").get<std::string>(), image.at("name").get<std::string>()});
        }
        std::vector<CrashReport::Frame> frames;
        for (const auto& frame : json.at("frames")) {
            frames.push_back({frame.at("imageIndex").get<std::intptr_t>(),
                              frame.at("imageOffset").get<std::intptr_t>(),
                              frame.at("symbol").get<std::string>(),
                              frame.at("symbolLocation").get<std::intptr_t>()});
        }
        benchmark::DoNotOptimize(
            CrashReport(json.at("name").get<std::string>(), json.at("bug_type").get<std::string>(),
                        json.at("pid").get<std::int32_t>(),
                        PlistDate{json.at("time").get<double>()}, std::move(asi), std::move(images),
                        std::move(frames), json.at("logFilePath").get<std::string>()));
    }
}
BENCHMARK(CrashDecode_Nlohmann);

void CrashDecode_RapidJsonDom(benchmark::State& state) {
    const std::string& text = reportText();
    auto string = [](const rapidjson::Value& value) {
        return std::string(value.GetString(), value.GetStringLength());
    };
    for (auto _ : state) {
        rapidjson::Document json;
        json.Parse(text.data(), text.size());
        CrashReport::ApplicationSpecificInformation asi;
        for (const auto& member : json["asi"].GetObject()) {
            std::vector<std::string> lines;
            for (const auto& line : member.value.GetArray()) lines.push_back(string(line));
            asi.set(string(member.name), std::move(lines));
        }
        std::vector<CrashReport::Image> images;
        for (const auto& image : json["images"].GetArray()) {
            images.push_back({string(image["uuid"]),
                              static_cast<std::intptr_t>(image["base"].GetInt64()),
                              string(image["path"]), string(image["name"])});
        }
        std::vector<CrashReport::Frame> frames;
        for (const auto& frame : json["frames"].GetArray()) {
            frames.push_back({static_cast<std::intptr_t>(frame["imageIndex"].GetInt64()),
                              static_cast<std::intptr_t>(frame["imageOffset"].GetInt64()),
                              string(frame["symbol"]),
                              static_cast<std::intptr_t>(frame["symbolLocation"].GetInt64())});
        }
        benchmark::DoNotOptimize(
            CrashReport(string(json["name"]), string(json["bug_type"]), json["pid"].GetInt(),
                        PlistDate{json["time"].GetDouble()}, std::move(asi), std::move(images),
                        std::move(frames), string(json["logFilePath"])));
    }
}
BENCHMARK(CrashDecode_RapidJsonDom);

const std::string searchedLine =
    "Thread 7 name: worker   Dispatch queue: org.mirels.render (serial) state=ok, last "
    "exception none, reason: nothing in particular";

void CrashRegex_Mirels(benchmark::State& state) {
    const Regex* regex = UncaughtExceptionError::regex();
    {
        bench::AllocationCounter allocations(state);
        for (auto _ : state) benchmark::DoNotOptimize(regex->firstMatch(searchedLine));
    }
}
BENCHMARK(CrashRegex_Mirels);

void CrashRegex_RawPcre2JitMatch(benchmark::State& state) {
    const auto* code = static_cast<const pcre2_code*>(UncaughtExceptionError::regex()->code());
    pcre2_match_data* data = pcre2_match_data_create_from_pattern(code, nullptr);
    const auto* subject = reinterpret_cast<PCRE2_SPTR>(searchedLine.data());
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            pcre2_jit_match(code, subject, searchedLine.size(), 0, 0, data, nullptr));
    }
    pcre2_match_data_free(data);
}
BENCHMARK(CrashRegex_RawPcre2JitMatch);

void CrashEffectiveError_NoParserMatches50Lines(benchmark::State& state) {
    const CrashReport report = realisticReport(50);
    for (auto _ : state) benchmark::DoNotOptimize(report.effectiveError());
}
BENCHMARK(CrashEffectiveError_NoParserMatches50Lines);

void CrashDescribeAndRender(benchmark::State& state) {
    const CrashReport report = realisticReport();
    for (auto _ : state) benchmark::DoNotOptimize(report.structuredDescription());
}
BENCHMARK(CrashDescribeAndRender);

}  // namespace

int main(int argc, char** argv) {
    return bench::runBenchmarks(argc, argv);
}
