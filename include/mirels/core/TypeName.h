#pragma once

// `unqualifiedTypeName()`: the innermost name of a type, from its demangled name. Also
// `stripNamespaces()`.

#include <string>
#include <string_view>
#include <typeinfo>

#include "mirels/Export.h"

namespace mirels {

/// The innermost name of a type, from its demangled name: namespaces, enclosing classes (with
/// their template arguments) and enclosing functions are removed, so `mirels::TimeoutError`
/// reads "TimeoutError" and `mirels::PromiseFuture<int>::TransitionError` reads
/// "TransitionError". The type's own template arguments stay, each spelled by the same rule as
/// a type of its own: `std::vector<mirels::Ref<int>>` reads "vector<Ref<int>, allocator<Ref<int>
/// > >" and `Box<Outer::Inner>` reads "Box<Inner>".
MIRELS_EXPORT std::string unqualifiedTypeName(const std::type_info& type);

/// Applies that rule to an already demangled name.
MIRELS_EXPORT std::string stripNamespaces(std::string_view demangled);

/// The unqualified name of `T`, computed once per type.
template <class T>
const std::string& unqualifiedTypeName() {
    static const std::string name = unqualifiedTypeName(typeid(T));
    return name;
}

}  // namespace mirels
