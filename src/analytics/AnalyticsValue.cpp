#include "mirels/analytics/AnalyticsValue.h"

#include <utility>

namespace mirels {

AnalyticsValue AnalyticsValue::string(std::string value) {
    return AnalyticsValue(std::move(value));
}
AnalyticsValue AnalyticsValue::boolean(bool value) {
    return AnalyticsValue(value);
}
AnalyticsValue AnalyticsValue::integer(std::int64_t value) {
    return AnalyticsValue(value);
}
AnalyticsValue AnalyticsValue::floating(double value) {
    return AnalyticsValue(value);
}
AnalyticsValue AnalyticsValue::data(Data value) {
    return AnalyticsValue(std::move(value));
}

AnalyticsValue AnalyticsValue::type(const std::type_info& type) {
    return string(unqualifiedTypeName(type));
}

}  // namespace mirels
