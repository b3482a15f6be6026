#pragma once

// `Axis`: one of the two directions of the plane. Also `otherAxis()`, `coordinate()`, `length()`.

#include <array>
#include <ostream>
#include <utility>

#include "mirels/geometry/Geometry.h"

namespace mirels {

/// One of the two directions of the plane. Stored in property lists as the text "horizontal" or
/// "vertical".
enum class Axis { horizontal, vertical };

/// The axis perpendicular to `axis`.
constexpr Axis otherAxis(Axis axis) noexcept {
    return axis == Axis::horizontal ? Axis::vertical : Axis::horizontal;
}

/// The coordinate of `point` along `axis`: x for horizontal, y for vertical.
constexpr double coordinate(const Point& point, Axis axis) noexcept {
    return axis == Axis::horizontal ? point.x : point.y;
}
constexpr double& coordinate(Point& point, Axis axis) noexcept {
    return axis == Axis::horizontal ? point.x : point.y;
}

/// The extent of `size` along `axis`: the width for horizontal, the height for vertical.
constexpr double length(const Size& size, Axis axis) noexcept {
    return axis == Axis::horizontal ? size.width : size.height;
}
constexpr double& length(Size& size, Axis axis) noexcept {
    return axis == Axis::horizontal ? size.width : size.height;
}

template <>
struct RawValueCases<Axis> {
    static constexpr std::array cases = {std::pair{Axis::horizontal, "horizontal"},
                                         std::pair{Axis::vertical, "vertical"}};
};

/// Streams the raw value, "horizontal" or "vertical".
inline std::ostream& operator<<(std::ostream& stream, Axis axis) {
    return stream << rawValue(axis);
}

}  // namespace mirels
