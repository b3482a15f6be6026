#pragma once

// `ExecutionExclusivity`: what the calling thread may do with a value that some tracker guards.
// Also `ExecutionExclusivityTracking`.

#include <cstdint>

namespace mirels {

/// What the calling thread may do with a value that some tracker guards. The cases are ordered
/// by how much they allow (`none < shared < exclusive`), so `exclusivity >= shared` reads "may
/// at least read". Hashable through the standard library's hash for enumerations.
enum class ExecutionExclusivity : std::uint8_t {
    /// The caller may not touch the guarded value.
    none,
    /// The caller may read but not write.
    shared,
    /// The caller may read and write.
    exclusive,
};

/// Something that can tell, at the moment of the call, what the calling thread may do with the
/// state it guards. A `ThreadGuard` consults its tracker before every access; `Thread` is the
/// tracker that grants exclusive access to one thread and none to every other.
class ExecutionExclusivityTracking {
  public:
    virtual ~ExecutionExclusivityTracking() = default;

    /// What the calling thread may do right now.
    virtual ExecutionExclusivity currentExecutionExclusivity() const = 0;

  protected:
    ExecutionExclusivityTracking() = default;
    ExecutionExclusivityTracking(const ExecutionExclusivityTracking&) = default;
    ExecutionExclusivityTracking& operator=(const ExecutionExclusivityTracking&) = default;
};

}  // namespace mirels
