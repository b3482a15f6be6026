// Throws an exception that nothing catches: the C++ runtime prints its type and message, then
// aborts.
#include <stdexcept>
#include <string>

std::string loadConfiguration(const std::string& path) {
    throw std::runtime_error("cannot open " + path);
}

int main() {
    return static_cast<int>(loadConfiguration("/etc/example/settings.conf").size());
}
