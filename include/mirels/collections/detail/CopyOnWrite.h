#pragma once

// `CopyOnWrite` (internal): the reference-counted shared storage of a copy-on-write value.

#include <atomic>
#include <cstddef>
#include <utility>

namespace mirels::detail {

/// The shared storage of a copy-on-write value: one heap box with a reference count. Copying the
/// value is one count increment; `mutableValue()` copies the box first when another value shares
/// it, so storage that is shared is never written and any number of threads may read it while
/// one of them works on a private copy.
///
/// The count is our own rather than `std::shared_ptr`'s because the uniqueness test must be an
/// acquire load: a writer that finds itself the only owner has to see every read that other
/// owners made before they let go, and `shared_ptr::use_count()` is a relaxed load.
template <class T>
class CopyOnWrite {
    struct Box {
        template <class... Args>
        explicit Box(Args&&... args) : value(std::forward<Args>(args)...) {}

        std::atomic<std::size_t> references{1};
        T value;
    };

  public:
    CopyOnWrite() noexcept = default;

    template <class... Args>
    static CopyOnWrite make(Args&&... args) {
        CopyOnWrite result;
        result.box_ = new Box(std::forward<Args>(args)...);
        return result;
    }

    CopyOnWrite(const CopyOnWrite& other) noexcept : box_(other.box_) {
        if (box_ != nullptr) box_->references.fetch_add(1, std::memory_order_relaxed);
    }
    CopyOnWrite(CopyOnWrite&& other) noexcept : box_(std::exchange(other.box_, nullptr)) {}

    CopyOnWrite& operator=(const CopyOnWrite& other) noexcept {
        CopyOnWrite copy(other);
        swap(copy);
        return *this;
    }
    CopyOnWrite& operator=(CopyOnWrite&& other) noexcept {
        CopyOnWrite taken(std::move(other));
        swap(taken);
        return *this;
    }

    ~CopyOnWrite() { release(); }

    void swap(CopyOnWrite& other) noexcept { std::swap(box_, other.box_); }

    /// Read access, or null when no storage was made yet.
    const T* get() const noexcept { return box_ != nullptr ? &box_->value : nullptr; }

    /// Whether this value is the only owner of its storage (false without storage).
    bool isUniquelyReferenced() const noexcept {
        return box_ != nullptr && box_->references.load(std::memory_order_acquire) == 1;
    }

    /// Write access to storage that no other value shares: made when absent, copied when shared.
    T& mutableValue() {
        if (box_ == nullptr) {
            box_ = new Box();
        } else if (!isUniquelyReferenced()) {
            Box* copy = new Box(std::as_const(box_->value));
            release();
            box_ = copy;
        }
        return box_->value;
    }

    /// Drops this value's share of the storage.
    void reset() noexcept {
        release();
        box_ = nullptr;
    }

  private:
    void release() noexcept {
        if (box_ != nullptr && box_->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete box_;
        }
    }

    Box* box_ = nullptr;
};

}  // namespace mirels::detail
