#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <variant>

#include "mirels/geometry/Axis.h"
#include "mirels/geometry/Line.h"
#include "mirels/plist/GeometryPropertyList.h"
#include "mirels/plist/PropertyListError.h"

namespace mirels {
namespace {

TEST(Axis, ReadsAndWritesAlongEitherAxisAndArchivesAsText) {
    Point point{3, 4};
    Size size{5, 6};
    for (Axis axis : {Axis::horizontal, Axis::vertical}) {
        EXPECT_NE(otherAxis(axis), axis);
        EXPECT_EQ(otherAxis(otherAxis(axis)), axis);
        coordinate(point, axis) += 10;
        length(size, axis) *= 2;
    }
    EXPECT_EQ(point, (Point{13, 14}));
    EXPECT_EQ(size, (Size{10, 12}));
    EXPECT_EQ(coordinate(point, Axis::vertical), 14);
    EXPECT_EQ(length(size, Axis::horizontal), 10);

    PropertyList list;
    list.archiveValue(Axis::vertical, "axis");
    EXPECT_EQ(list.unarchiveValue<std::string>("axis"), "vertical");
    EXPECT_EQ(list.unarchiveValue<Axis>("axis"), Axis::vertical);
    list.archiveValue(std::string("diagonal"), "bad");
    EXPECT_THROW(list.unarchiveValue<Axis>("bad"), PropertyListError);
}

TEST(Line, MeasuresProjectsAndIntersects) {
    const Line diagonal = Line::through({0, 0}, {2, 2});
    EXPECT_EQ(diagonal.pointAt(0.5), (Point{1, 1}));
    EXPECT_NEAR(diagonal.unitDirection().x, std::sqrt(0.5), 1e-15);
    EXPECT_EQ(diagonal.projection({2, 0}), (Point{1, 1}));
    EXPECT_DOUBLE_EQ(diagonal.distance({2, 0}), std::sqrt(2.0));
    EXPECT_TRUE(diagonal.contains({-5, -5}));
    EXPECT_FALSE(diagonal.contains({-5, -5.001}));

    const Line antidiagonal = Line::through({0, 4}, {4, 0});
    EXPECT_EQ(diagonal.intersection(antidiagonal), LineIntersection(Point{2, 2}));
    EXPECT_EQ(diagonal.intersection(Line{{0, 1}, {3, 3}}), LineIntersection(NoIntersection{}));
    // The same line with another origin and direction length is everywhere in common.
    EXPECT_EQ(diagonal.intersection(Line{{7, 7}, {-0.5, -0.5}}), LineIntersection(diagonal));
    // Nearly parallel within the tolerance counts as parallel; clearly crossing does not.
    EXPECT_EQ(diagonal.intersection(Line{{0, 1}, {1, 1 + 1e-12}}).index(), 0u);
    EXPECT_EQ(diagonal.intersection(Line{{0, 1}, {1, 1 + 1e-6}}).index(), 1u);

    const Line point{{1, 1}, {0, 0}};  // degenerate: the point (1, 1)
    EXPECT_EQ(point.intersection(diagonal), LineIntersection(Point{1, 1}));
    EXPECT_EQ(antidiagonal.intersection(point), LineIntersection(NoIntersection{}));
    EXPECT_EQ(point.unitDirection(), (Point{0, 0}));
    EXPECT_DOUBLE_EQ(point.distance({4, 5}), 5);
}

TEST(Segment, MeasuresAndProjectsOntoItsExtent) {
    const Segment segment{{0, 0}, {3, 4}};
    EXPECT_EQ(segment.length(), 5);
    EXPECT_DOUBLE_EQ(segment.direction().x, 0.6);
    EXPECT_DOUBLE_EQ(segment.direction().y, 0.8);
    EXPECT_EQ(segment.pointAt(1), (Point{3, 4}));
    EXPECT_EQ(segment.pointAt(2), (Point{6, 8}));
    EXPECT_EQ(segment.projection({-3, -4}), (Point{0, 0}));  // clamped to the start
    EXPECT_EQ(segment.projection({10, 10}), (Point{3, 4}));
    EXPECT_DOUBLE_EQ(segment.distance({6, 8}), 5);
    EXPECT_DOUBLE_EQ(segment.distance({4, -3}), 5);  // beside the start, perpendicular
    EXPECT_EQ((Segment{{1, 1}, {1, 1}}).direction(), (Point{0, 0}));
}

TEST(Segment, IntersectsAtAPointAlongAnOverlapOrNowhere) {
    const Segment horizontal{{0, 0}, {4, 0}};
    auto meet = [&](Segment other) { return horizontal.intersection(other); };
    EXPECT_EQ(meet({{2, -1}, {2, 1}}), SegmentIntersection(Point{2, 0}));
    EXPECT_EQ(meet({{2, 1}, {2, 3}}), SegmentIntersection(NoIntersection{}));  // line would meet
    EXPECT_EQ(meet({{4, 0}, {6, 2}}), SegmentIntersection(Point{4, 0}));       // end to end
    EXPECT_EQ(meet({{0, 1}, {4, 1}}), SegmentIntersection(NoIntersection{}));  // parallel
    // Collinear: overlap in this segment's direction, a touching point, or a gap.
    EXPECT_EQ(meet({{6, 0}, {3, 0}}), SegmentIntersection(Segment{{3, 0}, {4, 0}}));
    EXPECT_EQ(meet({{-1, 0}, {9, 0}}), SegmentIntersection(horizontal));
    EXPECT_EQ(meet({{1, 0}, {2, 0}}), SegmentIntersection(Segment{{1, 0}, {2, 0}}));
    EXPECT_EQ(meet({{4, 0}, {5, 0}}), SegmentIntersection(Point{4, 0}));
    EXPECT_EQ(meet({{5, 0}, {6, 0}}), SegmentIntersection(NoIntersection{}));
    // Degenerate segments are points.
    EXPECT_EQ(meet({{3, 0}, {3, 0}}), SegmentIntersection(Point{3, 0}));
    EXPECT_EQ(meet({{3, 1}, {3, 1}}), SegmentIntersection(NoIntersection{}));
    EXPECT_EQ((Segment{{3, 0}, {3, 0}}).intersection(horizontal), SegmentIntersection(Point{3, 0}));
    // Rounding at a shared end point is absorbed by the tolerance.
    const Segment third{{0, 0}, {1.0 / 3, 1.0 / 3}};
    EXPECT_EQ(third.intersection(Segment{{1.0 / 3, 1.0 / 3}, {1, 0}}),
              SegmentIntersection(Point{1.0 / 3, 1.0 / 3}));
}

TEST(LineGeometry, RoundTripsThroughPropertyListsAndReportsMissingKeys) {
    PropertyList list;
    const Line line{{1, 2}, {3, 4}};
    const Segment segment{{5, 6}, {7, 8}};
    list.archiveValue(line, "line");
    list.archiveValue(segment, "segment");
    EXPECT_EQ(list.unarchiveValue<Line>("line"), line);
    EXPECT_EQ(list.unarchiveValue<Segment>("segment"), segment);
    EXPECT_EQ(list.unarchiveValue<PropertyList>("segment").unarchiveValue<Point>("end"),
              (Point{7, 8}));

    PropertyList partial(PlistDictionary{{"origin", PlistDictionary{{"x", 1}, {"y", 2}}}});
    list.archiveValue(partial, "partial");
    try {
        list.unarchiveValue<Line>("partial");
        FAIL() << "a line without a direction was read";
    } catch (const PropertyListError& error) {
        EXPECT_NE(std::string(error.what()).find("\"direction\""), std::string::npos)
            << error.what();
    }
}

}  // namespace
}  // namespace mirels
