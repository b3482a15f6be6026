// Collections: tallying words in order of first appearance, grouping them by initial without
// empty groups, and an undo history on a chunked stack whose entries never move.

#include <mirels/Foundation.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

int main() {
    const std::string text = "big brown bears bring berries to the tall trees by the brook";
    std::vector<std::string> words;
    std::istringstream stream(text);
    for (std::string word; stream >> word;) words.push_back(word);

    // Counts in the order in which the words first appeared.
    mirels::OrderedDictionary<std::string, int> counts;
    for (const auto& word : words) ++mirels::guaranteedValue(counts, word, [] { return 0; });
    for (const auto& [word, count] : counts) std::printf("%s: %d\n", word.c_str(), count);

    // Groups are non-empty by construction, so first() needs no check.
    auto byInitial = mirels::orderedGroupElements(mirels::orderedUniqued(words),
                                                  [](const std::string& w) { return w[0]; });
    for (const auto& [initial, group] : byInitial) {
        std::printf("%c: %zu word(s), first \"%s\"\n", initial, group.count(),
                    group.first().c_str());
    }

    // An undo history: edits are pushed, undone in reverse.
    mirels::ChunkStack<std::string> history(4);
    for (const auto& word : counts.keys()) history.push("type " + word);
    std::printf("history: %td entries in %zu chunks\n", history.endIndex(),
                history.chunks().size());
    for (int i = 0; i < 3; ++i) {
        if (auto undone = history.pop()) std::printf("undo %s\n", undone->c_str());
    }

    // A selection that must not be empty: assertInhabit reports when it is.
    if (auto selection = mirels::assertInhabit(std::vector<std::string>{"bears", "trees"})) {
        std::printf("selection starts at %s, ends at %s\n", selection->first().c_str(),
                    selection->last().c_str());
    }
    return 0;
}
