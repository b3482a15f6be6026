#pragma once

// `Point`: a point in a two-dimensional coordinate space. Also `Size`, `Rect`.

#include <array>
#include <utility>

#include "mirels/core/RawValueCases.h"

namespace mirels {

/// A point in a two-dimensional coordinate space.
struct Point {
    double x = 0;
    double y = 0;

    /// The property-list keys of a point.
    enum class Key { x, y };

    friend bool operator==(const Point&, const Point&) = default;
};

/// A width and a height.
struct Size {
    double width = 0;
    double height = 0;

    /// The property-list keys of a size.
    enum class Key { width, height };

    friend bool operator==(const Size&, const Size&) = default;
};

/// A rectangle: its origin and its size.
struct Rect {
    Point origin;
    Size size;

    /// The property-list keys of a rectangle.
    enum class Key { origin, size };

    friend bool operator==(const Rect&, const Rect&) = default;
};

template <>
struct RawValueCases<Point::Key> {
    static constexpr std::array cases = {std::pair{Point::Key::x, "x"},
                                         std::pair{Point::Key::y, "y"}};
};

template <>
struct RawValueCases<Size::Key> {
    static constexpr std::array cases = {std::pair{Size::Key::width, "width"},
                                         std::pair{Size::Key::height, "height"}};
};

template <>
struct RawValueCases<Rect::Key> {
    static constexpr std::array cases = {std::pair{Rect::Key::origin, "origin"},
                                         std::pair{Rect::Key::size, "size"}};
};

}  // namespace mirels
