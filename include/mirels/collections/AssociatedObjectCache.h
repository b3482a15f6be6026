#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "mirels/core/ThreadSafe.h"
#include "mirels/core/UniqueFunction.h"

namespace mirels {

/// Values associated with live objects by identity: the first request for an object makes its
/// value with the cache's factory, and every request while that value lives hands out the same
/// value as a reference-counted handle (`std::shared_ptr<Value>`).
///
/// An entry goes away on either edge, whichever comes first:
/// - when the last handle on its value is released: the value is destroyed then, and the next
///   request for the object makes a new one;
/// - when its object dies: the entry no longer answers (a new object that gets the same address
///   gets a value of its own), and the cache drops the entry at its next sweep. Handles still
///   held keep the value alive, but no longer connect it to any object.
///
/// The cache holds objects and values weakly; it never keeps either alive. The factory must not
/// store a strong reference to the object in the value, or the object can never die while a
/// handle lives.
///
/// Thread-safe: requests and handle releases may come from any thread. The factory runs with no
/// lock held; two threads that request a new object's value at the same moment may both run
/// it, but only the first value to be stored is kept and handed to both, so an object has one
/// value at a time. Sweeps of dead entries run when the table has doubled since the last one
/// (amortised O(1) per new entry).
///
/// Costs: a hit is one lock, one hash lookup and two reference-count increments; a miss adds
/// the factory and one allocation (the value and its bookkeeping together).
template <class Object, class Value>
class AssociatedObjectCache {
  public:
    using Handle = std::shared_ptr<Value>;
    using Factory = std::function<Value(Object&)>;

    explicit AssociatedObjectCache(Factory factory)
        : shared_(std::make_shared<Shared>(std::move(factory))) {}
    AssociatedObjectCache(const AssociatedObjectCache&) = delete;
    AssociatedObjectCache& operator=(const AssociatedObjectCache&) = delete;

    /// The value associated with `object`, made now if there is none. `object` must not be
    /// null.
    [[nodiscard]] Handle value(const std::shared_ptr<Object>& object) {
        if (Handle existing = lookUp(object)) return existing;
        // Made outside the lock, then stored unless another thread stored one first.
        auto box = std::make_shared<Box>(shared_->factory(*object), shared_, object.get());
        Handle made = handleOf(box);
        std::vector<Entry> dropped;
        Handle kept = shared_->table.syncWrite([&](Table& table) -> Handle {
            Entry& entry = table.entries[object.get()];
            if (!isDeadOrOther(entry, object)) {
                if (std::shared_ptr<Box> present = entry.value.lock()) return handleOf(present);
            }
            entry.object = object;
            entry.value = box;
            if (table.entries.size() >= table.sweepAt) dropped = sweep(table);
            return made;
        });
        return kept;
    }

    /// The value associated with `object` if one lives now; never makes one.
    [[nodiscard]] Handle existingValue(const std::shared_ptr<Object>& object) const {
        return lookUp(object);
    }

    /// How many entries answer now (living object, living value).
    std::size_t count() const {
        return shared_->table.syncRead([](const Table& table) {
            std::size_t living = 0;
            for (const auto& [address, entry] : table.entries) {
                living += (!entry.object.expired() && !entry.value.expired()) ? 1 : 0;
            }
            return living;
        });
    }

    /// Entries stored, dead ones included (for tests of pruning).
    std::size_t storedCount() const {
        return shared_->table.syncRead([](const Table& table) { return table.entries.size(); });
    }

  private:
    struct Shared;
    struct Box;

    struct Entry {
        std::weak_ptr<Object> object;
        std::weak_ptr<Box> value;
    };

    struct Table {
        std::unordered_map<const Object*, Entry> entries;
        std::size_t sweepAt = 16;
    };

    struct Shared {
        explicit Shared(Factory f) : factory(std::move(f)) {}
        Factory factory;
        ThreadSafe<Table> table;
    };

    // The value and what it needs to remove its entry when its last handle goes.
    struct Box {
        Box(Value v, const std::shared_ptr<Shared>& shared, const Object* address)
            : value(std::move(v)), shared(shared), address(address) {}
        Box(const Box&) = delete;
        Box& operator=(const Box&) = delete;
        ~Box() {
            std::shared_ptr<Shared> owner = shared.lock();
            if (!owner) return;
            // Our own entry's value has expired by now; a newer entry for the address has not.
            std::optional<Entry> removed = owner->table.syncWrite([&](Table& table) {
                auto position = table.entries.find(address);
                if (position == table.entries.end() || !position->second.value.expired()) {
                    return std::optional<Entry>();
                }
                std::optional<Entry> entry(std::move(position->second));
                table.entries.erase(position);
                return entry;
            });
        }

        Value value;
        std::weak_ptr<Shared> shared;
        const Object* address;
    };

    static Handle handleOf(const std::shared_ptr<Box>& box) { return Handle(box, &box->value); }

    static bool isDeadOrOther(const Entry& entry, const std::shared_ptr<Object>& object) {
        return entry.object.owner_before(object) || object.owner_before(entry.object) ||
               entry.object.expired();
    }

    Handle lookUp(const std::shared_ptr<Object>& object) const {
        return shared_->table.syncRead([&](const Table& table) -> Handle {
            auto position = table.entries.find(object.get());
            if (position == table.entries.end() || isDeadOrOther(position->second, object)) {
                return nullptr;
            }
            std::shared_ptr<Box> box = position->second.value.lock();
            return box ? handleOf(box) : nullptr;
        });
    }

    // Under the lock: takes out the entries whose object or value is gone, to be destroyed
    // after the lock is released.
    static std::vector<Entry> sweep(Table& table) {
        std::vector<Entry> dropped;
        for (auto position = table.entries.begin(); position != table.entries.end();) {
            if (position->second.object.expired() || position->second.value.expired()) {
                dropped.push_back(std::move(position->second));
                position = table.entries.erase(position);
            } else {
                ++position;
            }
        }
        table.sweepAt = std::max<std::size_t>(16, table.entries.size() * 2);
        return dropped;
    }

    std::shared_ptr<Shared> shared_;
};

}  // namespace mirels
