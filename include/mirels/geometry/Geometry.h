#pragma once

#include <array>
#include <utility>

#include "mirels/plist/PropertyList.h"

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

/// A point is stored as a list with the keys "x" and "y"; both are required.
template <>
struct PropertyListTraits<Point> {
    using PropertyListType = PropertyList;
    static PropertyList propertyListValue(const Point& point) {
        PropertyList list;
        list.archiveValue(point.x, Point::Key::x);
        list.archiveValue(point.y, Point::Key::y);
        return list;
    }
    static Point fromPropertyListValue(const PropertyList& list) {
        return Point{list.unarchiveValue<double>(Point::Key::x),
                     list.unarchiveValue<double>(Point::Key::y)};
    }
};

/// A size is stored as a list with the keys "width" and "height"; both are required.
template <>
struct PropertyListTraits<Size> {
    using PropertyListType = PropertyList;
    static PropertyList propertyListValue(const Size& size) {
        PropertyList list;
        list.archiveValue(size.width, Size::Key::width);
        list.archiveValue(size.height, Size::Key::height);
        return list;
    }
    static Size fromPropertyListValue(const PropertyList& list) {
        return Size{list.unarchiveValue<double>(Size::Key::width),
                    list.unarchiveValue<double>(Size::Key::height)};
    }
};

/// A rectangle is stored as a list with "origin" (a point list) and "size" (a size list); both
/// are required.
template <>
struct PropertyListTraits<Rect> {
    using PropertyListType = PropertyList;
    static PropertyList propertyListValue(const Rect& rect) {
        PropertyList list;
        list.archiveValue(rect.origin, Rect::Key::origin);
        list.archiveValue(rect.size, Rect::Key::size);
        return list;
    }
    static Rect fromPropertyListValue(const PropertyList& list) {
        return Rect{list.unarchiveValue<Point>(Rect::Key::origin),
                    list.unarchiveValue<Size>(Rect::Key::size)};
    }
};

}  // namespace mirels
