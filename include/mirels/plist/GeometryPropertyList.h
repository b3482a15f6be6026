#pragma once

/// How the plane geometry value types (`Point`, `Size`, `Rect`, `Line`, `Segment`) are stored in
/// property lists. `Axis` needs no header of its own: its raw values make it storable.

#include "mirels/Export.h"
#include "mirels/geometry/Geometry.h"
#include "mirels/geometry/Line.h"
#include "mirels/plist/PropertyList.h"

namespace mirels {

// The conversions are defined in the library: each one instantiates the archiving of its fields,
// which would otherwise be compiled again in every file that includes this header.

/// A point is stored as a list with the keys "x" and "y"; both are required.
template <>
struct MIRELS_EXPORT PropertyListTraits<Point> {
    using PropertyListType = PropertyList;
    static PropertyList propertyListValue(const Point& point);
    static Point fromPropertyListValue(const PropertyList& list);
};

/// A size is stored as a list with the keys "width" and "height"; both are required.
template <>
struct MIRELS_EXPORT PropertyListTraits<Size> {
    using PropertyListType = PropertyList;
    static PropertyList propertyListValue(const Size& size);
    static Size fromPropertyListValue(const PropertyList& list);
};

/// A rectangle is stored as a list with "origin" (a point list) and "size" (a size list); both
/// are required.
template <>
struct MIRELS_EXPORT PropertyListTraits<Rect> {
    using PropertyListType = PropertyList;
    static PropertyList propertyListValue(const Rect& rect);
    static Rect fromPropertyListValue(const PropertyList& list);
};

/// A line is stored as a list with "origin" and "direction" (point lists); both are required.
template <>
struct MIRELS_EXPORT PropertyListTraits<Line> {
    using PropertyListType = PropertyList;
    static PropertyList propertyListValue(const Line& line);
    static Line fromPropertyListValue(const PropertyList& list);
};

/// A segment is stored as a list with "start" and "end" (point lists); both are required.
template <>
struct MIRELS_EXPORT PropertyListTraits<Segment> {
    using PropertyListType = PropertyList;
    static PropertyList propertyListValue(const Segment& segment);
    static Segment fromPropertyListValue(const PropertyList& list);
};

}  // namespace mirels
