#pragma once

#include <exception>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace mirels {

class HumanReadableError;

/// A failure as a value: one copyable, type-erased handle on any thrown object. Futures and
/// results carry their failures as `Error`s; copies share the object (and compare equal).
///
/// An `Error` made from a typed object (`Error(TimeoutError{...})`) stores it in one allocation and
/// answers `as<T>()`, `exception()` and `humanReadableError()` without throwing. One made from an
/// `std::exception_ptr` (for example `Error::current()` inside `catch (...)`) learns its type
/// once, when it is made.
class Error {
  public:
    /// Holds a copy (or the moved value) of `error`, which may be of any type.
    template <class E>
        requires(!std::is_same_v<std::remove_cvref_t<E>, Error> &&
                 !std::is_same_v<std::remove_cvref_t<E>, std::exception_ptr> &&
                 std::is_copy_constructible_v<std::remove_cvref_t<E>>)
    Error(E&& error)  // NOLINT(google-explicit-constructor): any thrown object is an error value
        : box_(std::make_shared<Typed<std::remove_cvref_t<E>>>(std::forward<E>(error))) {}

    /// Holds the object behind `exception`, which must not be null.
    explicit Error(std::exception_ptr exception);

    /// The exception being handled; call only inside a `catch` block.
    static Error current() { return Error(std::current_exception()); }

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

    /// `what()` of a `std::exception`, else the unqualified name of the held object's type.
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
            if constexpr (std::is_base_of_v<std::exception, E>) exception = &value;
            if constexpr (std::is_polymorphic_v<E>) {
                humanReadable = dynamic_cast<const HumanReadableError*>(&value);
            }
        }
        [[noreturn]] void rethrow() const override { throw value; }
        [[noreturn]] void throwPointer() const override { throw &value; }
        std::exception_ptr exceptionPointer() const override {
            return std::make_exception_ptr(value);
        }
    };

    struct Foreign;

    std::shared_ptr<const Box> box_;
};

}  // namespace mirels
