#pragma once

// `Weak`: a box holding a weak reference.

#include <memory>

namespace mirels {

/// A box holding a weak reference: it never keeps its object alive, and `value()` gives the
/// object while something else still owns it, else null.
template <class T>
class Weak {
  public:
    Weak() noexcept = default;
    Weak(const std::shared_ptr<T>& object) noexcept : object_(object) {}  // NOLINT

    std::shared_ptr<T> value() const noexcept { return object_.lock(); }
    bool expired() const noexcept { return object_.expired(); }

    /// Identity of the referenced object, still defined after it went away.
    friend bool operator==(const Weak& a, const Weak& b) noexcept {
        return !a.object_.owner_before(b.object_) && !b.object_.owner_before(a.object_);
    }

  private:
    std::weak_ptr<T> object_;
};

}  // namespace mirels
