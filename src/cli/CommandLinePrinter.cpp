#include "mirels/cli/CommandLinePrinter.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "mirels/cli/CapturingCommandLinePrinter.h"
#include "mirels/core/FatalError.h"

namespace mirels {

std::optional<CommandLinePrintingAttribute> commandLinePrintingAttribute(int rawValue) noexcept {
    for (const auto& [member, raw] : RawValueCases<CommandLinePrintingAttribute>::cases) {
        if (raw == rawValue) return member;
    }
    return std::nullopt;
}

namespace {

std::uint32_t decodeCodePoint(std::string_view text, std::size_t& index) noexcept {
    const auto lead = static_cast<unsigned char>(text[index]);
    std::size_t length = 0;
    std::uint32_t point = 0;
    if (lead < 0x80U) {
        ++index;
        return lead;
    }
    if ((lead & 0xE0U) == 0xC0U) {
        length = 2;
        point = lead & 0x1FU;
    } else if ((lead & 0xF0U) == 0xE0U) {
        length = 3;
        point = lead & 0x0FU;
    } else if ((lead & 0xF8U) == 0xF0U) {
        length = 4;
        point = lead & 0x07U;
    } else {
        ++index;  // a stray continuation or invalid byte: one character of its own
        return 0xFFFDU;
    }
    if (index + length > text.size()) {
        ++index;
        return 0xFFFDU;
    }
    for (std::size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[index + i]);
        if ((next & 0xC0U) != 0x80U) {
            ++index;
            return 0xFFFDU;
        }
        point = (point << 6U) | (next & 0x3FU);
    }
    index += length;
    return point;
}

/// Code points that a terminal draws on the cell of the character before them.
bool isZeroWidth(std::uint32_t point) noexcept {
    return (point >= 0x0300U && point <= 0x036FU) || (point >= 0x1AB0U && point <= 0x1AFFU) ||
           (point >= 0x1DC0U && point <= 0x1DFFU) || (point >= 0x20D0U && point <= 0x20FFU) ||
           (point >= 0xFE20U && point <= 0xFE2FU) || (point >= 0xFE00U && point <= 0xFE0FU) ||
           point == 0x200DU;
}

std::string escapeSequence(std::string_view text,
                           std::span<const CommandLinePrintingAttribute> attributes) {
    std::string result = "\x1b[0;";
    for (std::size_t i = 0; i < attributes.size(); ++i) {
        if (i > 0) result += ';';
        result += std::to_string(static_cast<int>(attributes[i]));
    }
    result += 'm';
    result += text;
    result += "\x1b[0;m";
    return result;
}

void writeLine(const std::string& line) {
    std::string withNewline = line;
    withNewline += '\n';
    std::fwrite(withNewline.data(), 1, withNewline.size(), stdout);
}

}  // namespace

std::size_t characterCount(std::string_view text) noexcept {
    std::size_t count = 0;
    std::size_t index = 0;
    while (index < text.size()) {
        // A mark with nothing before it to attach to is shown as a character of its own.
        if (!isZeroWidth(decodeCodePoint(text, index)) || count == 0) ++count;
    }
    return count;
}

std::string padded(std::string_view text, std::size_t length, std::string_view pad,
                   PaddingPosition position) {
    const std::size_t count = characterCount(text);
    if (count >= length) return std::string(text);
    const std::size_t padLength = characterCount(pad);
    if (padLength == 0) fatalError("padded(toAtLeastLength:withPad:position:) with an empty pad");
    const std::size_t missing = length - count;
    const std::size_t repeats = (missing + padLength - 1) / padLength;
    std::string padding;
    padding.reserve(repeats * pad.size());
    for (std::size_t i = 0; i < repeats; ++i) padding += pad;
    return position == PaddingPosition::leading ? padding + std::string(text)
                                                : std::string(text) + padding;
}

// MARK: - AnyCommandLinePrinter

AnyCommandLinePrinter::~AnyCommandLinePrinter() = default;

void AnyCommandLinePrinter::printError(std::string_view message) {
    print("*** " + std::string(message), CommandLinePrintingAttribute::red);
}

std::string AnyCommandLinePrinter::decorate(
    std::string_view text, std::span<const CommandLinePrintingAttribute> /*attributes*/) const {
    return std::string(text);
}

