// The messages with which the collections stop the process on misuse. Kept out of line so that
// the inlined fast paths of the templates carry only a call.

#include <cstddef>
#include <string>

#include "mirels/collections/ChunkStack.h"
#include "mirels/collections/FixedStack.h"
#include "mirels/collections/Inhabited.h"
#include "mirels/collections/OrderedSet.h"
#include "mirels/core/FatalError.h"

namespace mirels::detail {

void fixedStackIndexOutOfBounds(std::ptrdiff_t position, std::ptrdiff_t filled) {
    fatalError("Attempting to subscript into index " + std::to_string(position) +
                   " which is out of bounds 0..<" + std::to_string(filled) + ".",
               Callsite::library("subscript(_:)"));
}

void fixedStackNegativeCapacity(std::ptrdiff_t capacity) {
    fatalError("A FixedStack cannot have the negative capacity " + std::to_string(capacity) + ".",
               Callsite::library("init(capacity:)"));
}

void chunkStackZeroChunkSize() {
    fatalError("Division by zero: a ChunkStack with a chunk size of 0 has no positions.",
               Callsite::library("subscript(_:)"));
}

void orderedCollectionPositionOutOfRange(std::size_t position, std::size_t count) {
    fatalError(
        "Index " + std::to_string(position) + " is out of range 0..<" + std::to_string(count) + ".",
        Callsite::library("subscript(_:)"));
}

void inhabitedProducedNoFirstElement(const char* operation, const std::string& typeName,
                                     std::size_t count) {
    fatalError(std::string("Calling `") + operation + "` on underlying " + typeName + " with " +
                   std::to_string(count) + " element(s) produced no first element",
               Callsite::library(operation));
}

void inhabitedReversedIntoEmptyArray(std::size_t count) {
    fatalError("Calling reversed on a non-empty sequence with " + std::to_string(count) +
                   " elements resulted in an empty array.",
               Callsite::library("reversed()"));
}

}  // namespace mirels::detail
