#include "mirels/core/TypeName.h"

#include <cxxabi.h>

#include <cctype>
#include <cstdlib>
#include <memory>

namespace mirels {

namespace {
bool isIdentifierChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}
}  // namespace

std::string stripNamespaces(std::string_view name) {
    std::string out;
    out.reserve(name.size());
    std::size_t i = 0;
    while (i < name.size()) {
        // A qualifier is an identifier or "(anonymous namespace)" followed by "::".
        std::size_t end = i;
        if (name.substr(i).starts_with("(anonymous namespace)")) {
            end = i + std::string_view("(anonymous namespace)").size();
        } else {
            while (end < name.size() && isIdentifierChar(name[end])) ++end;
        }
        if (end > i && name.substr(end).starts_with("::")) {
            i = end + 2;
            continue;
        }
        if (end > i) {
            out.append(name.substr(i, end - i));
            i = end;
        } else {
            if (name.substr(i).starts_with("::")) {  // a leading global qualifier
                i += 2;
                continue;
            }
            out.push_back(name[i]);
            ++i;
        }
    }
    return out;
}

std::string unqualifiedTypeName(const std::type_info& type) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
    return stripNamespaces(status == 0 && demangled ? demangled.get() : type.name());
}

}  // namespace mirels
