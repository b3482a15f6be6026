#include "mirels/errors/Error.h"

#include <cxxabi.h>

#include "mirels/core/FatalError.h"
#include "mirels/core/TypeName.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

/// An object behind an exception_ptr. Rethrowing an exception_ptr does not copy the object, so
/// addresses learned by catching it stay valid for as long as the pointer is held.
struct Error::Foreign final : Box {
    std::exception_ptr pointer;

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
    [[noreturn]] void rethrow() const override { std::rethrow_exception(pointer); }
    [[noreturn]] void throwPointer() const override { rethrow(); }
    std::exception_ptr exceptionPointer() const override { return pointer; }
};

Error::Error(std::exception_ptr exception) {
    if (!exception) fatalError("Error made from a null exception_ptr");
    box_ = std::make_shared<Foreign>(std::move(exception));
}

std::string Error::description() const {
    if (const std::exception* e = exception()) return e->what();
    return typeName();
}

std::string Error::typeName() const {
    return unqualifiedTypeName(type());
}

}  // namespace mirels
