#pragma once

// `AnyLens`: a type-erased, reusable way to read and write one part (`Value`) of a whole (`Root`).
// Also `member()`, `optionalValue()`, `element()`, `value()`.

#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace mirels {

template <class Root, class Value>
class AnyLens;

namespace detail {

template <class Member>
struct LensDataMember {};
template <class Class, class T>
struct LensDataMember<T Class::*> {
    using Owner = Class;
    using Type = T;
};

/// A pointer to a data member of `Owner`.
template <class Member, class Owner>
concept LensDataMemberOf = std::is_member_object_pointer_v<Member> &&
                           std::same_as<typename LensDataMember<Member>::Owner, Owner>;

/// What a lens does, behind the type erasure. `address` gives the value's storage inside the root
/// when the lens reaches a stored member (so composition can reach through without copying), and
/// null when the value is computed.
template <class Root, class Value>
class LensImplementation {
  public:
    virtual ~LensImplementation() = default;
    virtual Value get(const Root& root) const = 0;
    virtual void set(Root& root, Value value) const = 0;
    virtual const Value* address(const Root&) const noexcept { return nullptr; }
    virtual Value* address(Root&) const noexcept { return nullptr; }
};

template <class Root, class Value>
class MemberLens final : public LensImplementation<Root, Value> {
  public:
    explicit MemberLens(Value Root::*member) noexcept : member_(member) {}
    Value get(const Root& root) const override { return root.*member_; }
    void set(Root& root, Value value) const override { root.*member_ = std::move(value); }
    const Value* address(const Root& root) const noexcept override {
        return std::addressof(root.*member_);
    }
    Value* address(Root& root) const noexcept override { return std::addressof(root.*member_); }

  private:
    Value Root::*member_;
};

template <class Root, class Value, class Getter, class Setter>
class AccessorLens final : public LensImplementation<Root, Value> {
  public:
    AccessorLens(Getter getter, Setter setter)
        : getter_(std::move(getter)), setter_(std::move(setter)) {}
    Value get(const Root& root) const override { return std::invoke(getter_, root); }
    void set(Root& root, Value value) const override {
        std::invoke(setter_, root, std::move(value));
    }

  private:
    Getter getter_;
    Setter setter_;
};

template <class Root, class Middle, class Value>
class ComposedLens final : public LensImplementation<Root, Value> {
  public:
    ComposedLens(AnyLens<Root, Middle> outer, AnyLens<Middle, Value> inner)
        : outer_(std::move(outer)), inner_(std::move(inner)) {}

    Value get(const Root& root) const override {
        if (const Middle* middle = outer_.implementation().address(root)) {
            return inner_.implementation().get(*middle);
        }
        return inner_.implementation().get(outer_.implementation().get(root));
    }

    void set(Root& root, Value value) const override {
        if (Middle* middle = outer_.implementation().address(root)) {
            inner_.implementation().set(*middle, std::move(value));
            return;
        }
        Middle middle = outer_.implementation().get(root);
        inner_.implementation().set(middle, std::move(value));
        outer_.implementation().set(root, std::move(middle));
    }

    const Value* address(const Root& root) const noexcept override {
        const Middle* middle = outer_.implementation().address(root);
        return middle == nullptr ? nullptr : inner_.implementation().address(*middle);
    }
    Value* address(Root& root) const noexcept override {
        Middle* middle = outer_.implementation().address(root);
        return middle == nullptr ? nullptr : inner_.implementation().address(*middle);
    }

  private:
    AnyLens<Root, Middle> outer_;
    AnyLens<Middle, Value> inner_;
};

}  // namespace detail

/// A type-erased, reusable way to read and write one part (`Value`) of a whole (`Root`): a
/// member, a computed property with a setter, an element, or a path through several of them.
///
/// Made from a pointer to data member (`AnyLens(&Person::address)`), from a getter and setter
/// pair, or by composing two lenses (`outer.then(inner)`, or `outer / inner`), and for optionals
/// and containers by `lens::optionalValue`, `lens::element` and `lens::value`.
///
/// `get` returns a copy of the value; it never allocates beyond what copying `Value` does: a
/// composition of member lenses reaches through the intermediate values in place. `set` changes
/// the root in place; through a getter/setter lens in the middle of a composition it reads the
/// intermediate value, changes it and writes it back. `with` is the functional form: it returns a
/// changed copy of the root.
///
/// Making a lens allocates its (immutable) implementation once; copying a lens shares it (one
/// reference-count increment), so lenses can be stored and passed freely and used from any number
/// of threads at once. A default-constructed lens is empty (false in a boolean context); using
/// it is undefined.
template <class Root, class Value>
class AnyLens {
    static_assert(std::is_object_v<Root> && !std::is_const_v<Root>,
                  "a lens focuses into a non-const object type");
    static_assert(std::is_object_v<Value> && !std::is_const_v<Value> &&
                      std::move_constructible<Value>,
                  "a lens's value is a movable, non-const object type");

  public:
    using RootType = Root;
    using ValueType = Value;

    AnyLens() noexcept = default;

    /// The lens onto a data member.
    AnyLens(Value Root::*member)  // NOLINT(google-explicit-constructor)
        : implementation_(std::make_shared<const detail::MemberLens<Root, Value>>(member)) {}

    /// The lens whose get is `getter(root)` and whose set is `setter(root, value)`.
    template <class Getter, class Setter>
        requires std::is_invocable_r_v<Value, const Getter&, const Root&> &&
                 std::is_invocable_v<const Setter&, Root&, Value&&>
    AnyLens(Getter getter, Setter setter)
        : implementation_(std::make_shared<const detail::AccessorLens<Root, Value, Getter, Setter>>(
              std::move(getter), std::move(setter))) {}

