#pragma once

// `TraversalOrder`: the order in which a recursive sequence visits a tree. Also `ChildrenFunction`,
// `RecursiveView`.

#include <concepts>
#include <cstddef>
#include <deque>
#include <functional>
#include <iterator>
#include <optional>
#include <ranges>
#include <type_traits>
#include <utility>

#include "mirels/collections/detail/SequenceSupport.h"

namespace mirels {

/// The order in which a recursive sequence visits a tree.
enum class TraversalOrder {
    /// Depth-first, pre-order: a node, then the whole subtree of its first child, then the next.
    depthFirst,
    /// Breadth-first: every root, then every child of the roots, then every grandchild, ...
    breadthFirst,
};

/// A function giving the children of a node: called with a `const Node&`, returning a range (a
/// container by value, a reference to a container, or a view) whose elements convert to `Node`.
template <class Children, class Node>
concept ChildrenFunction =
    std::invocable<const Children&, const Node&> &&
    std::ranges::viewable_range<std::invoke_result_t<const Children&, const Node&>> &&
    std::ranges::input_range<std::invoke_result_t<const Children&, const Node&>> &&
    std::convertible_to<
        std::ranges::range_reference_t<std::invoke_result_t<const Children&, const Node&>>, Node>;

/// The nodes of a forest, from its roots and a function that gives each node's children, in
/// depth-first pre-order or breadth-first order.
///
/// The traversal keeps its own stack (or queue) on the heap and never recurses, so a chain a
/// million nodes deep is walked in constant call-stack space. It is lazy: a node's children are
/// asked for only when the iteration moves past the node, so it can walk infinite trees when
/// bounded with `std::views::take`. Each step is amortised O(1). Depth-first keeps one pending
/// child range per level that still has unvisited siblings (a chain needs none); breadth-first
/// keeps one per node of the current frontier.
///
/// Nodes are values (`range_value_t` of the roots: often a pointer or an index into the caller's
/// tree) copied into the iterator; dereferencing lends the current one. The children function is
/// called as const and its ranges are kept until they are walked, so returning a container by
/// value is fine. An input range whose iterator owns the traversal state: it is move-only, and
/// each `begin()` starts a fresh walk (the view can be walked again). The roots are read through
/// the view, which must outlive its iterators.
template <TraversalOrder Order, std::ranges::view Roots, class Children>
    requires std::ranges::input_range<const Roots> &&
             std::copy_constructible<std::ranges::range_value_t<Roots>> &&
             ChildrenFunction<Children, std::ranges::range_value_t<Roots>> &&
             std::is_object_v<Children>
class RecursiveView : public std::ranges::view_interface<RecursiveView<Order, Roots, Children>> {
  public:
    using Node = std::ranges::range_value_t<Roots>;

    class Iterator {
        using ChildRange = std::views::all_t<std::invoke_result_t<const Children&, const Node&>>;

        /// One pending child range and how far it has been read. Frames live in a deque, which
        /// never moves its elements, so an iterator into the frame's own range stays valid.
        struct Frame {
            template <class R>
            explicit Frame(R&& children)
                : range(std::views::all(std::forward<R>(children))),
                  next(std::ranges::begin(range)) {}
            Frame(const Frame&) = delete;
            Frame& operator=(const Frame&) = delete;

            bool exhausted() { return next == std::ranges::end(range); }

            ChildRange range;
            std::ranges::iterator_t<ChildRange> next;
        };

      public:
        using iterator_concept = std::input_iterator_tag;
        using value_type = Node;
        using difference_type = std::ptrdiff_t;
        using reference = const Node&;

        Iterator() = default;
        Iterator(Iterator&&) noexcept = default;
        Iterator& operator=(Iterator&&) noexcept = default;
        Iterator(const Iterator&) = delete;
        Iterator& operator=(const Iterator&) = delete;

        const Node& operator*() const noexcept { return *current_; }
        const Node* operator->() const noexcept { return std::addressof(*current_); }

        Iterator& operator++() {
            pending_.emplace_back(std::invoke(*view_->children_, std::as_const(*current_)));
            moveToNext();
            return *this;
        }
        void operator++(int) { ++*this; }

        friend bool operator==(const Iterator& it, std::default_sentinel_t) noexcept {
            return !it.current_.has_value();
        }

      private:
        friend RecursiveView;
        explicit Iterator(const RecursiveView* view)
            : view_(view), root_(std::ranges::begin(view->roots_)) {
            moveToNext();
        }

        void moveToNext() {
            if constexpr (Order == TraversalOrder::depthFirst) {
                while (!pending_.empty()) {
                    Frame& top = pending_.back();
                    if (top.exhausted()) {
                        pending_.pop_back();
                        continue;
                    }
                    current_.emplace(*top.next);
                    ++top.next;
                    // A finished range is dropped before the node's own children are pushed, so
                    // a chain keeps no frames at all.
                    if (top.exhausted()) pending_.pop_back();
                    return;
                }
                if (takeRoot()) return;
            } else {
                if (takeRoot()) return;
                while (!pending_.empty()) {
                    Frame& front = pending_.front();
                    if (front.exhausted()) {
                        pending_.pop_front();
                        continue;
                    }
                    current_.emplace(*front.next);
                    ++front.next;
                    return;
                }
            }
            current_.reset();
        }

        bool takeRoot() {
            if (root_ == std::ranges::end(view_->roots_)) return false;
            current_.emplace(*root_);
            ++root_;
            return true;
        }

        const RecursiveView* view_ = nullptr;
        std::ranges::iterator_t<const Roots> root_{};
        std::deque<Frame> pending_;
        std::optional<Node> current_;
    };

    RecursiveView()
        requires std::default_initializable<Roots> && std::default_initializable<Children>
    = default;
    RecursiveView(Roots roots, Children children)
        : roots_(std::move(roots)), children_(std::move(children)) {}

    /// Starts a walk from the first root.
    Iterator begin() const { return Iterator(this); }
    std::default_sentinel_t end() const noexcept { return std::default_sentinel; }

  private:
    Roots roots_{};
    detail::SequenceBox<Children> children_;
};

namespace views {

namespace detail {
template <TraversalOrder Order>
struct RecursiveFunction {
    /// From a range of roots.
    template <std::ranges::viewable_range R, class Children>
        requires ChildrenFunction<std::decay_t<Children>,
                                  std::ranges::range_value_t<std::views::all_t<R>>>
    auto operator()(R&& roots, Children&& children) const {
        return RecursiveView<Order, std::views::all_t<R>, std::decay_t<Children>>(
            std::views::all(std::forward<R>(roots)), std::forward<Children>(children));
    }

    /// From a single root that is not itself a range (wrap a root that is a range in
    /// `std::views::single`).
    template <class Node, class Children>
        requires(!std::ranges::range<Node>) && std::copy_constructible<std::decay_t<Node>> &&
                ChildrenFunction<std::decay_t<Children>, std::decay_t<Node>>
    auto operator()(Node&& root, Children&& children) const {
        return (*this)(std::views::single(std::forward<Node>(root)),
                       std::forward<Children>(children));
    }
};
}  // namespace detail

/// `depthFirst(roots, children)`: the forest in depth-first pre-order.
inline constexpr detail::RecursiveFunction<TraversalOrder::depthFirst> depthFirst{};
/// `breadthFirst(roots, children)`: the forest level by level.
inline constexpr detail::RecursiveFunction<TraversalOrder::breadthFirst> breadthFirst{};

}  // namespace views

}  // namespace mirels
