// Needs libmirels_crashing_plugin.so, which is not on the library search path: the dynamic
// loader refuses to start it and exits 127.
#include <cstdio>

int pluginVersion();

int main() {
    std::printf("plugin %d\n", pluginVersion());
}
