#include "mirels/Version.h"

namespace mirels {

LibraryVersion libraryVersion() noexcept {
    // The macros as they were when the library was built, not when the caller was.
    return {MIRELS_VERSION_MAJOR, MIRELS_VERSION_MINOR, MIRELS_VERSION_PATCH,
            MIRELS_VERSION_STRING};
}

}  // namespace mirels
