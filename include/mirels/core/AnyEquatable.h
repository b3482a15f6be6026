#pragma once

// `AnyEquatable`: one value of any equatable type. Also `AnyComparableValue`, `AnyHashableValue`,
// `AnyComparable`, `AnyHashable`.

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <new>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace mirels {

// Type-erased values: `AnyEquatable`, `AnyComparable` and `AnyHashable` each hold one value of
// any copyable type that offers the operation they are named after, and compare, order or hash
// through that type's own operation.
//
// - Equality holds only between values of the same dynamic type that are equal by that type's
//   `==`. Values of different types are never equal (an `int` 1 is not a `long` 1).
// - Ordering (`AnyComparable`) is defined only within one type: `<=>` gives the type's own
//   ordering, and `std::partial_ordering::unordered` for values of different types, so `<`,
//   `>`, `<=` and `>=` across types are all false. Do not sort a mix of types with it.
// - Hashing (`AnyHashable`) is the type's `std::hash` of the value, so equal values hash
//   equally; values of different types may collide but never compare equal.
//
// Values up to `detail::anyValueInlineSize` bytes, no more aligned than `std::max_align_t`, with
// a non-throwing move, are stored inline: making, copying and comparing them never allocates
// (beyond what the value's own copy does). Larger values live in one heap allocation.
//
// The three are regular values: copyable, movable (a moved-from one is empty), and safe to share
// read-only between threads. An empty one (default-made or moved from) equals only another empty
// one of its kind.

namespace detail {

inline constexpr std::size_t anyValueInlineSize = 48;

template <class T>
inline constexpr bool anyValueFits = sizeof(T) <= anyValueInlineSize;
template <class T>
inline constexpr bool anyValueAlignmentFits = alignof(T) <= alignof(std::max_align_t);
template <class T>
inline constexpr bool anyValueStoredInline =
    anyValueFits<T> && anyValueAlignmentFits<T> && std::is_nothrow_move_constructible_v<T>;

/// What one stored type can do; one static table per type and kind.
struct AnyValueOperations {
    const std::type_info& type;
    bool storedInline;
    void (*copy)(const void* from, void* toStorage);
    void (*relocate)(void* fromStorage, void* toStorage) noexcept;
    void (*destroy)(void* storage) noexcept;
    bool (*equal)(const void* a, const void* b);
    std::partial_ordering (*compare)(const void* a, const void* b);  // null unless ordered
    std::size_t (*hash)(const void* value);                          // null unless hashable
};

/// The storage shared by the three kinds: an operations table and an inline buffer that holds
/// either the value itself or a pointer to it.
class AnyValueStorage {
  public:
    AnyValueStorage() noexcept = default;
    AnyValueStorage(const AnyValueStorage& other) : operations_(nullptr) {
        if (other.operations_ != nullptr) {
            other.operations_->copy(other.value(), buffer_);
            operations_ = other.operations_;
        }
    }
    AnyValueStorage(AnyValueStorage&& other) noexcept : operations_(other.operations_) {
        if (operations_ != nullptr) {
            operations_->relocate(other.buffer_, buffer_);
            other.operations_ = nullptr;
        }
    }
    AnyValueStorage& operator=(const AnyValueStorage& other) {
        if (this != &other) {
            AnyValueStorage copy(other);
            *this = std::move(copy);
        }
        return *this;
    }
    AnyValueStorage& operator=(AnyValueStorage&& other) noexcept {
        if (this != &other) {
            reset();
            if (other.operations_ != nullptr) {
                other.operations_->relocate(other.buffer_, buffer_);
                operations_ = std::exchange(other.operations_, nullptr);
            }
        }
        return *this;
    }
    ~AnyValueStorage() { reset(); }

    template <class T, class... Args>
    void emplace(const AnyValueOperations& operations, Args&&... args) {
        reset();
        if constexpr (anyValueStoredInline<T>) {
            ::new (static_cast<void*>(buffer_)) T(std::forward<Args>(args)...);
        } else {
            T* object = new T(std::forward<Args>(args)...);
            ::new (static_cast<void*>(buffer_)) T*(object);
        }
        operations_ = &operations;
    }

    bool hasValue() const noexcept { return operations_ != nullptr; }
    const AnyValueOperations* operations() const noexcept { return operations_; }

    /// The type of the value held; `typeid(void)` when empty.
    const std::type_info& type() const noexcept {
        return operations_ != nullptr ? operations_->type : typeid(void);
    }

    /// The value, when it is a `T`; null otherwise.
    template <class T>
    const T* as() const noexcept {
        if (operations_ == nullptr || !holds<T>()) return nullptr;
        return static_cast<const T*>(value());
    }

    /// Whether the value is a `T` (a pointer comparison when both sides use one table).
    template <class T>
    bool holds() const noexcept {
        return operations_ != nullptr && operations_->type == typeid(T);
    }

    const void* value() const noexcept {
        if (operations_->storedInline) return buffer_;
        return *std::launder(reinterpret_cast<void* const*>(buffer_));
    }

    bool sameType(const AnyValueStorage& other) const noexcept {
        if (operations_ == other.operations_) return true;
        if (operations_ == nullptr || other.operations_ == nullptr) return false;
        return operations_->type == other.operations_->type;
    }

    bool equals(const AnyValueStorage& other) const {
        if (!sameType(other)) return false;
        if (operations_ == nullptr) return true;
        return operations_->equal(value(), other.value());
    }

  private:
    void reset() noexcept {
        if (operations_ != nullptr) {
            operations_->destroy(buffer_);
            operations_ = nullptr;
        }
    }

    const AnyValueOperations* operations_ = nullptr;
    alignas(std::max_align_t) unsigned char buffer_[anyValueInlineSize];
};

template <class T>
const T& anyValueCast(const void* value) noexcept {
    return *static_cast<const T*>(value);
}

template <class T>
void anyValueCopy(const void* from, void* toStorage) {
    if constexpr (anyValueStoredInline<T>) {
        ::new (toStorage) T(anyValueCast<T>(from));
    } else {
        T* object = new T(anyValueCast<T>(from));
        ::new (toStorage) T*(object);
    }
}

template <class T>
void anyValueRelocate(void* fromStorage, void* toStorage) noexcept {
    if constexpr (anyValueStoredInline<T>) {
        T* from = std::launder(static_cast<T*>(fromStorage));
        ::new (toStorage) T(std::move(*from));
        from->~T();
    } else {
        ::new (toStorage) T*(*std::launder(static_cast<T**>(fromStorage)));
    }
}

template <class T>
void anyValueDestroy(void* storage) noexcept {
    if constexpr (anyValueStoredInline<T>) {
        std::launder(static_cast<T*>(storage))->~T();
    } else {
        delete *std::launder(static_cast<T**>(storage));
    }
}

template <class T>
bool anyValueEqual(const void* a, const void* b) {
    return static_cast<bool>(anyValueCast<T>(a) == anyValueCast<T>(b));
}

template <class T>
std::partial_ordering anyValueCompare(const void* a, const void* b) {
    const T& x = anyValueCast<T>(a);
    const T& y = anyValueCast<T>(b);
    if constexpr (std::three_way_comparable<T, std::partial_ordering>) {
        return std::partial_ordering(x <=> y);
    } else {
        if (x < y) return std::partial_ordering::less;
        if (y < x) return std::partial_ordering::greater;
        if (x == y) return std::partial_ordering::equivalent;
        return std::partial_ordering::unordered;
    }
}

template <class T>
std::size_t anyValueHash(const void* value) {
    return std::hash<T>{}(anyValueCast<T>(value));
}

template <class T>
inline constexpr AnyValueOperations anyEquatableOperations{
    typeid(T),           anyValueStoredInline<T>, &anyValueCopy<T>, &anyValueRelocate<T>,
    &anyValueDestroy<T>, &anyValueEqual<T>,       nullptr,          nullptr};

template <class T>
inline constexpr AnyValueOperations anyComparableOperations{
    typeid(T),           anyValueStoredInline<T>, &anyValueCopy<T>,    &anyValueRelocate<T>,
    &anyValueDestroy<T>, &anyValueEqual<T>,       &anyValueCompare<T>, nullptr};

template <class T>
inline constexpr AnyValueOperations anyHashableOperations{
    typeid(T),           anyValueStoredInline<T>, &anyValueCopy<T>, &anyValueRelocate<T>,
    &anyValueDestroy<T>, &anyValueEqual<T>,       nullptr,          &anyValueHash<T>};

template <class T, class Self>
concept AnyValueCandidate =
    !std::same_as<std::remove_cvref_t<T>, Self> && std::copy_constructible<std::decay_t<T>> &&
    std::equality_comparable<std::decay_t<T>>;

}  // namespace detail

/// Types `AnyComparable` accepts: equatable and ordered by `<`.
template <class T>
concept AnyComparableValue = std::equality_comparable<T> && requires(const T& a, const T& b) {
    { a < b } -> std::convertible_to<bool>;
};

/// Types `AnyHashable` accepts: equatable, with a `std::hash` consistent with `==`.
template <class T>
concept AnyHashableValue = std::equality_comparable<T> && requires(const T& value) {
    { std::hash<T>{}(value) } -> std::convertible_to<std::size_t>;
};

/// One value of any equatable type; equal only to an equal value of the same type.
class AnyEquatable {
  public:
    AnyEquatable() noexcept = default;

    template <class T>
        requires detail::AnyValueCandidate<T, AnyEquatable>
    explicit AnyEquatable(T&& value) {
        storage_.emplace<std::decay_t<T>>(detail::anyEquatableOperations<std::decay_t<T>>,
                                          std::forward<T>(value));
    }

    bool hasValue() const noexcept { return storage_.hasValue(); }
    const std::type_info& type() const noexcept { return storage_.type(); }
    template <class T>
    const T* as() const noexcept {
        return storage_.as<T>();
    }

    // A template, so that it is found only for two AnyEquatables and never converts an argument.
    template <std::same_as<AnyEquatable> Self>
    friend bool operator==(const Self& a, const Self& b) {
        return a.storage_.equals(b.storage_);
    }

  private:
    detail::AnyValueStorage storage_;
};

/// One value of any ordered type: equatable like `AnyEquatable`, and ordered by the type's own
/// ordering within one type; values of different types are unordered (see above).
class AnyComparable {
  public:
    AnyComparable() noexcept = default;

    template <class T>
        requires detail::AnyValueCandidate<T, AnyComparable> && AnyComparableValue<std::decay_t<T>>
    explicit AnyComparable(T&& value) {
        storage_.emplace<std::decay_t<T>>(detail::anyComparableOperations<std::decay_t<T>>,
                                          std::forward<T>(value));
    }

    bool hasValue() const noexcept { return storage_.hasValue(); }
    const std::type_info& type() const noexcept { return storage_.type(); }
    template <class T>
    const T* as() const noexcept {
        return storage_.as<T>();
    }

    // A template, so that it is found only for two AnyComparables and never converts an argument.
    template <std::same_as<AnyComparable> Self>
    friend bool operator==(const Self& a, const Self& b) {
        return a.storage_.equals(b.storage_);
    }

    /// The type's own ordering for values of one type; `unordered` across types; two empty
    /// values are equivalent.
    template <std::same_as<AnyComparable> Self>
    friend std::partial_ordering operator<=>(const Self& a, const Self& b) {
        if (!a.storage_.sameType(b.storage_)) return std::partial_ordering::unordered;
        if (!a.storage_.hasValue()) return std::partial_ordering::equivalent;
        return a.storage_.operations()->compare(a.storage_.value(), b.storage_.value());
    }

  private:
    detail::AnyValueStorage storage_;
};

/// One value of any hashable type, usable as a key of a hash table that holds keys of many
/// types. Lookups may use a plain `T` without wrapping it (`hashOf`, `isEqual`), so that finding
/// a key never copies it.
class AnyHashable {
  public:
    AnyHashable() noexcept = default;

    template <class T>
        requires detail::AnyValueCandidate<T, AnyHashable> && AnyHashableValue<std::decay_t<T>>
    explicit AnyHashable(T&& value) {
        storage_.emplace<std::decay_t<T>>(detail::anyHashableOperations<std::decay_t<T>>,
                                          std::forward<T>(value));
    }

    bool hasValue() const noexcept { return storage_.hasValue(); }
    const std::type_info& type() const noexcept { return storage_.type(); }
    template <class T>
    const T* as() const noexcept {
        return storage_.as<T>();
    }

    /// The hash of the value held (0 when empty).
    std::size_t hashValue() const {
        return storage_.hasValue() ? storage_.operations()->hash(storage_.value()) : 0;
    }

    /// The hash an `AnyHashable` holding `value` would have.
    template <AnyHashableValue T>
    static std::size_t hashOf(const T& value) {
        return std::hash<T>{}(value);
    }

    /// Whether this holds a `T` equal to `value`.
    template <AnyHashableValue T>
    bool isEqual(const T& value) const {
        const detail::AnyValueOperations* operations = storage_.operations();
        // One table per type in this image: a pointer comparison settles the common case.
        if (operations != &detail::anyHashableOperations<T> && !storage_.holds<T>()) return false;
        return static_cast<bool>(*static_cast<const T*>(storage_.value()) == value);
    }

    // A template, so that it is found only for two AnyHashables and never converts an argument.
    template <std::same_as<AnyHashable> Self>
    friend bool operator==(const Self& a, const Self& b) {
        return a.storage_.equals(b.storage_);
    }

  private:
    detail::AnyValueStorage storage_;
};

}  // namespace mirels

template <>
struct std::hash<mirels::AnyHashable> {
    std::size_t operator()(const mirels::AnyHashable& value) const { return value.hashValue(); }
};
