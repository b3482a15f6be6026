#include <gtest/gtest.h>

#include "mirels/core/Callsite.h"
#include "mirels/core/TypeName.h"

namespace mirels {
namespace {

Callsite capture(Callsite callsite = Callsite::current()) {
    return callsite;
}

TEST(Callsite, DefaultArgumentCapturesTheCallersPosition) {
    Callsite here = capture();
    EXPECT_EQ(here.line(), static_cast<std::size_t>(__LINE__ - 1));
    EXPECT_STREQ(here.fileName(), "CallsiteTests.cpp");
    EXPECT_EQ(here.dsoHandle(), &__dso_handle);
    EXPECT_NE(std::string(here.function()).find("TestBody"), std::string::npos);
}

TEST(Callsite, DescriptionUsesTheLastPathComponent) {
    EXPECT_EQ(Callsite(nullptr, "/src/Layout/Grid", 12, 5, "body").description(),
              "Grid:12:5 within body");
    EXPECT_EQ(Callsite(nullptr, "Grid", 12, 5, "body").description(), "Grid:12:5 within body");
    EXPECT_EQ(Callsite(nullptr, "dir/", 1, 2, "f").description(), ":1:2 within f");
    EXPECT_EQ(Callsite(nullptr, "/a/b.cpp", 7, 0, "f").location(), "b.cpp:7:0");
}

struct Outer {
    struct Inner {};
};

TEST(TypeName, StripsEveryNamespaceQualifier) {
    EXPECT_EQ(unqualifiedTypeName<int>(), "int");
    EXPECT_EQ(unqualifiedTypeName<Outer::Inner>(), "Inner");
    EXPECT_EQ(stripNamespaces("mirels::Future<std::pair<int, mirels::detail::X> >"),
              "Future<pair<int, X> >");
    EXPECT_EQ(stripNamespaces("(anonymous namespace)::Local"), "Local");
    EXPECT_EQ(stripNamespaces("::Global"), "Global");
}

}  // namespace
}  // namespace mirels
