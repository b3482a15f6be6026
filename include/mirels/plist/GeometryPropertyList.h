#pragma once

/// How the plane geometry value types (`Point`, `Size`, `Rect`, `Line`, `Segment`) are stored in
/// property lists. `Axis` needs no header of its own: its raw values make it storable.

#include "mirels/geometry/Geometry.h"
#include "mirels/geometry/Line.h"
#include "mirels/plist/PropertyList.h"

namespace mirels {

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

/// A line is stored as a list with "origin" and "direction" (point lists); both are required.
template <>
struct PropertyListTraits<Line> {
    using PropertyListType = PropertyList;
    static PropertyList propertyListValue(const Line& line) {
        PropertyList list;
        list.archiveValue(line.origin, Line::Key::origin);
        list.archiveValue(line.direction, Line::Key::direction);
        return list;
    }
    static Line fromPropertyListValue(const PropertyList& list) {
        return Line{list.unarchiveValue<Point>(Line::Key::origin),
                    list.unarchiveValue<Point>(Line::Key::direction)};
    }
};

/// A segment is stored as a list with "start" and "end" (point lists); both are required.
template <>
struct PropertyListTraits<Segment> {
    using PropertyListType = PropertyList;
    static PropertyList propertyListValue(const Segment& segment) {
        PropertyList list;
        list.archiveValue(segment.start, Segment::Key::start);
        list.archiveValue(segment.end, Segment::Key::end);
        return list;
    }
    static Segment fromPropertyListValue(const PropertyList& list) {
        return Segment{list.unarchiveValue<Point>(Segment::Key::start),
                       list.unarchiveValue<Point>(Segment::Key::end)};
    }
};

}  // namespace mirels
