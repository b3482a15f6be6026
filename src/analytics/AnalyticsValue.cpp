#include "mirels/analytics/AnalyticsValue.h"

#include <type_traits>
#include <utility>

namespace mirels {

// Every alternative moves without throwing, so the moves declared noexcept in the header are
// what the compiler would have made them.
static_assert(std::is_nothrow_move_constructible_v<AnalyticsValue::Storage> &&
              std::is_nothrow_move_assignable_v<AnalyticsValue::Storage>);

AnalyticsValue::AnalyticsValue() noexcept : storage_(std::monostate{}) {}
AnalyticsValue::AnalyticsValue(const AnalyticsValue& other) = default;
AnalyticsValue::AnalyticsValue(AnalyticsValue&& other) noexcept = default;
AnalyticsValue& AnalyticsValue::operator=(const AnalyticsValue& other) = default;
AnalyticsValue& AnalyticsValue::operator=(AnalyticsValue&& other) noexcept = default;
AnalyticsValue::~AnalyticsValue() = default;

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
