// Writes one crash report into a folder, the way a crash reporter in another process would:
//   crash_report_writer FOLDER NAME PID rename|inplace
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "mirels/crash/CrashReport.h"

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    const std::string folder = argv[1];
    const mirels::CrashReport report(
        argv[2], "309", std::atoi(argv[3]), mirels::PlistDate{1.5},
        mirels::CrashReport::ApplicationSpecificInformation{
            {"main", {"due to uncaught exception 'E', reason: 'from another process'"}}},
        {}, {}, "written by pid " + std::to_string(getpid()));
    const std::string text = report.jsonText();
    const std::string name = "report-" + std::to_string(getpid()) + ".json";
    const bool rename = std::string(argv[4]) == "rename";
    const std::string path = folder + "/" + (rename ? ".partial-" + name : name);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return 1;
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return 1;
    close(fd);
    if (rename && std::rename(path.c_str(), (folder + "/" + name).c_str()) != 0) return 1;
    return 0;
}
