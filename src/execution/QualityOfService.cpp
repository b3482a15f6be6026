#include "mirels/execution/QualityOfService.h"

namespace mirels {

const char* name(QualityOfService qos) noexcept {
    switch (qos) {
        case QualityOfService::userInteractive:
            return "userInteractive";
        case QualityOfService::userInitiated:
            return "userInitiated";
        case QualityOfService::standard:
            return "standard";
        case QualityOfService::utility:
            return "utility";
        case QualityOfService::background:
            return "background";
    }
    return "unknown";
}

}  // namespace mirels
