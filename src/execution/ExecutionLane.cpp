#include "mirels/execution/ExecutionLane.h"

#include "mirels/core/FatalError.h"

namespace mirels {

ExecutionLane ExecutionLane::queue(std::string label, QualityOfService qos) {
    return ExecutionLane(Kind::queue, DispatchQueue::create(std::move(label), qos));
}

ExecutionLane ExecutionLane::queue(std::shared_ptr<DispatchQueue> queue) noexcept {
    if (queue == nullptr) fatalError("ExecutionLane::queue needs a queue, not null");
    return ExecutionLane(Kind::queue, std::move(queue));
}

}  // namespace mirels
