#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>

#include "mirels/errors/Error.h"
#include "mirels/errors/Result.h"
#include "mirels/errors/Unreachable.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

struct Plain {
    int code;
};
struct TaggedBase {
    virtual ~TaggedBase() = default;
};
struct TaggedDerived : TaggedBase {
    int tag = 7;
};

TEST(Error, TypedErrorsAnswerWithoutThrowing) {
    Error error(std::out_of_range("index 3"));
    EXPECT_EQ(error.typeName(), "out_of_range");
    EXPECT_EQ(error.description(), "index 3");
    ASSERT_NE(error.as<std::out_of_range>(), nullptr);
    EXPECT_NE(error.as<std::logic_error>(), nullptr);
    EXPECT_EQ(error.as<std::runtime_error>(), nullptr);
    EXPECT_EQ(error.humanReadableError(), nullptr);
    EXPECT_THROW(error.rethrow(), std::out_of_range);

    EXPECT_EQ(Error(std::string("streamed")).description(), "streamed");

    Error plain(Plain{4});
    EXPECT_EQ(plain.as<Plain>()->code, 4);
    EXPECT_EQ(plain.exception(), nullptr);
    EXPECT_EQ(plain.description(), "Plain");
    Error derived(TaggedDerived{});
    EXPECT_EQ(derived.as<TaggedBase>(),
              static_cast<const TaggedBase*>(derived.as<TaggedDerived>()));
    EXPECT_EQ(derived.as<Plain>(), nullptr);

    Error copy = error;
    EXPECT_EQ(copy, error);
    // Containers build errors in place from tuples of references; that must compile.
    std::map<std::string, Error> byName;
    byName.insert_or_assign("copy", std::move(copy));
    byName.try_emplace("error", error);
    EXPECT_EQ(byName.at("copy"), error);
    EXPECT_NE(copy, Error(std::out_of_range("index 3")));
}

TEST(Error, ForeignErrorsKeepTheThrownObject) {
    auto capture = [](auto thrown) {
        try {
            throw thrown;
        } catch (...) {
            return Error::current();
        }
    };
    Error runtime = capture(std::runtime_error("boom"));
    EXPECT_EQ(runtime.typeName(), "runtime_error");
    EXPECT_STREQ(runtime.as<std::exception>()->what(), "boom");
    Error number = capture(42);
    EXPECT_EQ(*number.as<int>(), 42);
    EXPECT_EQ(number.typeName(), "int");
    EXPECT_EQ(number.description(), "42");
    EXPECT_EQ(capture("text").description(), "text");
    EXPECT_EQ(capture(Plain{1}).description(), "Plain");
    EXPECT_EQ(number.as<long>(), nullptr);
    Error derived = capture(TaggedDerived{});
    EXPECT_EQ(derived.as<TaggedBase>(),
              static_cast<const TaggedBase*>(derived.as<TaggedDerived>()));
    EXPECT_EQ(derived.as<TaggedDerived>()->tag, 7);
    try {
        number.rethrow();
    } catch (const int& n) {
        EXPECT_EQ(&n, number.as<int>());  // the very object, not a copy
    }

    testing::SoftAssertionRecorder reports;
    Error human(Unreachable("never"));
    ASSERT_NE(human.humanReadableError(), nullptr);
    EXPECT_EQ(human.humanReadableError()->additionalInfo(), "never");
    // A shared handle on the held error keeps the storage alive.
    std::shared_ptr<const HumanReadableError> shared = Error(human).sharedHumanReadableError();
    human = Error(Plain{0});
    EXPECT_EQ(shared->additionalInfo(), "never");
    EXPECT_EQ(runtime.sharedHumanReadableError(), nullptr);
}

TEST(Result, HoldsAValueOrTheErrorThatPreventedIt) {
    Result<int> ok = 3;
    EXPECT_TRUE(ok.isSuccess());
    EXPECT_EQ(ok.get(), 3);
    auto failed = Result<int>::catching([]() -> int { throw std::invalid_argument("bad"); });
    ASSERT_TRUE(failed.isFailure());
    EXPECT_NE(failed.failureError()->as<std::invalid_argument>(), nullptr);
    EXPECT_THROW((void)failed.get(), std::invalid_argument);
    EXPECT_TRUE(Result<void>::catching([] {}).isSuccess());
    EXPECT_THROW(Result<void>::catching([] { throw 1; }).get(), int);
}

}  // namespace
}  // namespace mirels