    /// Wraps an implementation of your own.
    explicit AnyLens(std::shared_ptr<const detail::LensImplementation<Root, Value>> implementation)
        : implementation_(std::move(implementation)) {}

    explicit operator bool() const noexcept { return implementation_ != nullptr; }

    /// The value in `root`.
    Value get(const Root& root) const { return implementation_->get(root); }

    /// Replaces the value in `root`.
    void set(Root& root, Value value) const { implementation_->set(root, std::move(value)); }

    /// A copy of `root` with the value replaced.
    Root with(Root root, Value value) const {
        implementation_->set(root, std::move(value));
        return root;
    }

    /// Calls `change` with the value: in place when the lens reaches stored data, otherwise on a
    /// copy that is written back afterwards (not when `change` throws).
    template <class F>
        requires std::invocable<F&&, Value&>
    void modify(Root& root, F&& change) const {
        if (Value* place = implementation_->address(root)) {
            std::invoke(std::forward<F>(change), *place);
            return;
        }
        Value value = implementation_->get(root);
        std::invoke(std::forward<F>(change), value);
        implementation_->set(root, std::move(value));
    }

    /// The lens from this lens's root through its value to `inner`'s value.
    template <class Inner>
    AnyLens<Root, Inner> then(AnyLens<Value, Inner> inner) const {
        return AnyLens<Root, Inner>(
            std::make_shared<const detail::ComposedLens<Root, Value, Inner>>(*this,
                                                                             std::move(inner)));
    }

    /// Composition with a data member of the value: `lens.then(&Value::member)`.
    template <class Member>
        requires detail::LensDataMemberOf<Member, Value>
    auto then(Member member) const {
        using Inner = typename detail::LensDataMember<Member>::Type;
        return then(AnyLens<Value, Inner>(member));
    }

    template <class Inner>
    friend AnyLens<Root, Inner> operator/(const AnyLens& outer, AnyLens<Value, Inner> inner) {
        return outer.then(std::move(inner));
    }
    template <class Member>
        requires detail::LensDataMemberOf<Member, Value>
    friend auto operator/(const AnyLens& outer, Member member) {
        return outer.then(member);
    }

    const detail::LensImplementation<Root, Value>& implementation() const noexcept {
        return *implementation_;
    }

  private:
    std::shared_ptr<const detail::LensImplementation<Root, Value>> implementation_;
};

template <class Root, class Value>
AnyLens(Value Root::*) -> AnyLens<Root, Value>;

namespace lens {

/// The lens onto a data member, its types deduced: `lens::member(&Person::name)`.
template <class Root, class Value>
AnyLens<Root, Value> member(Value Root::*member) {
    return AnyLens<Root, Value>(member);
}

/// The lens from an optional to its value: get gives the value, or `fallback` when the optional
/// is empty; set stores the value (so the optional is no longer empty).
template <class T>
AnyLens<std::optional<T>, T> optionalValue(T fallback) {
    return AnyLens<std::optional<T>, T>(
        [fallback = std::move(fallback)](const std::optional<T>& optional) {
            return optional.has_value() ? *optional : fallback;
        },
        [](std::optional<T>& optional, T value) { optional = std::move(value); });
}

namespace detail {
template <class Container>
class ElementLens final
    : public mirels::detail::LensImplementation<Container, typename Container::value_type> {
    using Value = typename Container::value_type;

  public:
    explicit ElementLens(typename Container::size_type index) noexcept : index_(index) {}
    Value get(const Container& container) const override { return container.at(index_); }
    void set(Container& container, Value value) const override {
        container.at(index_) = std::move(value);
    }
    const Value* address(const Container& container) const noexcept override {
        return index_ < container.size() ? std::addressof(container[index_]) : nullptr;
    }
    Value* address(Container& container) const noexcept override {
        return index_ < container.size() ? std::addressof(container[index_]) : nullptr;
    }

  private:
    typename Container::size_type index_;
};
}  // namespace detail

/// The lens onto the element at `index` of a random-access container (a vector, a deque, an
/// array). Getting or setting an index the container does not have throws `std::out_of_range`
/// and leaves the container alone.
template <class Container>
    requires requires(Container& c, typename Container::size_type i) {
        c.at(i);
        c[i];
        c.size();
    }
AnyLens<Container, typename Container::value_type> element(typename Container::size_type index) {
    return AnyLens<Container, typename Container::value_type>(
        std::make_shared<const detail::ElementLens<Container>>(index));
}

/// The lens onto the value for `key` in a map (`std::map`, `std::unordered_map` or any type with
/// `find`, `insert_or_assign` and `erase`): get gives the value or nothing; setting a value inserts
/// or replaces it, setting nothing removes the key.
template <class Map>
    requires requires(Map& map, const typename Map::key_type& key,
                      typename Map::mapped_type value) {
        map.find(key);
        map.insert_or_assign(key, std::move(value));
        map.erase(key);
    }
AnyLens<Map, std::optional<typename Map::mapped_type>> value(typename Map::key_type key) {
    using Mapped = typename Map::mapped_type;
    return AnyLens<Map, std::optional<Mapped>>(
        [key](const Map& map) -> std::optional<Mapped> {
            auto found = map.find(key);
            if (found == map.end()) return std::nullopt;
            return found->second;
        },
        [key](Map& map, std::optional<Mapped> value) {
            if (value.has_value()) {
                map.insert_or_assign(key, std::move(*value));
            } else {
                map.erase(key);
            }
        });
}

}  // namespace lens

}  // namespace mirels
