#include <gtest/gtest.h>

#include <array>
#include <compare>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>

#include "mirels/core/AnyEquatable.h"

namespace mirels {
namespace {

// Counts live instances, so that leaks and double destruction of erased values show.
struct Counted {
    static inline int alive = 0;
    int value;
    std::array<char, 200> padding{};  // too big for the inline buffer
    explicit Counted(int v) : value(v) { ++alive; }
    Counted(const Counted& other) : value(other.value) { ++alive; }
    ~Counted() { --alive; }
    friend bool operator==(const Counted& a, const Counted& b) { return a.value == b.value; }
};

}  // namespace
}  // namespace mirels

template <>
struct std::hash<mirels::Counted> {
    std::size_t operator()(const mirels::Counted& c) const { return std::hash<int>{}(c.value); }
};

namespace mirels {
namespace {

TEST(AnyEquatable, EqualOnlyForEqualValuesOfTheSameType) {
    EXPECT_EQ(AnyEquatable(1), AnyEquatable(1));
    EXPECT_NE(AnyEquatable(1), AnyEquatable(2));
    EXPECT_NE(AnyEquatable(1), AnyEquatable(std::int64_t{1}));  // same number, other type
    EXPECT_EQ(AnyEquatable(std::string("a")), AnyEquatable(std::string("a")));
    EXPECT_EQ(AnyEquatable(), AnyEquatable());
    EXPECT_NE(AnyEquatable(), AnyEquatable(0));
    AnyEquatable held(std::string("text"));
    ASSERT_NE(held.as<std::string>(), nullptr);
    EXPECT_EQ(*held.as<std::string>(), "text");
    EXPECT_EQ(held.as<int>(), nullptr);
    EXPECT_EQ(held.type(), typeid(std::string));
}

TEST(AnyComparable, OrdersWithinOneTypeAndLeavesTypesUnordered) {
    EXPECT_TRUE(AnyComparable(1) < AnyComparable(2));
    EXPECT_TRUE(AnyComparable(std::string("b")) > AnyComparable(std::string("a")));
    EXPECT_EQ(AnyComparable(3) <=> AnyComparable(3), std::partial_ordering::equivalent);
    EXPECT_EQ(AnyComparable(1) <=> AnyComparable(1.0), std::partial_ordering::unordered);
    EXPECT_FALSE(AnyComparable(1) < AnyComparable(2.0));
    EXPECT_FALSE(AnyComparable(2.0) < AnyComparable(1));
    EXPECT_FALSE(AnyComparable(1) == AnyComparable(1.0));
}

TEST(AnyHashable, HashesConsistentlyAndFindsPlainValuesWithoutWrapping) {
    std::unordered_set<AnyHashable> set;
    set.insert(AnyHashable(1));
    set.insert(AnyHashable(std::string("one")));
    set.insert(AnyHashable(1L));  // another type: another key
    set.insert(AnyHashable(1));
    EXPECT_EQ(set.size(), 3U);
    EXPECT_EQ(AnyHashable(std::string("x")).hashValue(), AnyHashable::hashOf(std::string("x")));
    EXPECT_TRUE(AnyHashable(5).isEqual(5));
    EXPECT_FALSE(AnyHashable(5).isEqual(5L));
    EXPECT_FALSE(AnyHashable().isEqual(5));
}

TEST(AnyHashable, CopiesMovesAndDestroysInlineAndHeapValuesExactlyOnce) {
    {
        AnyHashable big(Counted(7));
        EXPECT_EQ(Counted::alive, 1);
        AnyHashable copy = big;
        EXPECT_EQ(Counted::alive, 2);
        EXPECT_EQ(copy, big);
        AnyHashable moved = std::move(copy);
        EXPECT_EQ(Counted::alive, 2);
        EXPECT_FALSE(copy.hasValue());  // NOLINT(bugprone-use-after-move): moved-from is empty
        moved = AnyHashable(std::string("small"));
        EXPECT_EQ(Counted::alive, 1);
        moved = big;
        EXPECT_EQ(Counted::alive, 2);
        EXPECT_EQ(moved.as<Counted>()->value, 7);
        AnyHashable inlineValue(std::string(40, 'x'));
        AnyHashable inlineCopy = inlineValue;
        AnyHashable inlineMoved = std::move(inlineValue);
        EXPECT_EQ(inlineMoved, inlineCopy);
    }
    EXPECT_EQ(Counted::alive, 0);
}

}  // namespace
}  // namespace mirels
