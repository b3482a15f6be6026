#include "mirels/core/FatalError.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace mirels {

void fatalError(std::string_view message, Callsite callsite) {
    std::string text = "Fatal error: ";
    text.append(message);
    text += "\n  at ";
    text += callsite.description();
    text += '\n';
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
    std::abort();
}

}  // namespace mirels