void AnyCommandLinePrinter::printInColumns(
    const std::optional<std::vector<std::string>>& headers,
    const std::vector<std::vector<std::string>>& rows,
    const std::vector<std::vector<CommandLinePrintingAttribute>>& attributes,
    std::string_view separator) {
    std::vector<std::size_t> widths;
    auto measure = [&](const std::vector<std::string>& row) {
        if (widths.size() < row.size()) widths.resize(row.size(), 0);
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], characterCount(row[i]));
        }
    };
    if (headers) measure(*headers);
    for (const auto& row : rows) measure(row);

    auto line = [&](const std::vector<std::string>& row, bool header) {
        std::string text;
        for (std::size_t i = 0; i < widths.size(); ++i) {
            if (i > 0) text += separator;
            const std::string cell = i < row.size() ? row[i] : std::string();
            const std::string shown = i + 1 < widths.size()
                                          ? padded(cell, widths[i], " ", PaddingPosition::trailing)
                                          : cell;
            std::vector<CommandLinePrintingAttribute> decoration;
            if (i < attributes.size()) decoration = attributes[i];
            if (header) decoration.push_back(CommandLinePrintingAttribute::bold);
            text += decoration.empty() ? shown : decorate(shown, decoration);
        }
        print(text, std::span<const CommandLinePrintingAttribute>());
    };
    if (headers) line(*headers, true);
    for (const auto& row : rows) line(row, false);
}

// MARK: - CommandLinePrinter

bool CommandLinePrinter::allowsColor() {
    static const bool allowed = [] {
        if (::isatty(STDOUT_FILENO) == 0) return false;
        const char* colors = std::getenv("LSCOLORS");  // NOLINT(concurrency-mt-unsafe)
        return colors != nullptr && colors[0] != '\0';
    }();
    return allowed;
}

std::string CommandLinePrinter::format(std::string_view text,
                                       std::span<const CommandLinePrintingAttribute> attributes) {
    if (!allowsColor()) return std::string(text);
    return escapeSequence(text, attributes);
}

void CommandLinePrinter::print(std::string_view text,
                               std::span<const CommandLinePrintingAttribute> attributes) {
    writeLine(format(text, attributes));
}

void CommandLinePrinter::printError(std::string_view message) {
    print("*** " + std::string(message), CommandLinePrintingAttribute::red);
}

void CommandLinePrinter::printError(std::string_view message, std::int32_t exitCode) {
    printError(message);
    std::exit(exitCode);  // NOLINT(concurrency-mt-unsafe): ending the process is the point
}

void CommandLinePrinter::write(std::string_view text,
                               std::span<const CommandLinePrintingAttribute> attributes) {
    print(text, attributes);
}

std::string CommandLinePrinter::decorate(
    std::string_view text, std::span<const CommandLinePrintingAttribute> attributes) const {
    return format(text, attributes);
}

// MARK: - CapturingCommandLinePrinter

std::vector<CapturingCommandLinePrinter::Line> CapturingCommandLinePrinter::lines() const {
    return lines_.syncRead([](const std::vector<Line>& lines) { return lines; });
}

std::string CapturingCommandLinePrinter::output() const {
    return lines_.syncRead([](const std::vector<Line>& lines) {
        std::string text;
        for (const Line& line : lines) {
            text += line.text;
            text += '\n';
        }
        return text;
    });
}

void CapturingCommandLinePrinter::clear() {
    lines_.syncWrite([](std::vector<Line>& lines) { lines.clear(); });
}

void CapturingCommandLinePrinter::write(std::string_view text,
                                        std::span<const CommandLinePrintingAttribute> attributes) {
    Line line{withEscapes_ ? escapeSequence(text, attributes) : std::string(text),
              {attributes.begin(), attributes.end()}};
    lines_.syncWrite([&](std::vector<Line>& lines) { lines.push_back(std::move(line)); });
}

std::string CapturingCommandLinePrinter::decorate(
    std::string_view text, std::span<const CommandLinePrintingAttribute> attributes) const {
    return withEscapes_ ? escapeSequence(text, attributes) : std::string(text);
}

}  // namespace mirels
