// Arbitrary coordinates through segment and line intersection. Any double (NaN, infinities,
// huge, tiny) must be handled without a crash or undefined behaviour; for finite coordinates of
// moderate size, whatever an intersection reports must lie on both inputs.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <variant>

#include "mirels/geometry/Line.h"

namespace {

using mirels::Point;
using mirels::Segment;

bool moderate(double v) {
    return std::isfinite(v) && std::abs(v) <= 1e6;
}

void check(bool condition) {
    if (!condition) std::abort();
}

/// Whether `p` is on `s` within a slack far wider than the tolerance, which is relative to the
/// larger of the two segments.
bool near(const Segment& s, Point p, double scale) {
    return s.distance(p) <= 1e-6 * scale;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    double v[8] = {};
    std::memcpy(v, data, std::min(size, sizeof v));
    const Segment a{{v[0], v[1]}, {v[2], v[3]}};
    const Segment b{{v[4], v[5]}, {v[6], v[7]}};
    const auto meet = a.intersection(b);
    const auto lines = a.line().intersection(b.line());
    (void)lines;
    (void)a.projection(b.start);
    (void)a.line().distance(b.end);

    bool allModerate = true;
    for (double x : v) allModerate = allModerate && moderate(x);
    if (!allModerate) return 0;
    const double scale = std::max({1.0, a.length(), b.length()});
    if (const Point* p = std::get_if<Point>(&meet)) {
        check(near(a, *p, scale) && near(b, *p, scale));
    } else if (const Segment* overlap = std::get_if<Segment>(&meet)) {
        check(near(a, overlap->start, scale) && near(a, overlap->end, scale));
        check(near(b, overlap->start, scale) && near(b, overlap->end, scale));
    }
    return 0;
}
