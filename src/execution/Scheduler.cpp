#include "mirels/execution/Scheduler.h"

namespace mirels {

Scheduler::~Scheduler() = default;

}  // namespace mirels
