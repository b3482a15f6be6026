#pragma once

#include <cstddef>
#include <new>
#include <utility>
#include <vector>

namespace mirels::detail {

/// An append-only list that keeps its first `InlineCount` entries inside itself and only the
/// rest on the heap: a future's finish observers, of which there is usually one and rarely more
/// than a few, so that registering an observer does not allocate.
///
/// Not thread-safe: the future guards it with its lock while it runs and owns it alone once it
/// has finished.
template <class Entry, std::size_t InlineCount>
class ObserverList {
  public:
    ObserverList() noexcept = default;
    ObserverList(const ObserverList&) = delete;
    ObserverList& operator=(const ObserverList&) = delete;
    ~ObserverList() { clear(); }

    bool empty() const noexcept { return inlineCount_ == 0; }
    std::size_t size() const noexcept { return inlineCount_ + overflow_.size(); }

    template <class... Args>
    void emplace_back(Args&&... args) {
        if (inlineCount_ < InlineCount) {
            ::new (static_cast<void*>(slot(inlineCount_))) Entry{std::forward<Args>(args)...};
            ++inlineCount_;
        } else {
            overflow_.push_back(Entry{std::forward<Args>(args)...});
        }
    }

    /// Calls `body` with every entry, in the order they were added.
    template <class Body>
    void forEach(Body&& body) {
        for (std::size_t i = 0; i < inlineCount_; ++i) body(*slot(i));
        for (Entry& entry : overflow_) body(entry);
    }

    /// Destroys every entry (and what it captured).
    void clear() noexcept {
        for (std::size_t i = 0; i < inlineCount_; ++i) slot(i)->~Entry();
        inlineCount_ = 0;
        if (!overflow_.empty()) std::vector<Entry>().swap(overflow_);
    }

  private:
    Entry* slot(std::size_t index) noexcept {
        return std::launder(reinterpret_cast<Entry*>(storage_ + index * sizeof(Entry)));
    }

    std::size_t inlineCount_ = 0;
    alignas(Entry) std::byte storage_[InlineCount * sizeof(Entry)];
    std::vector<Entry> overflow_;
};

}  // namespace mirels::detail
