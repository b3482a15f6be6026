#include "mirels/geometry/Line.h"

#include <algorithm>
#include <cmath>

namespace mirels {

namespace {

Point plus(Point a, Point b) {
    return {a.x + b.x, a.y + b.y};
}
Point minus(Point a, Point b) {
    return {a.x - b.x, a.y - b.y};
}
Point scaled(Point a, double k) {
    return {a.x * k, a.y * k};
}
double dot(Point a, Point b) {
    return a.x * b.x + a.y * b.y;
}
double cross(Point a, Point b) {
    return a.x * b.y - a.y * b.x;
}
double norm(Point a) {
    return std::hypot(a.x, a.y);
}
bool isZero(Point a) {
    return a.x == 0 && a.y == 0;
}

/// The largest distance from a line of direction `d` that still counts as on it.
double slack(Point d) {
    return geometryTolerance * std::max(1.0, norm(d));
}

/// `v` scaled to length 1 (`v` must not be zero). Dividing first keeps tiny and huge vectors
/// away from the underflow and overflow that squaring their coordinates would cause.
Point unit(Point v) {
    const double length = norm(v);
    return {v.x / length, v.y / length};
}

/// Whether products of `v`'s coordinates neither underflow nor overflow, so the direct formulas
/// (exact for exact inputs) can be used; otherwise the vector is normalised first.
bool wellScaled(Point v) {
    const double squared = dot(v, v);
    return std::isnormal(squared) && squared < 1e300;
}

bool parallel(Point u, Point v) {
    return std::abs(cross(unit(u), unit(v))) <= geometryTolerance;
}

/// Linear interpolation that is exact at both ends.
Point interpolate(Point a, Point b, double t) {
    if (t == 0) return a;
    if (t == 1) return b;
    return {a.x * (1 - t) + b.x * t, a.y * (1 - t) + b.y * t};
}

bool onSegmentParameter(double t) {
    return t >= -geometryTolerance && t <= 1 + geometryTolerance;
}

}  // namespace

// MARK: - Line

Line Line::through(Point a, Point b) noexcept {
    return Line{a, minus(b, a)};
}

Point Line::unitDirection() const noexcept {
    return isZero(direction) ? Point{} : unit(direction);
}

Point Line::pointAt(double t) const noexcept {
    return plus(origin, scaled(direction, t));
}

double Line::parameterOf(Point point) const noexcept {
    const double length = norm(direction);
    if (length == 0) return 0;
    const Point offset = minus(point, origin);
    if (wellScaled(direction)) return dot(offset, direction) / dot(direction, direction);
    return dot(offset, unit(direction)) / length;
}

Point Line::projection(Point point) const noexcept {
    return pointAt(parameterOf(point));
}

double Line::distance(Point point) const noexcept {
    const double length = norm(direction);
    const Point offset = minus(point, origin);
    if (length == 0) return norm(offset);
    if (wellScaled(direction)) return std::abs(cross(offset, direction)) / length;
    return std::abs(cross(offset, unit(direction)));
}

bool Line::contains(Point point) const noexcept {
    return distance(point) <= slack(direction);
}

LineIntersection Line::intersection(const Line& other) const noexcept {
    if (isZero(direction)) {
        if (other.contains(origin)) return origin;
        return NoIntersection{};
    }
    if (isZero(other.direction)) {
        if (contains(other.origin)) return other.origin;
        return NoIntersection{};
    }
    if (parallel(direction, other.direction)) {
        if (contains(other.origin)) return *this;
        return NoIntersection{};
    }
    const Point offset = minus(other.origin, origin);
    if (wellScaled(direction) && wellScaled(other.direction)) {
        return pointAt(cross(offset, other.direction) / cross(direction, other.direction));
    }
    const Point across = unit(other.direction);
    return pointAt(cross(offset, across) / cross(direction, across));
}

// MARK: - Segment

double Segment::length() const noexcept {
    return norm(minus(end, start));
}

Point Segment::direction() const noexcept {
    return line().unitDirection();
}

Point Segment::pointAt(double t) const noexcept {
    return interpolate(start, end, t);
}

Line Segment::line() const noexcept {
    return Line::through(start, end);
}

Point Segment::projection(Point point) const noexcept {
    return pointAt(std::clamp(line().parameterOf(point), 0.0, 1.0));
}

double Segment::distance(Point point) const noexcept {
    return norm(minus(point, projection(point)));
}

SegmentIntersection Segment::intersection(const Segment& other) const noexcept {
    const Point r = minus(end, start);
    const Point s = minus(other.end, other.start);
    if (isZero(r)) {
        if (other.distance(start) <= slack(s)) return start;
        return NoIntersection{};
    }
    if (isZero(s)) {
        if (distance(other.start) <= slack(r)) return other.start;
        return NoIntersection{};
    }
    const Point offset = minus(other.start, start);
    if (parallel(r, s)) {
        if (line().distance(other.start) > slack(r)) return NoIntersection{};
        // Collinear: where the other segment's ends fall along this one.
        const Line carrier = line();
        const double t0 = carrier.parameterOf(other.start);
        const double t1 = carrier.parameterOf(other.end);
        const double low = std::max(0.0, std::min(t0, t1));
        const double high = std::min(1.0, std::max(t0, t1));
        if (low > high + geometryTolerance) return NoIntersection{};
        if (high - low <= geometryTolerance) return pointAt(std::clamp(low, 0.0, 1.0));
        // Ends that coincide with an end of the other segment are taken from it exactly.
        auto exact = [&](double t) {
            if (t == t0) return other.start;
            if (t == t1) return other.end;
            return pointAt(t);
        };
        return Segment{exact(low), exact(high)};
    }
    double t = 0;
    double u = 0;
    if (wellScaled(r) && wellScaled(s)) {
        const double denominator = cross(r, s);
        t = cross(offset, s) / denominator;
        u = cross(offset, r) / denominator;
    } else {
        const Point rUnit = unit(r);
        const Point sUnit = unit(s);
        t = cross(offset, sUnit) / cross(r, sUnit);
        u = cross(offset, rUnit) / cross(rUnit, s);
    }
    if (!onSegmentParameter(t) || !onSegmentParameter(u)) return NoIntersection{};
    const double clampedU = std::clamp(u, 0.0, 1.0);
    if (clampedU == 0 || clampedU == 1) return other.pointAt(clampedU);
    return pointAt(std::clamp(t, 0.0, 1.0));
}

}  // namespace mirels
