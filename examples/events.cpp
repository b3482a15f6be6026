// Event streams: a document publishes its edits through a sink and its title through an
// Observable; a status line follows whichever document is selected with switchToLatest, and a
// word counter sees only edits that change the text.

#include <mirels/Foundation.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

/// A text document whose edits and title changes can be observed.
class Document {
  public:
    explicit Document(std::string title)
        : title_(mirels::Observable<std::string>::create(std::move(title))),
          edits_(mirels::EventStream<std::string>::Sink::create()) {}

    void replaceText(std::string text) { edits_->send(std::move(text)); }
    void rename(std::string title) { title_->setWrappedValue(std::move(title)); }

    mirels::EventStream<std::string> title() const { return title_->projectedValue(); }
    mirels::EventStream<std::string> edits() const { return edits_->eventStream(); }

  private:
    std::shared_ptr<mirels::Observable<std::string>> title_;
    std::shared_ptr<mirels::EventStream<std::string>::Sink> edits_;
};

std::size_t wordCount(const std::string& text) {
    std::size_t words = 0;
    bool inWord = false;
    for (char c : text) {
        bool letter = c != ' ';
        if (letter && !inWord) ++words;
        inWord = letter;
    }
    return words;
}

}  // namespace

int main() {
    Document notes("Notes");
    Document todo("To do");
    auto selection = mirels::EventStream<mirels::EventStream<std::string>>::Sink::create();

    std::vector<std::shared_ptr<mirels::CancellationToken>> tokens;
    // The status line shows the title of the selected document, and follows renames.
    tokens.push_back(selection->switchToLatest().observe(
        [](const std::string& title) { std::printf("status: editing \"%s\"\n", title.c_str()); }));
    // The counter ignores edits that leave the text as it was.
    tokens.push_back(notes.edits().filterDuplicateEvents().map(wordCount).observe(
        [](std::size_t words) { std::printf("notes: %zu words\n", words); }));

    selection->send(notes.title());
    notes.replaceText("buy milk");
    notes.replaceText("buy milk");  // unchanged: not counted again
    notes.replaceText("buy milk and bread");
    notes.rename("Shopping");

    selection->send(todo.title());
    notes.rename("Groceries");  // no longer selected: the status line stays
    todo.rename("Today");

    for (auto& token : tokens) token->cancel();
    return 0;
}
