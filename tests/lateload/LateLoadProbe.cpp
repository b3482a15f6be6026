// Loads the library with dlopen into a process that was not linked with it, as a plug-in host
// would, and runs its recycled-memory paths there. The library's thread-locals use the
// initial-exec model (static TLS): this fails if they outgrow what a late load can still get.

#include <dlfcn.h>

#include <cstddef>
#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s LIBRARY\n", argv[0]);
        return 2;
    }
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "dlopen failed: %s\n", dlerror());
        return 1;
    }
    using Allocate = void* (*)(std::size_t);
    using Deallocate = void (*)(void*, std::size_t);
    // mirels::allocateRecycled(std::size_t) and mirels::deallocateRecycled(void*, std::size_t)
    auto allocate = reinterpret_cast<Allocate>(dlsym(library, "_ZN6mirels16allocateRecycledEm"));
    auto deallocate =
        reinterpret_cast<Deallocate>(dlsym(library, "_ZN6mirels18deallocateRecycledEPvm"));
    if (allocate == nullptr || deallocate == nullptr) {
        std::fprintf(stderr, "missing symbol: %s\n", dlerror());
        return 1;
    }
    for (int round = 0; round < 100; ++round) deallocate(allocate(200), 200);
    std::puts("loaded late and recycled");
    return 0;
}
