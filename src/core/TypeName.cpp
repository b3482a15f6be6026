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

// Removes from the end of `out` the scope that a following "::" closes: an identifier with its
// template arguments ("PromiseFuture<int>"), "(anonymous namespace)", or a function with its
// parameters ("f(int)").
void dropEnclosingScope(std::string& out) {
    static constexpr std::string_view anonymous = "(anonymous namespace)";
    if (std::string_view(out).ends_with(anonymous)) {
        out.resize(out.size() - anonymous.size());
        return;
    }
    // A bracketed tail: template arguments or function parameters, nested brackets included.
    if (!out.empty() && (out.back() == '>' || out.back() == ')')) {
        const char close = out.back();
        const char open = close == '>' ? '<' : '(';
        std::size_t depth = 0;
        std::size_t i = out.size();
        while (i > 0) {
            --i;
            if (out[i] == close) {
                ++depth;
            } else if (out[i] == open && --depth == 0) {
                break;
            }
        }
        out.resize(i);
    }
    while (!out.empty() && isIdentifierChar(out.back())) out.pop_back();
}

}  // namespace

std::string stripNamespaces(std::string_view name) {
    std::string out;
    out.reserve(name.size());
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name.substr(i).starts_with("::")) {
            // Everything that encloses the name after "::" goes, with its own arguments; a
            // leading "::" (the global scope) just disappears.
            dropEnclosingScope(out);
            ++i;
            continue;
        }
        out.push_back(name[i]);
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
