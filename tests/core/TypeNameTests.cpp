#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "mirels/core/TypeName.h"
#include "mirels/futures/PromiseFuture.h"

namespace mirels {

template <class T>
struct Box {
    template <class U>
    struct Nested {};
    struct Plain {};
};

namespace {

struct Hidden {
    struct Inside {};
};

TEST(TypeName, NestedTypesReadAsTheirInnermostName) {
    EXPECT_EQ(unqualifiedTypeName<PromiseFuture<int>::TransitionError>(), "TransitionError");
    EXPECT_EQ(unqualifiedTypeName<Box<int>::Plain>(), "Plain");
    EXPECT_EQ(unqualifiedTypeName<Box<std::string>::Nested<double>>(), "Nested<double>");
    EXPECT_EQ(unqualifiedTypeName<Hidden>(), "Hidden");
    EXPECT_EQ(unqualifiedTypeName<Hidden::Inside>(), "Inside");
    EXPECT_EQ(stripNamespaces("f(int)::Local"), "Local");
    EXPECT_EQ(stripNamespaces("mirels::Outer<std::map<int, char> >::Inner<int>"), "Inner<int>");

    // Template arguments follow the same rule: each is the innermost name of its own type.
    EXPECT_EQ(unqualifiedTypeName<Box<Hidden::Inside>>(), "Box<Inside>");
    EXPECT_EQ(unqualifiedTypeName<Box<Box<int>::Nested<Hidden::Inside>>>(), "Box<Nested<Inside> >");
    EXPECT_EQ(unqualifiedTypeName<std::vector<Box<char>::Plain>>(),
              "vector<Plain, allocator<Plain> >");
    using Map = std::map<int, Hidden::Inside>;
    EXPECT_EQ(unqualifiedTypeName<Map>(),
              "map<int, Inside, less<int>, allocator<pair<int const, Inside> > >");

    // The error's type description and the start of its full diagnostics use that name.
    PromiseFuture<int>::TransitionError error(
        FutureTermination<int>::succeeded(1),
        FutureTermination<int>::failed(Error(std::runtime_error("x"))));
    EXPECT_EQ(error.errorTypeDescription(), "TransitionError");
    EXPECT_TRUE(error.fullDiagnosticsOutput().starts_with("TransitionError: "))
        << error.fullDiagnosticsOutput();
}

}  // namespace
}  // namespace mirels
