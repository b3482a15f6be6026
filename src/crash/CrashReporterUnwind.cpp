// Reading a stopped child's images and stack through elfutils' libdwfl: the modules come from
// /proc/<pid>/maps, the registers and memory through ptrace (the caller is the tracer), symbols
// from each file's symbol table.

#include <cxxabi.h>
#include <elfutils/libdwfl.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>

#include "mirels/crash/CrashReporter.h"

namespace mirels::detail {

namespace {

const Dwfl_Callbacks processCallbacks = {
    .find_elf = dwfl_linux_proc_find_elf,
    .find_debuginfo = dwfl_standard_find_debuginfo,
    .section_address = nullptr,
    .debuginfo_path = nullptr,
};

std::string hexBuildId(Dwfl_Module* module) {
    // The build ID of a module reported from /proc is read once its file has been opened.
    GElf_Addr bias = 0;
    (void)dwfl_module_getelf(module, &bias);
    const unsigned char* bits = nullptr;
    GElf_Addr vaddr = 0;
    const int length = dwfl_module_build_id(module, &bits, &vaddr);
    std::string text;
    if (length <= 0 || bits == nullptr) return text;
    static constexpr char digits[] = "0123456789abcdef";
    text.reserve(static_cast<std::size_t>(length) * 2);
    for (int i = 0; i < length; ++i) {
        text.push_back(digits[bits[i] >> 4]);
        text.push_back(digits[bits[i] & 0xF]);
    }
    return text;
}

std::string demangled(const char* name) {
    int status = 0;
    char* text = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    if (status != 0 || text == nullptr) return name;
    std::string result(text);
    std::free(text);  // NOLINT(cppcoreguidelines-no-malloc): the demangler's buffer
    return result;
}

struct Walk {
    CrashSnapshot snapshot;
    std::unordered_map<Dwfl_Module*, std::size_t> indexOfModule;
};

int addModule(Dwfl_Module* module, void** /*userdata*/, const char* name, Dwarf_Addr start,
              void* argument) {
    auto& walk = *static_cast<Walk*>(argument);
    CrashReport::Image image;
    image.uuid = hexBuildId(module);
    image.base = static_cast<std::intptr_t>(start);
    if (name != nullptr && name[0] != '\0') {
        const std::string path(name);
        if (path.front() == '/') {
            image.path = path;
            image.name = path.substr(path.rfind('/') + 1);
        } else {
            image.name = path;  // "[vdso: 1234]" and the like
        }
    }
    walk.indexOfModule.emplace(module, walk.snapshot.images.size());
    walk.snapshot.images.push_back(std::move(image));
    return DWARF_CB_OK;
}

// A stack deeper than this is cut: enough for any report, bounded for a runaway recursion.
constexpr std::size_t maximumFrameCount = 512;

int addFrame(Dwfl_Frame* frame, void* argument) {
    auto& walk = *static_cast<Walk*>(argument);
    Dwarf_Addr pc = 0;
    bool isActivation = false;
    if (!dwfl_frame_pc(frame, &pc, &isActivation)) return DWARF_CB_ABORT;
    // A return address points after the call; look the caller up at the call itself.
    const Dwarf_Addr lookup = isActivation || pc == 0 ? pc : pc - 1;
    Dwfl* dwfl = dwfl_thread_dwfl(dwfl_frame_thread(frame));
    Dwfl_Module* module = dwfl_addrmodule(dwfl, lookup);

    CrashReport::Frame result;
    result.imageIndex = -1;
    result.imageOffset = static_cast<std::intptr_t>(pc);
    if (module != nullptr) {
        if (auto found = walk.indexOfModule.find(module); found != walk.indexOfModule.end()) {
            result.imageIndex = static_cast<std::intptr_t>(found->second);
            result.imageOffset = static_cast<std::intptr_t>(
                pc - static_cast<Dwarf_Addr>(walk.snapshot.images[found->second].base));
        }
        GElf_Off offset = 0;
        GElf_Sym symbol{};
        const char* name =
            dwfl_module_addrinfo(module, lookup, &offset, &symbol, nullptr, nullptr, nullptr);
        if (name != nullptr) {
            result.symbol = demangled(name);
            result.symbolLocation = static_cast<std::intptr_t>(offset + (pc - lookup));
        }
    }
    walk.snapshot.frames.push_back(std::move(result));
    return walk.snapshot.frames.size() >= maximumFrameCount ? DWARF_CB_ABORT : DWARF_CB_OK;
}

}  // namespace

CrashSnapshot unwindStoppedThread(pid_t pid, pid_t tid) {
    Walk walk;
    Dwfl* dwfl = dwfl_begin(&processCallbacks);
    if (dwfl == nullptr) return {};
    dwfl_report_begin(dwfl);
    const int reported = dwfl_linux_proc_report(dwfl, pid);
    dwfl_report_end(dwfl, nullptr, nullptr);
    if (reported == 0) {
        dwfl_getmodules(dwfl, addModule, &walk, 0);
        // Already stopped by us: libdwfl reads registers and memory without attaching itself.
        if (dwfl_linux_proc_attach(dwfl, pid, true) == 0) {
            dwfl_getthread_frames(dwfl, tid, addFrame, &walk);
        }
    }
    dwfl_end(dwfl);
    return std::move(walk.snapshot);
}

}  // namespace mirels::detail
