// Logs analytics events through CoreTallyLogger into a recording transport, changing the
// "QKLogCoreTally" preference between events as its arguments say, then prints what was
// recorded. Tests run it in a fresh process (the switch is read once per process), sometimes
// from inside a fake application bundle.
//
// Arguments, in order: "log" (log one event), "pref=true", "pref=false", "pref=unset".

#include <cstdio>
#include <string_view>

#include "mirels/analytics/RecordingCoreTallyTransport.h"
#include "mirels/version/HostBundle.h"
#include "mirels/version/UserDefaults.h"

int main(int argc, char** argv) {
    using namespace mirels;
    ScopedRecordingTransport recorder;
    CoreTallyLogger logger;
    for (int i = 1; i < argc; ++i) {
        std::string_view action = argv[i];
        if (action == "log") {
            logger.logEvent("probe", {{"step", i}});
        } else if (action == "pref=true") {
            UserDefaults::standard().set("QKLogCoreTally", true);
        } else if (action == "pref=false") {
            UserDefaults::standard().set("QKLogCoreTally", false);
        } else if (action == "pref=unset") {
            UserDefaults::standard().remove("QKLogCoreTally");
        } else {
            std::fprintf(stderr, "unknown action %s\n", argv[i]);
            return 2;
        }
    }
    auto events = recorder->events();
    std::printf("events=%zu\n", events.size());
    for (const auto& event : events) {
        auto text = [&](const char* key) -> std::string {
            auto found = event.payload.find(key);
            if (found == event.payload.end()) return "(absent)";
            if (!found->second) return "null";
            if (const auto* string = found->second->getIf<std::string>()) return *string;
            return describe(*found->second);
        };
        std::printf("event %s responsibleProcess=%s kestrelVersion=%s\n", event.name.c_str(),
                    text("responsibleProcess").c_str(), text("kestrelVersion").c_str());
    }
    const auto& build = hostBundleBuildVersion();
    std::printf("hostBundleBuildVersion=%s\n", build ? build->c_str() : "(none)");
    return 0;
}
