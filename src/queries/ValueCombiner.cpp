#include "mirels/queries/ValueCombiner.h"

#include "mirels/core/FatalError.h"

namespace mirels::detail {

void nilMergePerformed(Callsite callsite) {
    fatalError("NilMerge should never actually perform a merge", callsite);
}

}  // namespace mirels::detail
