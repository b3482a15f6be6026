#pragma once

#include <atomic>

namespace mirels::detail {

/// A lock-free, unbounded, intrusive multi-producer single-consumer FIFO list (the design by
/// Dmitry Vyukov). `push` is wait-free: one atomic exchange and one store. `pop` is for one
/// consumer at a time; it may return null while a push is half done (the producer has swung the
/// tail but not yet linked its node), which `isSettledEmpty` tells apart from real emptiness.
///
/// `Node` must have a member `std::atomic<Node*> next`.
template <class Node>
class IntrusiveMpscQueue {
  public:
    IntrusiveMpscQueue() noexcept : head_(&stub_), tail_(&stub_) {}
    IntrusiveMpscQueue(const IntrusiveMpscQueue&) = delete;
    IntrusiveMpscQueue& operator=(const IntrusiveMpscQueue&) = delete;

    /// Appends `node`. Any thread. Sequentially consistent, so that a producer that pushes and
    /// then reads a consumer's flag, and a consumer that writes its flag and then checks
    /// `isSettledEmpty`, cannot both miss each other.
    void push(Node* node) noexcept {
        node->next.store(nullptr, std::memory_order_relaxed);
        Node* previous = tail_.exchange(node, std::memory_order_seq_cst);
        previous->next.store(node, std::memory_order_release);
    }

    /// Removes and returns the oldest node, or null when the list is empty or the oldest push is
    /// still in progress. Consumer only.
    Node* pop() noexcept {
        Node* head = head_;
        Node* next = head->next.load(std::memory_order_acquire);
        if (head == &stub_) {
            if (next == nullptr) return nullptr;
            head_ = next;
            head = next;
            next = next->next.load(std::memory_order_acquire);
        }
        if (next != nullptr) {
            head_ = next;
            return head;
        }
        if (head != tail_.load(std::memory_order_acquire)) return nullptr;  // push in progress
        push(&stub_);
        next = head->next.load(std::memory_order_acquire);
        if (next != nullptr) {
            head_ = next;
            return head;
        }
        return nullptr;
    }

    /// True when no node is queued and no push has begun. Consumer only; meaningful after `pop`
    /// returned null.
    bool isSettledEmpty() const noexcept {
        return head_ == &stub_ && tail_.load(std::memory_order_seq_cst) == &stub_;
    }

    /// Whether a producer has begun a push since the list was last settled-empty. Consumer only;
    /// cheap enough to spin on.
    bool hasIncoming() const noexcept {
        return head_ != &stub_ || tail_.load(std::memory_order_relaxed) != &stub_;
    }

  private:
    Node* head_;  // consumer only
    alignas(64) std::atomic<Node*> tail_;
    alignas(64) Node stub_;
};

}  // namespace mirels::detail
