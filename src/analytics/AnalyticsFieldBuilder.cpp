#include "mirels/analytics/AnalyticsFieldBuilder.h"

#include <utility>

namespace mirels {

AnalyticsValue AnalyticsFieldBuilder::makeValue(std::string value, Callsite) {
    return AnalyticsValue::string(std::move(value));
}
AnalyticsValue AnalyticsFieldBuilder::makeValue(std::string_view value, Callsite) {
    return AnalyticsValue::string(std::string(value));
}
AnalyticsValue AnalyticsFieldBuilder::makeValue(const char* value, Callsite) {
    return value == nullptr ? AnalyticsValue::null() : AnalyticsValue::string(value);
}
AnalyticsValue AnalyticsFieldBuilder::makeValue(char* value, Callsite callsite) {
    return makeValue(static_cast<const char*>(value), callsite);
}
AnalyticsValue AnalyticsFieldBuilder::makeValue(bool value, Callsite) {
    return AnalyticsValue::boolean(value);
}
AnalyticsValue AnalyticsFieldBuilder::makeValue(AnalyticsValue::Data value, Callsite) {
    return AnalyticsValue::data(std::move(value));
}
AnalyticsValue AnalyticsFieldBuilder::makeValue(AnalyticsValue value, Callsite) {
    return value;
}

AnalyticsFieldBuilder::Entry::Entry(std::string_view key, const Value& value)
    : key(key), value(value.value()) {}

AnalyticsFields AnalyticsFieldBuilder::buildBlock(std::initializer_list<Entry> entries) {
    AnalyticsFields fields;
    for (const Entry& entry : entries) fields.insert_or_assign(entry.key, entry.value);
    return fields;
}

}  // namespace mirels
