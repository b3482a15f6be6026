#include "mirels/errors/Error.h"

#include <cxxabi.h>

#include <sstream>
#include <string_view>

#include "mirels/core/FatalError.h"
#include "mirels/core/TypeName.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

/// An object behind an exception_ptr. Rethrowing an exception_ptr does not copy the object, so
/// addresses learned by catching it stay valid for as long as the pointer is held.
struct Error::Foreign final : Box {
    std::exception_ptr pointer;

    // NOLINTNEXTLINE(bugprone-throw-keyword-missing): holds a thrown object, makes none
    explicit Foreign(std::exception_ptr p) : pointer(std::move(p)) {
        foreign = true;
        try {
            std::rethrow_exception(pointer);
        } catch (const std::exception& e) {
            object = dynamic_cast<const void*>(&e);
            type = &typeid(e);
            exception = &e;
            humanReadable = dynamic_cast<const HumanReadableError*>(&e);
        } catch (...) {
            const std::type_info* thrown = abi::__cxa_current_exception_type();
            type = thrown != nullptr ? thrown : &typeid(void);
        }
    }
    std::string describe() const override {
        if (exception != nullptr) return exception->what();
        // Thrown strings and numbers read as their values; anything else by its type.
        try {
            std::rethrow_exception(pointer);
        } catch (const char* text) {
            return text != nullptr ? std::string(text) : std::string("(null)");
        } catch (const std::string& text) {
            return text;
        } catch (const std::string_view& text) {
            return std::string(text);
        } catch (int number) {
            return std::to_string(number);
        } catch (long number) {
            return std::to_string(number);
        } catch (long long number) {
            return std::to_string(number);
        } catch (unsigned number) {
            return std::to_string(number);
        } catch (unsigned long number) {
            return std::to_string(number);
        } catch (unsigned long long number) {
            return std::to_string(number);
        } catch (double number) {
            std::ostringstream stream;
            stream << number;
            return std::move(stream).str();
        } catch (...) {
        }
        return unqualifiedTypeName(*type);
    }
    [[noreturn]] void rethrow() const override { std::rethrow_exception(pointer); }
    [[noreturn]] void throwPointer() const override { rethrow(); }
    std::exception_ptr exceptionPointer() const override { return pointer; }
};

Error::Error(std::exception_ptr exception) {
    if (!exception) fatalError("Error made from a null exception_ptr");
    box_ = std::make_shared<Foreign>(std::move(exception));
}

std::string Error::description() const {
    return box_->describe();
}

const HumanReadableError* Error::humanReadableOf(const std::exception* exception) noexcept {
    return dynamic_cast<const HumanReadableError*>(exception);
}

std::string Error::typeNameOf(const std::type_info& type) {
    return unqualifiedTypeName(type);
}

std::string Error::typeName() const {
    return unqualifiedTypeName(type());
}

}  // namespace mirels
