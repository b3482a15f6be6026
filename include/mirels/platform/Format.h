#pragma once

#include "mirels/Export.h"

/// The format engine behind the log and the errors' formatted descriptions: printf-style
/// conversions with the system log's privacy markers, rendered type-safely from C++ arguments.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

namespace mirels {

namespace detail {

/// A type-erased view of one log argument. Scalars are copied; strings and objects are
/// referenced, which is safe because an argument lives until the end of the logging call.
struct LogArgument {
    enum class Kind : std::uint8_t {
        string,
        signedInteger,
        unsignedInteger,
        floating,
        boolean,
        character,
        pointer,
        object,
    };

    Kind kind = Kind::string;
    std::uint8_t size = 0;  // bytes of an integer argument, for two's-complement hex output
    std::string_view text;
    union {
        long long signedValue;
        unsigned long long unsignedValue;
        double floatingValue;
        bool booleanValue;
        char characterValue;
        const void* pointerValue;
        const void* object;
    };
    void (*render)(const void* object, std::string& out) = nullptr;

    LogArgument() : signedValue(0) {}
};

template <class T>
concept HasDescription = requires(const T& value) {
    { value.description() };
};

template <class T>
concept Streamable = requires(std::ostream& stream, const T& value) {
    { stream << value };
};

MIRELS_EXPORT void appendText(std::string& out, std::string_view text);
inline void appendText(std::string& out, const std::string& text) {
    appendText(out, std::string_view(text));
}
inline void appendText(std::string& out, const char* text) {
    appendText(out, text == nullptr ? std::string_view("(null)") : std::string_view(text));
}

template <class T>
void renderDescription(const void* object, std::string& out) {
    appendText(out, static_cast<const T*>(object)->description());
}

template <class T>
void renderStreamed(const void* object, std::string& out) {
    std::ostringstream stream;
    stream << *static_cast<const T*>(object);
    out += std::move(stream).str();
}

template <class T>
void renderOptional(const void* object, std::string& out);

template <class T>
LogArgument makeLogArgument(const T& value) {
    using V = std::remove_cvref_t<T>;
    LogArgument argument;
    if constexpr (std::is_same_v<V, bool>) {
        argument.kind = LogArgument::Kind::boolean;
        argument.booleanValue = value;
    } else if constexpr (std::is_same_v<V, char>) {
        argument.kind = LogArgument::Kind::character;
        argument.characterValue = value;
    } else if constexpr (std::is_same_v<V, const char*> || std::is_same_v<V, char*>) {
        argument.kind = LogArgument::Kind::string;
        argument.text = value == nullptr ? std::string_view("(null)") : std::string_view(value);
    } else if constexpr (std::is_convertible_v<const V&, std::string_view>) {
        argument.kind = LogArgument::Kind::string;
        argument.text = std::string_view(value);
    } else if constexpr (std::is_enum_v<V> && !Streamable<V> && !HasDescription<V>) {
        return makeLogArgument(static_cast<std::underlying_type_t<V>>(value));
    } else if constexpr (std::signed_integral<V>) {
        argument.kind = LogArgument::Kind::signedInteger;
        argument.size = sizeof(V);
        argument.signedValue = value;
    } else if constexpr (std::unsigned_integral<V>) {
        argument.kind = LogArgument::Kind::unsignedInteger;
        argument.size = sizeof(V);
        argument.unsignedValue = value;
    } else if constexpr (std::floating_point<V>) {
        argument.kind = LogArgument::Kind::floating;
        argument.floatingValue = static_cast<double>(value);
    } else if constexpr (std::is_pointer_v<V> || std::is_null_pointer_v<V>) {
        argument.kind = LogArgument::Kind::pointer;
        argument.pointerValue = static_cast<const void*>(value);
    } else if constexpr (HasDescription<V>) {
        argument.kind = LogArgument::Kind::object;
        argument.object = &value;
        argument.render = &renderDescription<V>;
    } else if constexpr (Streamable<V>) {
        argument.kind = LogArgument::Kind::object;
        argument.object = &value;
        argument.render = &renderStreamed<V>;
    } else if constexpr (requires { typename V::value_type; } &&
                         std::is_same_v<V, std::optional<typename V::value_type>>) {
        argument.kind = LogArgument::Kind::object;
        argument.object = &value;
        argument.render = &renderOptional<typename V::value_type>;
    } else {
        static_assert(sizeof(V) == 0,
                      "a log argument must be a string, a number, a bool, a pointer, an optional, "
                      "or have a description() member or an operator<<");
    }
    return argument;
}

/// Renders an optional's value with its plain form ("(null)" when absent).
MIRELS_EXPORT void renderArgumentPlainly(const LogArgument& argument, std::string& out);

template <class T>
void renderOptional(const void* object, std::string& out) {
    const auto& optional = *static_cast<const std::optional<T>*>(object);
    if (!optional) {
        out += "(null)";
        return;
    }
    renderArgumentPlainly(makeLogArgument(*optional), out);
}

/// Renders `format` with `arguments` (see `formatLogMessage`), appending to `out`.
MIRELS_EXPORT void renderLogMessage(std::string& out, std::string_view format,
                                    const LogArgument* arguments, std::size_t count);

}  // namespace detail

/// Renders a message the way the system log does, type-safely from C++ arguments.
///
/// Conversions: "%@", "%s" (strings, and any value with a `description()` member or an
/// `operator<<`), "%d", "%i", "%u", "%ld", "%lld", "%x", "%X", "%o", "%c", "%p", "%f", "%e",
/// "%g" (and the other printf forms, with flags, width and precision) and "%%". The value's own
/// type decides how it is printed; the conversion only picks the number base or float style.
///
/// Privacy: an argument marked "%{public}..." appears verbatim; one marked "%{private}..." reads
/// "<private>". Unmarked numbers, booleans, characters and pointers are public; unmarked strings
/// and objects (and anything under "%s" or "%@") are private, as on the system log.
///
/// A mismatch never fails: a conversion without an argument reads "<missing>", surplus
/// arguments are ignored, and an unknown conversion is copied as written.
template <class... Args>
std::string formatLogMessage(std::string_view format, const Args&... args) {
    const detail::LogArgument arguments[sizeof...(Args) + 1] = {detail::makeLogArgument(args)...};
    std::string out;
    detail::renderLogMessage(out, format, arguments, sizeof...(Args));
    return out;
}

}  // namespace mirels
