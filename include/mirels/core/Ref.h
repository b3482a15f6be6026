#pragma once

// `Ref`: wraps a shared reference so that it compares and hashes by identity (the object's
// address), for keeping reference objects such as cancellation tokens in sets.

#include <functional>
#include <memory>

namespace mirels {

/// Wraps a shared reference so that it compares and hashes by identity (the object's address),
/// for keeping reference objects such as cancellation tokens in sets.
template <class T>
class Ref {
  public:
    explicit Ref(std::shared_ptr<T> object) noexcept : object_(std::move(object)) {}

    const std::shared_ptr<T>& object() const noexcept { return object_; }
    T* get() const noexcept { return object_.get(); }
    T& operator*() const noexcept { return *object_; }
    T* operator->() const noexcept { return object_.get(); }

    friend bool operator==(const Ref& a, const Ref& b) noexcept {
        return a.object_.get() == b.object_.get();
    }

  private:
    std::shared_ptr<T> object_;
};

}  // namespace mirels

template <class T>
struct std::hash<mirels::Ref<T>> {
    std::size_t operator()(const mirels::Ref<T>& ref) const noexcept {
        return std::hash<const void*>{}(ref.get());
    }
};
