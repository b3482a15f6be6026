#pragma once

// `CapturingCommandLinePrinter`: a printer that keeps what it is given instead of writing it.

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/Export.h"
#include "mirels/cli/CommandLinePrinter.h"
#include "mirels/core/ThreadSafe.h"

namespace mirels {

/// A printer that keeps what it is given instead of writing it: for tests, and for callers that
/// want a tool's text (a usage page, an error) as a value. Safe to print to from several threads.
class MIRELS_EXPORT CapturingCommandLinePrinter final : public AnyCommandLinePrinter {
  public:
    /// One printed line and its attributes.
    struct Line {
        std::string text;
        std::vector<CommandLinePrintingAttribute> attributes;
        bool operator==(const Line&) const = default;
    };

    /// With `withEscapes`, lines are kept (and columns decorated) with the escape sequences that
    /// a colour terminal would get, whatever standard output is; otherwise as plain text.
    explicit CapturingCommandLinePrinter(bool withEscapes = false) : withEscapes_(withEscapes) {}

    /// Every line printed so far, in order.
    std::vector<Line> lines() const;
    /// Every line printed so far, each followed by a line feed: what the terminal would show.
    std::string output() const;
    /// Forgets what was printed.
    void clear();

  protected:
    void write(std::string_view text,
               std::span<const CommandLinePrintingAttribute> attributes) override;
    std::string decorate(std::string_view text,
                         std::span<const CommandLinePrintingAttribute> attributes) const override;

  private:
    bool withEscapes_;
    ThreadSafe<std::vector<Line>> lines_;
};

}  // namespace mirels
