#include "mirels/plist/GeometryPropertyList.h"

namespace mirels {

PropertyList PropertyListTraits<Point>::propertyListValue(const Point& point) {
    PropertyList list;
    list.archiveValue(point.x, Point::Key::x);
    list.archiveValue(point.y, Point::Key::y);
    return list;
}

Point PropertyListTraits<Point>::fromPropertyListValue(const PropertyList& list) {
    return Point{list.unarchiveValue<double>(Point::Key::x),
                 list.unarchiveValue<double>(Point::Key::y)};
}

PropertyList PropertyListTraits<Size>::propertyListValue(const Size& size) {
    PropertyList list;
    list.archiveValue(size.width, Size::Key::width);
    list.archiveValue(size.height, Size::Key::height);
    return list;
}

Size PropertyListTraits<Size>::fromPropertyListValue(const PropertyList& list) {
    return Size{list.unarchiveValue<double>(Size::Key::width),
                list.unarchiveValue<double>(Size::Key::height)};
}

PropertyList PropertyListTraits<Rect>::propertyListValue(const Rect& rect) {
    PropertyList list;
    list.archiveValue(rect.origin, Rect::Key::origin);
    list.archiveValue(rect.size, Rect::Key::size);
    return list;
}

Rect PropertyListTraits<Rect>::fromPropertyListValue(const PropertyList& list) {
    return Rect{list.unarchiveValue<Point>(Rect::Key::origin),
                list.unarchiveValue<Size>(Rect::Key::size)};
}

PropertyList PropertyListTraits<Line>::propertyListValue(const Line& line) {
    PropertyList list;
    list.archiveValue(line.origin, Line::Key::origin);
    list.archiveValue(line.direction, Line::Key::direction);
    return list;
}

Line PropertyListTraits<Line>::fromPropertyListValue(const PropertyList& list) {
    return Line{list.unarchiveValue<Point>(Line::Key::origin),
                list.unarchiveValue<Point>(Line::Key::direction)};
}

PropertyList PropertyListTraits<Segment>::propertyListValue(const Segment& segment) {
    PropertyList list;
    list.archiveValue(segment.start, Segment::Key::start);
    list.archiveValue(segment.end, Segment::Key::end);
    return list;
}

Segment PropertyListTraits<Segment>::fromPropertyListValue(const PropertyList& list) {
    return Segment{list.unarchiveValue<Point>(Segment::Key::start),
                   list.unarchiveValue<Point>(Segment::Key::end)};
}

}  // namespace mirels
