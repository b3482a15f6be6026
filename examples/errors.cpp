// Errors that people read and that cross processes: a library error with a cause, an exception
// from a standard container turned into an error value, the trail of call sites it passed
// through, and the same error packed into a property list and rebuilt on the other side.
// Then a typed property list written with the builder, and a reading failure's message.

#include <mirels/Foundation.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using namespace mirels;

/// An error of the caller's own: what a person should see when an export fails.
class ExportFailed final : public HumanReadableError {
  public:
    explicit ExportFailed(std::string document) : document_(std::move(document)) {}

    std::optional<std::string> highValueTitle() const override {
        return "Could not export “" + document_ + "”";
    }
    std::optional<std::string> additionalInfo() const override {
        return "The exporter stopped before writing the file.";
    }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }
    std::optional<HumanReadableErrorOptions> options() const override {
        return HumanReadableErrorOptions::showTitleOnly;
    }

  private:
    std::string document_;
};

/// Reads a page from a list that is too short: the container raises std::out_of_range, which
/// the bridge turns into an error value.
int pageCount(const std::vector<int>& pages, std::size_t index) {
    return withCaughtObjectiveCExceptions([&] { return pages.at(index); });
}

/// Exports a document; a failure carries its cause and the place it passed through.
void exportDocument(const std::string& name) {
    try {
        (void)pageCount({1, 2}, 5);
    } catch (...) {
        Error failure = withUnderlying(ExportFailed(name), Error::current());
        throw trackingCallsite(failure);
    }
}

void print(const std::string& heading, const std::string& text) {
    std::printf("== %s\n%s\n\n", heading.c_str(), text.c_str());
}

}  // namespace

int main() {
    Error failure = [] {
        try {
            exportDocument("Quarterly report");
        } catch (...) {
            return Error::current();
        }
        return Error(Unreachable("the export cannot succeed"));
    }();

    HumanReadableErrorRef human = humanReadable(failure);
    print("title", human->effectiveTitle().value_or("(none)"));
    print("full diagnostics", human->fullDiagnosticsOutput());

    // Packed as another process receives it: a binary property list, read back and converted.
    std::vector<std::uint8_t> wire = toBinary(human->serializableNSError().propertyListValue());
    PlatformError received =
        PlatformError::fromPropertyListValue(parsePropertyListDictionary(wire));
    HumanReadableErrorRef rebuilt = humanReadable(Error(received));
    print("received " + std::to_string(wire.size()) + " bytes, title",
          rebuilt->effectiveTitle().value_or("(none)"));
    print("received info", rebuilt->additionalInfo().value_or("(none)"));

    // A typed property list, written with the builder and read back.
    PropertyList settings([] {
        return PropertyListBuilder::buildBlock(
            {"window", Rect{{10, 20}, {800, 600}}}, {"session", UUID::random()},
            {"zoom", std::optional<double>()}, {"recent", std::vector<std::string>{"a", "b"}});
    });
    print("settings", settings.description());
    Rect window = settings.unarchiveValue<Rect>("window");
    std::printf("== window width\n%g\n\n", window.size.width);
    try {
        (void)settings.unarchiveValue<std::string>("window");
    } catch (const PropertyListError& error) {
        print("reading the window as a text", error.message());
    }
    return rebuilt->effectiveTitle() == human->effectiveTitle() ? 0 : 1;
}
