#pragma once

#include <string>
#include <string_view>
#include <typeinfo>

namespace mirels {

/// The demangled name of a type with every namespace qualifier removed, also inside template
/// arguments: `mirels::TimeoutError` reads "TimeoutError", `std::vector<mirels::Ref<int>>` reads
/// "vector<Ref<int>, allocator<Ref<int> > >".
std::string unqualifiedTypeName(const std::type_info& type);

/// Removes the namespace qualifiers from an already demangled name.
std::string stripNamespaces(std::string_view demangled);

/// The unqualified name of `T`, computed once per type.
template <class T>
const std::string& unqualifiedTypeName() {
    static const std::string name = unqualifiedTypeName(typeid(T));
    return name;
}

}  // namespace mirels
