#include "mirels/core/Callsite.h"

#include <cstring>

namespace mirels {

const char* Callsite::fileName() const noexcept {
    const char* file = file_ != nullptr ? file_ : "";
    const char* slash = std::strrchr(file, '/');
    return slash != nullptr ? slash + 1 : file;
}

std::string Callsite::location() const {
    std::string text = fileName();
    text += ':';
    text += std::to_string(line_);
    text += ':';
    text += std::to_string(column_);
    return text;
}

std::string Callsite::description() const {
    std::string text = location();
    text += " within ";
    text += function_ != nullptr ? function_ : "";
    return text;
}

bool operator==(const Callsite& a, const Callsite& b) noexcept {
    auto same = [](const char* x, const char* y) {
        return x == y || (x != nullptr && y != nullptr && std::strcmp(x, y) == 0);
    };
    return a.dsoHandle_ == b.dsoHandle_ && a.line_ == b.line_ && a.column_ == b.column_ &&
           same(a.file_, b.file_) && same(a.function_, b.function_);
}

}  // namespace mirels
