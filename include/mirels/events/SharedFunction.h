#pragma once

// `SharedFunction`: a copyable handle to one shared callable; copies call the same object.

#include <atomic>
#include <cstddef>
#include <utility>

#include "mirels/core/UniqueFunction.h"

namespace mirels {

template <class Signature>
class SharedFunction;

/// A copyable handle to one shared callable: copies call the same object. This is how a stored
/// callback (a move-only `UniqueFunction`) goes into a copy-on-write container, whose copies
/// must share their elements, and how one handler is handed to several subscriptions.
///
/// One allocation holds a reference count and the callable; there is no weak count, since
/// nothing refers to a handler without keeping it. Calling is const and may happen on several
/// threads at once; the callable must allow that.
template <class R, class... Args>
class SharedFunction<R(Args...)> {
  public:
    SharedFunction() noexcept = default;

    /// Shares `function` (one allocation, for the shared object).
    explicit SharedFunction(UniqueFunction<R(Args...)> function)
        : node_(new Node{{1}, std::move(function)}) {}

    SharedFunction(const SharedFunction& other) noexcept : node_(other.node_) {
        if (node_ != nullptr) node_->references.fetch_add(1, std::memory_order_relaxed);
    }
    SharedFunction(SharedFunction&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
    SharedFunction& operator=(SharedFunction other) noexcept {
        std::swap(node_, other.node_);
        return *this;
    }
    ~SharedFunction() {
        if (node_ == nullptr) return;
        // A handle that sees itself as the only one may skip the atomic decrement: no other
        // handle exists that could be copied meanwhile.
        if (node_->references.load(std::memory_order_acquire) == 1 ||
            node_->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete node_;
        }
    }

    R operator()(Args... args) const { return node_->function(std::forward<Args>(args)...); }

    explicit operator bool() const noexcept { return node_ != nullptr && node_->function; }

    /// Whether two handles call the same object.
    friend bool operator==(const SharedFunction& a, const SharedFunction& b) noexcept {
        return a.node_ == b.node_;
    }

  private:
    struct Node {
        std::atomic<std::size_t> references;
        UniqueFunction<R(Args...)> function;
    };

    Node* node_ = nullptr;
};

}  // namespace mirels
