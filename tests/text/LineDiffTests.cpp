#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "../support/Files.h"
#include "../support/TemporaryDirectory.h"
#include "mirels/text/LineDiff.h"

namespace mirels {
namespace {

using testing::readFile;
using testing::writeFile;

using Operation = EditScript::Operation;

/// A random text over a few distinct lines (so that there is much to match), with or without a
/// final line feed.
std::string randomText(std::mt19937& random, std::size_t maxLines) {
    static const char* pool[] = {"alpha", "beta", "gamma", "delta", "", "  indented", "x"};
    std::uniform_int_distribution<std::size_t> count(0, maxLines);
    std::uniform_int_distribution<std::size_t> pick(0, std::size(pool) - 1);
    std::string text;
    const std::size_t lines = count(random);
    for (std::size_t i = 0; i < lines; ++i) {
        text += pool[pick(random)];
        text += '\n';
    }
    if (!text.empty() && random() % 3 == 0) text.pop_back();
    return text;
}

/// The shortest distance by the textbook quadratic table, to check the search against.
std::size_t quadraticDistance(const std::vector<std::string_view>& a,
                              const std::vector<std::string_view>& b) {
    std::vector<std::vector<std::size_t>> common(a.size() + 1,
                                                 std::vector<std::size_t>(b.size() + 1, 0));
    for (std::size_t i = a.size(); i-- > 0;) {
        for (std::size_t j = b.size(); j-- > 0;) {
            common[i][j] = a[i] == b[j] ? common[i + 1][j + 1] + 1
                                        : std::max(common[i + 1][j], common[i][j + 1]);
        }
    }
    return a.size() + b.size() - 2 * common[0][0];
}

TEST(LineDiff, EditScriptListsRunsAndRebuildsTheNewText) {
    const std::string oldText = "a\nb\nc\nd\n";
    const std::string newText = "a\nx\nc\nd\ne\n";
    const EditScript script = EditScript::between(oldText, newText);
    const std::vector<EditScript::Edit> expected = {
        {Operation::keep, 0, 0, 1}, {Operation::remove, 1, 1, 1}, {Operation::insert, 2, 1, 1},
        {Operation::keep, 2, 2, 2}, {Operation::insert, 4, 4, 1},
    };
    EXPECT_EQ(script.edits(), expected);
    EXPECT_EQ(script.insertedText(2), "x\n");
    EXPECT_EQ(script.insertedText(4), "e\n");
    EXPECT_EQ(script.insertedText(0), "");
    EXPECT_EQ(script.distance(), 3U);
    EXPECT_EQ(script.apply(oldText), newText);

    EXPECT_FALSE(EditScript::between("same\n", "same\n").hasChanges());
    EXPECT_TRUE(EditScript::between("", "").edits().empty());
    EXPECT_EQ(splitLines("a\n\nb"), (std::vector<std::string_view>{"a\n", "\n", "b"}));

    try {
        (void)script.apply("a\nb\n");
        FAIL() << "a text of another length was accepted";
    } catch (const EditScriptMismatchError& error) {
        EXPECT_EQ(error.additionalInfo(),
                  "The edit script was made for a text of 4 lines; this one has 2.");
    }
}

TEST(LineDiff, FindsTheShortestScriptAndTheCostCapStaysCorrect) {
    std::mt19937 random(3492);
    for (int round = 0; round < 400; ++round) {
        const std::string a = randomText(random, 40);
        const std::string b = randomText(random, 40);
        const std::size_t shortest = quadraticDistance(splitLines(a), splitLines(b));
        const EditScript script = EditScript::between(a, b);
        ASSERT_EQ(script.distance(), shortest) << a << "---\n" << b;
        ASSERT_EQ(script.apply(a), b);
        // A tiny cost cap gives up on the optimum but never on correctness.
        const EditScript capped = EditScript::between(a, b, DiffOptions{false, 1});
        ASSERT_EQ(capped.apply(a), b);
        ASSERT_GE(capped.distance(), shortest);
    }
}

TEST(LineDiff, UnifiedDiffMatchesDiffUAndTrailingNewlines) {
    const std::string oldText = "a\nb\nc\nd\ne\nf\ng\nh\ni\nj\nk\nl\nm\n";
    const std::string newText = "a\nB\nc\nd\ne\nf\ng\nh\ni\nj\nk\nl\nL2\n";
    EXPECT_EQ(unifiedDiff(oldText, newText),
              "--- old\n+++ new\n"
              "@@ -1,5 +1,5 @@\n a\n-b\n+B\n c\n d\n e\n"
              "@@ -10,4 +10,4 @@\n j\n k\n l\n-m\n+L2\n");
    // Closer changes share a hunk; labels and context are the caller's.
    EXPECT_EQ(unifiedDiff("1\n2\n3\n4\n", "1\nx\n3\ny\n", {"a/f", "b/f", 0}),
              "--- a/f\n+++ b/f\n@@ -2 +2 @@\n-2\n+x\n@@ -4 +4 @@\n-4\n+y\n");
    EXPECT_EQ(unifiedDiff("x\ny", "x\ny\n"),
              "--- old\n+++ new\n@@ -1,2 +1,2 @@\n x\n-y\n\\ No newline at end of file\n+y\n");
    EXPECT_EQ(unifiedDiff("x\ny\n", "x\ny"),
              "--- old\n+++ new\n@@ -1,2 +1,2 @@\n x\n-y\n+y\n\\ No newline at end of file\n");
    EXPECT_EQ(unifiedDiff("", "x\ny"),
              "--- old\n+++ new\n@@ -0,0 +1,2 @@\n+x\n+y\n\\ No newline at end of file\n");
    EXPECT_EQ(unifiedDiff("x\n", ""), "--- old\n+++ new\n@@ -1 +0,0 @@\n-x\n");
    EXPECT_EQ(unifiedDiff("same", "same"), "");
}

TEST(LineDiff, PatchAppliesTheRenderedDiff) {
    testing::TemporaryDirectory directory("mirels-diff");
    std::mt19937 random(7);
    for (int round = 0; round < 40; ++round) {
        const std::string a = randomText(random, 30);
        const std::string b = randomText(random, 30);
        writeFile(directory / "old.txt", a);
        writeFile(directory / "changes.diff", unifiedDiff(a, b, {"old.txt", "new.txt", 3}));
        std::filesystem::remove(directory / "patched.txt");
        const std::string command = "patch --quiet --force -o '" +
                                    (directory / "patched.txt").string() + "' '" +
                                    (directory / "old.txt").string() + "' < '" +
                                    (directory / "changes.diff").string() + "' > /dev/null 2>&1";
        const int status = std::system(command.c_str());
        if (a == b) continue;  // an empty diff is no patch
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "patch refused:\n"
            << readFile(directory / "changes.diff");
        ASSERT_EQ(readFile(directory / "patched.txt"), b) << readFile(directory / "changes.diff");
    }
}

}  // namespace
}  // namespace mirels
