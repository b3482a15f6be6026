// A child for the process tests: each mode shows one thing about how it was started, or behaves
// in one awkward way.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

void writeAll(int descriptor, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + done, text.size() - done);
        if (count <= 0) return;
        done += static_cast<std::size_t>(count);
    }
}

void sleepMilliseconds(int milliseconds) {
    ::usleep(static_cast<useconds_t>(milliseconds) * 1000);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 64;
    const std::string mode = argv[1];
    if (mode == "args") {
        std::string out;
        for (int i = 2; i < argc; ++i) out += std::string("[") + argv[i] + "]\n";
        writeAll(1, out);
    } else if (mode == "env") {
        std::vector<std::string> entries;
        for (char** entry = environ; *entry != nullptr; ++entry) entries.emplace_back(*entry);
        std::sort(entries.begin(), entries.end());
        std::string out;
        for (const auto& entry : entries) out += entry + "\n";
        writeAll(1, out);
    } else if (mode == "cwd") {
        char buffer[4096];
        if (::getcwd(buffer, sizeof buffer) == nullptr) return 1;
        writeAll(1, buffer);
    } else if (mode == "signals") {
        // The ignored and blocked signal masks, as the kernel reports them.
        std::ifstream status("/proc/self/status");
        std::string line;
        std::string out;
        while (std::getline(status, line)) {
            if (line.starts_with("SigIgn:") || line.starts_with("SigBlk:")) out += line + "\n";
        }
        writeAll(1, out);
    } else if (mode == "fds") {
        // The open descriptors, but for the one that lists them.
        DIR* directory = ::opendir("/proc/self/fd");
        if (directory == nullptr) return 1;
        std::vector<int> descriptors;
        while (dirent* entry = ::readdir(directory)) {
            if (entry->d_name[0] == '.') continue;
            const int descriptor = std::atoi(entry->d_name);
            if (descriptor != ::dirfd(directory)) descriptors.push_back(descriptor);
        }
        ::closedir(directory);
        std::sort(descriptors.begin(), descriptors.end());
        std::string out;
        for (int descriptor : descriptors) out += std::to_string(descriptor) + " ";
        writeAll(1, out);
    } else if (mode == "exit" && argc >= 3) {
        if (argc >= 4) writeAll(1, argv[3]);
        return std::atoi(argv[2]);
    } else if (mode == "flood" && argc >= 3) {
        // Fills standard error far beyond a pipe's buffer before writing standard output.
        const std::size_t size = std::strtoul(argv[2], nullptr, 10);
        writeAll(2, std::string(size, 'e'));
        writeAll(1, std::string(size, 'o'));
    } else if (mode == "split") {
        // "café ü" with both multi-byte characters cut between two writes.
        writeAll(1, "caf\xC3");
        sleepMilliseconds(30);
        writeAll(1, "\xA9 \xC3");
        sleepMilliseconds(30);
        writeAll(1, "\xBC");
    } else if (mode == "invalid") {
        writeAll(1,
                 "a\xFF"
                 "b\xC3");  // a stray byte, then a character cut off by the end
    } else if (mode == "closeout") {
        writeAll(1, "early\n");
        ::close(1);
        sleepMilliseconds(300);
        return 0;
    } else if (mode == "ignoreterm") {
        std::signal(SIGTERM, SIG_IGN);
        if (argc >= 3) std::ofstream(argv[2]) << "ready";  // tells a test it may send SIGTERM
        writeAll(1, "ready\n");
        sleepMilliseconds(30'000);
    } else if (mode == "sleep" && argc >= 3) {
        sleepMilliseconds(std::atoi(argv[2]));
    } else if (mode == "killself" && argc >= 3) {
        writeAll(1, "dying\n");
        std::signal(std::atoi(argv[2]), SIG_DFL);
        std::raise(std::atoi(argv[2]));
        sleepMilliseconds(5'000);
    } else if (mode == "bytes" && argc >= 3) {
        std::size_t remaining = std::strtoul(argv[2], nullptr, 10);
        const std::string chunk(1 << 16, 'a');
        while (remaining > 0) {
            const std::size_t size = std::min(remaining, chunk.size());
            writeAll(1, chunk.substr(0, size));
            remaining -= size;
        }
    } else if (mode == "echoinput") {
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(0, buffer, sizeof buffer)) > 0) {
            writeAll(1, std::string(buffer, static_cast<std::size_t>(count)));
        }
    } else if (mode == "noread") {
        sleepMilliseconds(50);
    } else {
        return 64;
    }
    return 0;
}
