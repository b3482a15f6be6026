#pragma once

// `Error`: a failure as a value.

#include <concepts>
#include <exception>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "mirels/Export.h"

namespace mirels {

class HumanReadableError;

namespace detail {
template <class T>
struct IsSharedHumanReadableError : std::false_type {};
template <class T>
struct IsSharedHumanReadableError<std::shared_ptr<T>>
    : std::bool_constant<std::is_same_v<std::remove_cv_t<T>, HumanReadableError> ||
                         std::is_base_of_v<HumanReadableError, std::remove_cv_t<T>>> {};
}  // namespace detail

/// A failure as a value: one copyable, type-erased handle on any thrown object. Futures and
/// results carry their failures as `Error`s; copies share the object (and compare equal).
///
/// An `Error` made from a typed object (`Error(TimeoutError{...})`) stores it in one allocation and
/// answers `as<T>()`, `exception()` and `humanReadableError()` without throwing. One made from an
/// `std::exception_ptr` (for example `Error::current()` inside `catch (...)`) learns its type
/// once, when it is made.
class MIRELS_EXPORT Error {
  public:
    /// Holds a copy (or the moved value) of `error`, which may be of any type.
    ///
    /// A shared pointer to a `HumanReadableError` is refused: it would be held as a pointer,
    /// not as the error. Hold the error itself.
    template <class E>
        requires(!std::is_same_v<std::remove_cvref_t<E>, Error> &&
                 !std::is_same_v<std::remove_cvref_t<E>, std::exception_ptr> &&
                 !std::is_same_v<std::remove_cvref_t<E>, std::nullopt_t> &&
                 !detail::IsSharedHumanReadableError<std::remove_cvref_t<E>>::value)
    Error(E&& error)  // NOLINT(google-explicit-constructor): any thrown object is an error value
        : box_(std::make_shared<Typed<std::remove_cvref_t<E>>>(std::forward<E>(error))) {
        // Checked here rather than in the constraint: asking whether a standard library wrapper
        // holding an `Error&&` is copyable would otherwise ask this constructor again.
        static_assert(std::is_copy_constructible_v<std::remove_cvref_t<E>>,
                      "an error value must be copyable");
    }

    /// Holds the object behind `exception`, which must not be null.
    explicit Error(std::exception_ptr exception);

    /// The exception being handled; call only inside a `catch` block.
    [[nodiscard]] static Error current() { return Error(std::current_exception()); }

    /// Throws the error: a copy of a typed object, or the very object behind an exception_ptr.
    [[noreturn]] void rethrow() const {
        box_->rethrow();
        __builtin_unreachable();  // the box's rethrow never returns; the compiler cannot see it
    }

    /// An `exception_ptr` to the object (a copy, for a typed error).
    std::exception_ptr exceptionPointer() const { return box_->exceptionPointer(); }

    /// The dynamic type of the held object.
    const std::type_info& type() const noexcept { return *box_->type; }

    /// The held object as a `std::exception`, or null when it is not one.
    const std::exception* exception() const noexcept { return box_->exception; }

    /// The held object as a `HumanReadableError`, or null when it is not one.
    const HumanReadableError* humanReadableError() const noexcept { return box_->humanReadable; }

    /// The held object as a shared `HumanReadableError` that keeps this error's storage alive, or
    /// null when it is not one. Shares the existing storage: it never allocates.
    std::shared_ptr<const HumanReadableError> sharedHumanReadableError() const noexcept {
        if (box_->humanReadable == nullptr) return nullptr;
        return std::shared_ptr<const HumanReadableError>(box_, box_->humanReadable);
    }

    /// The held object as a `T` (or a class derived from it), or null.
    template <class T>
    const T* as() const noexcept {
        if (box_->object != nullptr && typeid(T) == *box_->type) {
            return static_cast<const T*>(box_->object);
        }
        if constexpr (std::is_base_of_v<std::exception, T>) {
            return dynamic_cast<const T*>(box_->exception);
        } else {
            // The language's own catch rules decide base-class matches for other types.
            try {
                if (box_->foreign) std::rethrow_exception(box_->exceptionPointer());
                box_->throwPointer();
            } catch (const T& match) {  // reached only for foreign objects, never copied
                return &match;
            } catch (const T* match) {
                return match;
            } catch (...) {
            }
            return nullptr;
        }
    }

    /// The held object's default textual rendering: `what()` of a `std::exception`; else its
    /// `description()` member or `operator<<` output; else, for a thrown string or number, its
    /// value; else the unqualified name of its type.
    std::string description() const;

    /// The unqualified name of the held object's type.
    std::string typeName() const;

    /// Identity: the same held object.
    friend bool operator==(const Error& a, const Error& b) noexcept { return a.box_ == b.box_; }

  private:
    struct Box {
        const void* object = nullptr;
        const std::type_info* type = nullptr;
        const std::exception* exception = nullptr;
        const HumanReadableError* humanReadable = nullptr;
        bool foreign = false;

        virtual ~Box() = default;
        virtual std::string describe() const = 0;
        [[noreturn]] virtual void rethrow() const = 0;
        [[noreturn]] virtual void throwPointer() const = 0;
        virtual std::exception_ptr exceptionPointer() const = 0;
    };

    template <class E>
    struct Typed final : Box {
        E value;

        template <class Arg>
        explicit Typed(Arg&& arg) : value(std::forward<Arg>(arg)) {
            object = &value;
            type = &typeid(value);
            if constexpr (std::is_base_of_v<std::exception, E>) {
                exception = &value;
                humanReadable = humanReadableOf(exception);
            }
        }
        std::string describe() const override {
            if constexpr (std::is_base_of_v<std::exception, E>) {
                return value.what();
            } else if constexpr (requires {
                                     { value.description() } -> std::convertible_to<std::string>;
                                 }) {
                return value.description();
            } else if constexpr (requires(std::ostream& stream) { stream << value; }) {
                std::ostringstream stream;
                stream << value;
                return std::move(stream).str();
            } else {
                return typeNameOf(*type);
            }
        }
        [[noreturn]] void rethrow() const override { throw value; }
        [[noreturn]] void throwPointer() const override { throw &value; }
        std::exception_ptr exceptionPointer() const override {
            return std::make_exception_ptr(value);
        }
    };

    struct Foreign;

    // Out of line so that this header does not need `HumanReadableError` to be complete.
    static const HumanReadableError* humanReadableOf(const std::exception* exception) noexcept;
    static std::string typeNameOf(const std::type_info& type);

    std::shared_ptr<const Box> box_;
};

/// Streams `description()`. A template on exactly `Error`, so that streaming another type never
/// converts it into an error through the converting constructor.
template <std::same_as<Error> E>
std::ostream& operator<<(std::ostream& stream, const E& error) {
    return stream << error.description();
}

}  // namespace mirels
