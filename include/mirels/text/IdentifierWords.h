#pragma once

// Splitting a program identifier into the English words it is made of, for showing names to
// people ("URLSessionTask" reads as "URL Session Task") and for searching by word.
//
// The rules, applied left to right over the identifier's bytes:
//  1. Separators. Every ASCII character that is neither a letter nor a digit ("_", "-", ".",
//     space, ...) ends the current word and is dropped; leading, trailing and repeated separators
//     give no empty words ("__private__name" gives "private", "name"; "kebab-case" gives
//     "kebab", "case").
//  2. Camel humps. A capital letter after a lower-case letter or a digit starts a word
//     ("lowerCamel" gives "lower", "Camel"; "base64Encoded" gives "base64", "Encoded").
//  3. Acronyms. In a run of capitals followed by a lower-case letter, the last capital starts the
//     next word ("URLSession" gives "URL", "Session"; "getHTTPResponse" gives "get", "HTTP",
//     "Response"). A run of capitals at the end stays one word ("parseJSON" gives "parse",
//     "JSON").
//  4. Suffix letters. Rule 3 does not apply when a single lower-case letter follows the capitals
//     and no lower-case letter follows it: it stays with them, as a version or plural marker
//     ("IPv6Address" gives "IPv6", "Address"; "URLsForTask" gives "URLs", "For", "Task").
//  5. Digits continue the word before them ("UTF8String" gives "UTF8", "String"; "md5sum" stays
//     one word) or begin one after a separator; by rule 2 a capital after a digit starts the
//     next word ("3DTouch" gives "3", "D", "Touch").
//  6. Bytes outside ASCII count as lower-case letters, so words in other scripts stay whole and
//     their UTF-8 sequences are never cut.
//
// `identifierWords` returns views into the identifier (one allocation, for the vector);
// `forEachIdentifierWord` calls a function per word and does not allocate at all.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace mirels {

namespace detail {
enum class IdentifierCharacter : unsigned char { separator, upper, lower, digit };

constexpr IdentifierCharacter classifyIdentifierCharacter(char c) noexcept {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 'a' && byte <= 'z') return IdentifierCharacter::lower;
    if (byte >= 'A' && byte <= 'Z') return IdentifierCharacter::upper;
    if (byte >= '0' && byte <= '9') return IdentifierCharacter::digit;
    if (byte >= 0x80) return IdentifierCharacter::lower;
    return IdentifierCharacter::separator;
}
}  // namespace detail

/// Calls `visit(std::string_view word)` for each word of `identifier`, in order (see the rules
/// above). Never allocates.
template <class Visit>
void forEachIdentifierWord(std::string_view identifier, Visit&& visit) {
    using detail::IdentifierCharacter;
    const std::size_t size = identifier.size();
    auto kindAt = [&](std::size_t i) {
        return i < size ? detail::classifyIdentifierCharacter(identifier[i])
                        : IdentifierCharacter::separator;
    };
    std::size_t start = 0;
    bool inWord = false;
    IdentifierCharacter previous = IdentifierCharacter::separator;
    for (std::size_t i = 0; i < size; ++i) {
        const IdentifierCharacter current = kindAt(i);
        if (current == IdentifierCharacter::separator) {
            if (inWord) visit(identifier.substr(start, i - start));
            inWord = false;
            previous = current;
            continue;
        }
        if (!inWord) {
            start = i;
            inWord = true;
        } else if (current == IdentifierCharacter::upper) {
            bool boundary =
                previous == IdentifierCharacter::lower || previous == IdentifierCharacter::digit;
            if (!boundary && previous == IdentifierCharacter::upper &&
                kindAt(i + 1) == IdentifierCharacter::lower) {
                // The last capital of an acronym starts the next word, unless a single
                // lower-case letter follows and ends the word ("IPv6", "URLs").
                boundary = kindAt(i + 2) == IdentifierCharacter::lower;
            }
            if (boundary) {
                visit(identifier.substr(start, i - start));
                start = i;
            }
        }
        previous = current;
    }
    if (inWord) visit(identifier.substr(start));
}

/// The words of `identifier`, as views into it. Counts them first, so the vector is allocated
/// once, at its final size (not at all when there are none).
[[nodiscard]] inline std::vector<std::string_view> identifierWords(std::string_view identifier) {
    std::size_t count = 0;
    forEachIdentifierWord(identifier, [&](std::string_view) { ++count; });
    std::vector<std::string_view> words;
    words.reserve(count);
    forEachIdentifierWord(identifier, [&](std::string_view word) { words.push_back(word); });
    return words;
}

}  // namespace mirels
