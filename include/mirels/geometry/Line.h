#pragma once

// `Line`: an infinite straight line. Also `NoIntersection`, `LineIntersection`,
// `SegmentIntersection`, `Segment`.

#include <array>
#include <utility>
#include <variant>

#include "mirels/Export.h"
#include "mirels/geometry/Geometry.h"

namespace mirels {

/// The tolerance of the line and segment operations, relative to the sizes involved:
/// - two directions u and v are parallel when |u x v| <= tolerance * |u| * |v| (the sine of the
///   angle between them is at most 1e-9);
/// - a point lies on a line when its distance from it is at most tolerance * max(1, |d|), d being
///   the direction of the line (or segment) measured against;
/// - a segment parameter within [-tolerance, 1 + tolerance] counts as on the segment, and is then
///   clamped to [0, 1], so segments that touch end to end meet at the shared end point.
/// Exact inputs (integers, halves) give exact answers; the tolerance only absorbs rounding.
inline constexpr double geometryTolerance = 1e-9;

struct Line;
struct Segment;

/// The empty result of an intersection.
struct NoIntersection {
    friend bool operator==(const NoIntersection&, const NoIntersection&) = default;
};

/// Two lines meet nowhere (parallel), at one point, or everywhere (the same line: the result
/// is the first line).
using LineIntersection = std::variant<NoIntersection, Point, Line>;
/// Two segments meet nowhere, at one point, or along a segment (collinear and overlapping; the
/// overlap runs in the first segment's direction).
using SegmentIntersection = std::variant<NoIntersection, Point, Segment>;

/// An infinite straight line: the points origin + t * direction for every real t.
///
/// The direction need not be of unit length; its length is the unit of the parameter t. A line
/// whose direction is zero is degenerate and stands for the single point `origin`. Stored in
/// property lists with the keys "origin" and "direction" (point lists).
struct MIRELS_EXPORT Line {
    Point origin;
    Point direction;

    /// The line through `a` and `b`, with parameter 0 at `a` and 1 at `b`.
    static Line through(Point a, Point b) noexcept;

    /// The direction scaled to length 1, or (0, 0) for a degenerate line.
    Point unitDirection() const noexcept;
    /// origin + t * direction.
    Point pointAt(double t) const noexcept;
    /// The parameter of the point of the line nearest to `point` (0 for a degenerate line).
    double parameterOf(Point point) const noexcept;
    /// The point of the line nearest to `point`.
    Point projection(Point point) const noexcept;
    /// How far `point` is from the line.
    double distance(Point point) const noexcept;
    /// Whether `point` lies on the line, within the tolerance.
    bool contains(Point point) const noexcept;
    /// Where the two lines meet.
    LineIntersection intersection(const Line& other) const noexcept;

    /// The property-list keys of a line.
    enum class Key { origin, direction };

    friend bool operator==(const Line&, const Line&) = default;
};

/// The straight piece between two points. A segment whose ends coincide is a point.
/// Stored in property lists with the keys "start" and "end" (point lists).
struct MIRELS_EXPORT Segment {
    Point start;
    Point end;

    /// The distance between the ends.
    double length() const noexcept;
    /// The unit vector from start to end, or (0, 0) when the ends coincide.
    Point direction() const noexcept;
    /// The point at `t` (0 is start, 1 is end; values outside [0, 1] extend the segment). Exact at
    /// 0 and 1.
    Point pointAt(double t) const noexcept;
    /// The line through start (parameter 0) and end (parameter 1).
    Line line() const noexcept;
    /// The point of the segment nearest to `point`.
    Point projection(Point point) const noexcept;
    /// How far `point` is from the segment.
    double distance(Point point) const noexcept;
    /// Where the two segments meet.
    SegmentIntersection intersection(const Segment& other) const noexcept;

    /// The property-list keys of a segment.
    enum class Key { start, end };

    friend bool operator==(const Segment&, const Segment&) = default;
};

template <>
struct RawValueCases<Line::Key> {
    static constexpr std::array cases = {std::pair{Line::Key::origin, "origin"},
                                         std::pair{Line::Key::direction, "direction"}};
};

template <>
struct RawValueCases<Segment::Key> {
    static constexpr std::array cases = {std::pair{Segment::Key::start, "start"},
                                         std::pair{Segment::Key::end, "end"}};
};

}  // namespace mirels
