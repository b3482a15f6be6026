#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "mirels/text/IdentifierWords.h"

namespace mirels {
namespace {

TEST(IdentifierWords, SplitsByTheDocumentedRules) {
    struct Row {
        std::string_view identifier;
        std::vector<std::string_view> words;
    };
    const std::vector<Row> table = {
        // Camel humps, lower and upper.
        {"lowerCamelCase", {"lower", "Camel", "Case"}},
        {"UpperCamelCase", {"Upper", "Camel", "Case"}},
        {"a", {"a"}},
        {"aB", {"a", "B"}},
        // Acronyms followed by words, and at the end.
        {"URLSessionTask", {"URL", "Session", "Task"}},
        {"getHTTPResponseCode", {"get", "HTTP", "Response", "Code"}},
        {"XMLHttpRequest", {"XML", "Http", "Request"}},
        {"parseJSON", {"parse", "JSON"}},
        {"ID", {"ID"}},
        // Version and plural letters stay with the acronym.
        {"IPv6Address", {"IPv6", "Address"}},
        {"URLsForTask", {"URLs", "For", "Task"}},
        {"allIDs", {"all", "IDs"}},
        // Digits.
        {"base64Encoded", {"base64", "Encoded"}},
        {"UTF8String", {"UTF8", "String"}},
        {"md5sum", {"md5sum"}},
        {"3DTouch", {"3", "D", "Touch"}},
        {"version_2_final", {"version", "2", "final"}},
        // Snake and kebab case, leading, trailing and repeated separators.
        {"snake_case_name", {"snake", "case", "name"}},
        {"SCREAMING_SNAKE_CASE", {"SCREAMING", "SNAKE", "CASE"}},
        {"kebab-case-name", {"kebab", "case", "name"}},
        {"__private__name__", {"private", "name"}},
        {"--", {}},
        {"", {}},
        {"mixed_snakeAndCamel-kebab", {"mixed", "snake", "And", "Camel", "kebab"}},
        {"dotted.name space", {"dotted", "name", "space"}},
        // Bytes outside ASCII are lower-case letters: words stay whole.
        {"gr\xC3\xB6\xC3\x9F"
         "eWert",
         {"gr\xC3\xB6\xC3\x9F"
          "e",
          "Wert"}},
    };
    for (const Row& row : table) {
        const std::vector<std::string_view> words = identifierWords(row.identifier);
        EXPECT_EQ(words, row.words) << row.identifier;
        EXPECT_EQ(words.capacity(), words.size()) << row.identifier;  // one allocation, exact
    }
}

}  // namespace
}  // namespace mirels
