#include "mirels/text/LineDiff.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mirels {

namespace {

using Index = std::ptrdiff_t;

/// A fast hash of a line's bytes, eight at a time.
std::uint64_t hashLine(std::string_view line) noexcept {
    constexpr std::uint64_t multiplier = 0x9E3779B97F4A7C15ULL;
    std::uint64_t hash = 0xA0761D6478BD642FULL ^ line.size();
    const char* p = line.data();
    std::size_t remaining = line.size();
    while (remaining >= 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, p, 8);
        hash = (hash ^ word) * multiplier;
        hash ^= hash >> 29;
        p += 8;
        remaining -= 8;
    }
    if (remaining > 0) {
        std::uint64_t word = 0;
        std::memcpy(&word, p, remaining);
        hash = (hash ^ word) * multiplier;
    }
    hash ^= hash >> 32;
    hash *= multiplier;
    return hash ^ (hash >> 29);
}

/// Numbers lines by content: equal lines of either text get the same number.
class LineNumbering {
  public:
    explicit LineNumbering(std::size_t expectedLines) {
        std::size_t capacity = 16;
        while (capacity < expectedLines * 2) capacity *= 2;
        slots_.assign(capacity, Slot{});
        mask_ = capacity - 1;
    }

    std::uint32_t number(std::string_view line) {
        const std::uint64_t hash = hashLine(line);
        std::size_t position = static_cast<std::size_t>(hash) & mask_;
        while (true) {
            Slot& slot = slots_[position];
            if (slot.id == 0) {
                slot = Slot{hash, line, ++count_};
                return slot.id;
            }
            if (slot.hash == hash && slot.line == line) return slot.id;
            position = (position + 1) & mask_;
        }
    }

  private:
    struct Slot {
        std::uint64_t hash = 0;
        std::string_view line;
        std::uint32_t id = 0;  // 0: empty
    };
    std::vector<Slot> slots_;
    std::size_t mask_ = 0;
    std::uint32_t count_ = 0;
};

/// Myers' linear-space search over two sequences of line numbers. Marks removed lines of `a`
/// and inserted lines of `b`.
class MiddleSnakeSearch {
  public:
    MiddleSnakeSearch(const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b,
                      std::vector<char>& removed, std::vector<char>& inserted,
                      const DiffOptions& options)
        : a_(a), b_(b), removed_(removed), inserted_(inserted) {
        const auto total = static_cast<Index>(a.size() + b.size());
        const std::size_t diagonals = a.size() + b.size() + 3;
        forward_.assign(diagonals, 0);
        backward_.assign(diagonals, 0);
        offset_ = static_cast<Index>(b.size()) + 1;
        if (options.minimal) {
            costLimit_ = std::numeric_limits<Index>::max();
        } else if (options.costLimit != 0) {
            costLimit_ = static_cast<Index>(options.costLimit);
        } else {
            // About the square root of the input size, and never below 4096.
            const auto bits = static_cast<int>(std::bit_width(static_cast<std::uint64_t>(total)));
            costLimit_ = std::max<Index>(4096, Index{1} << ((bits + 1) / 2));
        }
    }

    void run(Index aStart, Index aEnd, Index bStart, Index bEnd) {
        // An explicit stack instead of recursion: the halves can be deeply unbalanced past the
        // cost cap.
        std::vector<Range> pending;
        pending.push_back({aStart, aEnd, bStart, bEnd});
        while (!pending.empty()) {
            Range range = pending.back();
            pending.pop_back();
            while (range.aStart < range.aEnd && range.bStart < range.bEnd &&
                   a_[static_cast<std::size_t>(range.aStart)] ==
                       b_[static_cast<std::size_t>(range.bStart)]) {
                ++range.aStart, ++range.bStart;
            }
            while (range.aStart < range.aEnd && range.bStart < range.bEnd &&
                   a_[static_cast<std::size_t>(range.aEnd - 1)] ==
                       b_[static_cast<std::size_t>(range.bEnd - 1)]) {
                --range.aEnd, --range.bEnd;
            }
            if (range.aStart == range.aEnd || range.bStart == range.bEnd) {
                markAll(range);
                continue;
            }
            const auto [aMiddle, bMiddle] = middle(range);
            const bool atStart = aMiddle == range.aStart && bMiddle == range.bStart;
            const bool atEnd = aMiddle == range.aEnd && bMiddle == range.bEnd;
            if (atStart || atEnd) {
                // No progress is possible here; the whole range is one change.
                markAll(range);
                continue;
            }
            pending.push_back({aMiddle, range.aEnd, bMiddle, range.bEnd});
            pending.push_back({range.aStart, aMiddle, range.bStart, bMiddle});
        }
    }

  private:
    struct Range {
        Index aStart, aEnd, bStart, bEnd;
    };

    void markAll(const Range& range) {
        for (Index x = range.aStart; x < range.aEnd; ++x) removed_[static_cast<std::size_t>(x)] = 1;
        for (Index y = range.bStart; y < range.bEnd; ++y) {
            inserted_[static_cast<std::size_t>(y)] = 1;
        }
    }

    Index& fd(Index diagonal) { return forward_[static_cast<std::size_t>(diagonal + offset_)]; }
    Index& bd(Index diagonal) { return backward_[static_cast<std::size_t>(diagonal + offset_)]; }
    std::uint32_t av(Index x) const { return a_[static_cast<std::size_t>(x)]; }
    std::uint32_t bv(Index y) const { return b_[static_cast<std::size_t>(y)]; }

    /// A point on an optimal path through `range` (diagonal k = x - y), found by searching
    /// forward from the start and backward from the end until the two searches meet.
    std::pair<Index, Index> middle(const Range& r) {
        const Index minDiagonal = r.aStart - r.bEnd;
        const Index maxDiagonal = r.aEnd - r.bStart;
        const Index forwardMid = r.aStart - r.bStart;
        const Index backwardMid = r.aEnd - r.bEnd;
        Index fMin = forwardMid, fMax = forwardMid;
        Index bMin = backwardMid, bMax = backwardMid;
        const bool odd = ((forwardMid - backwardMid) & 1) != 0;
        constexpr Index below = -1;
        constexpr Index above = std::numeric_limits<Index>::max();
        fd(forwardMid) = r.aStart;
        bd(backwardMid) = r.aEnd;

        for (Index cost = 1;; ++cost) {
            // One more step forward on every reachable diagonal.
            if (fMin > minDiagonal) {
                fd(--fMin - 1) = below;
            } else {
                ++fMin;
            }
            if (fMax < maxDiagonal) {
                fd(++fMax + 1) = below;
            } else {
                --fMax;
            }
            for (Index d = fMax; d >= fMin; d -= 2) {
                const Index low = fd(d - 1);
                const Index high = fd(d + 1);
                Index x = low >= high ? low + 1 : high;
                Index y = x - d;
                while (x < r.aEnd && y < r.bEnd && av(x) == bv(y)) ++x, ++y;
                fd(d) = x;
                if (odd && bMin <= d && d <= bMax && bd(d) <= x) return {x, y};
            }
            // And one step backward.
            if (bMin > minDiagonal) {
                bd(--bMin - 1) = above;
            } else {
                ++bMin;
            }
            if (bMax < maxDiagonal) {
                bd(++bMax + 1) = above;
            } else {
                --bMax;
            }
            for (Index d = bMax; d >= bMin; d -= 2) {
                const Index low = bd(d - 1);
                const Index high = bd(d + 1);
                Index x = low < high ? low : high - 1;
                Index y = x - d;
                while (x > r.aStart && y > r.bStart && av(x - 1) == bv(y - 1)) --x, --y;
                bd(d) = x;
                if (!odd && fMin <= d && d <= fMax && x <= fd(d)) return {x, y};
            }
            if (cost >= costLimit_) return furthestPoint(r, fMin, fMax, bMin, bMax);
        }
    }

    /// Past the cost cap: the point reached so far that leaves the least to do, forward or
    /// backward.
    std::pair<Index, Index> furthestPoint(const Range& r, Index fMin, Index fMax, Index bMin,
                                          Index bMax) {
        Index forwardBest = -1;
        Index forwardX = r.aStart;
        for (Index d = fMax; d >= fMin; d -= 2) {
            Index x = std::min(fd(d), r.aEnd);
            Index y = x - d;
            if (y > r.bEnd) x = r.bEnd + d, y = r.bEnd;
            if (x + y > forwardBest) forwardBest = x + y, forwardX = x;
        }
        Index backwardBest = std::numeric_limits<Index>::max();
        Index backwardX = r.aEnd;
        for (Index d = bMax; d >= bMin; d -= 2) {
            Index x = std::max(bd(d), r.aStart);
            Index y = x - d;
            if (y < r.bStart) x = r.bStart + d, y = r.bStart;
            if (x + y < backwardBest) backwardBest = x + y, backwardX = x;
        }
        if ((r.aEnd + r.bEnd) - backwardBest < forwardBest - (r.aStart + r.bStart)) {
            return {forwardX, forwardBest - forwardX};
        }
        return {backwardX, backwardBest - backwardX};
    }

    const std::vector<std::uint32_t>& a_;
    const std::vector<std::uint32_t>& b_;
    std::vector<char>& removed_;
    std::vector<char>& inserted_;
    std::vector<Index> forward_;
    std::vector<Index> backward_;
    Index offset_ = 0;
    Index costLimit_ = 0;
};

void appendLineNumbers(std::string& out, std::size_t start, std::size_t count) {
    // "l" for one line, "l,s" otherwise; an empty side names the line before it.
    if (count == 0) {
        out += std::to_string(start);
        out += ",0";
    } else if (count == 1) {
        out += std::to_string(start + 1);
    } else {
        out += std::to_string(start + 1);
        out += ',';
        out += std::to_string(count);
    }
}

void appendDiffLine(std::string& out, char prefix, std::string_view line) {
    out.push_back(prefix);
    out.append(line);
    if (line.empty() || line.back() != '\n') out += "\n\\ No newline at end of file\n";
}

}  // namespace

EditScriptMismatchError::EditScriptMismatchError(std::size_t expectedLines, std::size_t actualLines)
    : expected_(expectedLines), actual_(actualLines) {}

std::optional<std::string> EditScriptMismatchError::lowValueTitle() const {
    return "The edit script does not fit the text";
}

std::optional<std::string> EditScriptMismatchError::additionalInfo() const {
    return "The edit script was made for a text of " + std::to_string(expected_) +
           " lines; this one has " + std::to_string(actual_) + ".";
}

std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        const void* found = std::memchr(text.data() + start, '\n', text.size() - start);
        const std::size_t end =
            found == nullptr
                ? text.size()
                : static_cast<std::size_t>(static_cast<const char*>(found) - text.data()) + 1;
        lines.push_back(text.substr(start, end - start));
        start = end;
    }
    return lines;
}

EditScript EditScript::between(std::string_view oldText, std::string_view newText,
                               const DiffOptions& options) {
    const std::vector<std::string_view> oldLines = splitLines(oldText);
    const std::vector<std::string_view> newLines = splitLines(newText);
    EditScript script;
    script.oldLines_ = oldLines.size();
    script.newLines_ = newLines.size();

    // The common head and tail need no numbering.
    std::size_t head = 0;
    while (head < oldLines.size() && head < newLines.size() && oldLines[head] == newLines[head]) {
        ++head;
    }
    std::size_t tail = 0;
    while (tail < oldLines.size() - head && tail < newLines.size() - head &&
           oldLines[oldLines.size() - 1 - tail] == newLines[newLines.size() - 1 - tail]) {
        ++tail;
    }

    std::vector<char> removed(oldLines.size(), 0);
    std::vector<char> inserted(newLines.size(), 0);
    const std::size_t oldMiddle = oldLines.size() - head - tail;
    const std::size_t newMiddle = newLines.size() - head - tail;
    if (oldMiddle != 0 && newMiddle != 0) {
        LineNumbering numbering(oldMiddle + newMiddle);
        std::vector<std::uint32_t> a(oldMiddle);
        std::vector<std::uint32_t> b(newMiddle);
        for (std::size_t i = 0; i < oldMiddle; ++i) a[i] = numbering.number(oldLines[head + i]);
        for (std::size_t i = 0; i < newMiddle; ++i) b[i] = numbering.number(newLines[head + i]);
        std::vector<char> removedMiddle(oldMiddle, 0);
        std::vector<char> insertedMiddle(newMiddle, 0);
        MiddleSnakeSearch search(a, b, removedMiddle, insertedMiddle, options);
        search.run(0, static_cast<Index>(oldMiddle), 0, static_cast<Index>(newMiddle));
        std::copy(removedMiddle.begin(), removedMiddle.end(),
                  removed.begin() + static_cast<std::ptrdiff_t>(head));
        std::copy(insertedMiddle.begin(), insertedMiddle.end(),
                  inserted.begin() + static_cast<std::ptrdiff_t>(head));
    } else {
        std::fill_n(removed.begin() + static_cast<std::ptrdiff_t>(head), oldMiddle, 1);
        std::fill_n(inserted.begin() + static_cast<std::ptrdiff_t>(head), newMiddle, 1);
    }

    // Runs from the marks: at a change, removals first.
    std::size_t i = 0;
    std::size_t j = 0;
    auto push = [&](Operation operation, std::size_t count) {
        script.edits_.push_back(Edit{operation, i, j, count});
        script.insertedOffsets_.push_back(script.insertedText_.size());
    };
    while (i < oldLines.size() || j < newLines.size()) {
        if (i < oldLines.size() && removed[i] != 0) {
            std::size_t count = 0;
            while (i + count < oldLines.size() && removed[i + count] != 0) ++count;
            push(Operation::remove, count);
            script.removed_ += count;
            i += count;
        } else if (j < newLines.size() && inserted[j] != 0) {
            std::size_t count = 0;
            while (j + count < newLines.size() && inserted[j + count] != 0) ++count;
            push(Operation::insert, count);
            for (std::size_t k = 0; k < count; ++k) script.insertedText_.append(newLines[j + k]);
            script.inserted_ += count;
            j += count;
        } else {
            std::size_t count = 0;
            while (i + count < oldLines.size() && j + count < newLines.size() &&
                   removed[i + count] == 0 && inserted[j + count] == 0) {
                ++count;
            }
            if (count == 0) break;  // the marks always pair up; never loop on a broken pair
            push(Operation::keep, count);
            i += count;
            j += count;
        }
    }
    return script;
}

std::string_view EditScript::insertedText(std::size_t position) const noexcept {
    if (position >= edits_.size() || edits_[position].operation != Operation::insert) return {};
    const std::size_t start = insertedOffsets_[position];
    const std::size_t end = position + 1 < insertedOffsets_.size() ? insertedOffsets_[position + 1]
                                                                   : insertedText_.size();
    return std::string_view(insertedText_).substr(start, end - start);
}

std::string EditScript::apply(std::string_view oldText) const {
    const std::vector<std::string_view> lines = splitLines(oldText);
    if (lines.size() != oldLines_) throw EditScriptMismatchError(oldLines_, lines.size());
    std::string out;
    out.reserve(oldText.size() + insertedText_.size());
    for (std::size_t e = 0; e < edits_.size(); ++e) {
        const Edit& edit = edits_[e];
        if (edit.operation == Operation::keep) {
            for (std::size_t k = 0; k < edit.lineCount; ++k) out.append(lines[edit.oldLine + k]);
        } else if (edit.operation == Operation::insert) {
            out.append(insertedText(e));
        }
    }
    return out;
}

std::string EditScript::unifiedDiff(std::string_view oldText,
                                    const UnifiedDiffOptions& options) const {
    const std::vector<std::string_view> lines = splitLines(oldText);
    if (lines.size() != oldLines_) throw EditScriptMismatchError(oldLines_, lines.size());
    if (!hasChanges()) return {};

    // Changes: a removal and the insertion right after it form one block.
    struct Block {
        std::size_t oldStart, oldEnd, newStart, newEnd;
        std::size_t removeEdit, insertEdit;  // edits_.size() when absent
    };
    std::vector<Block> blocks;
    const std::size_t none = edits_.size();
    for (std::size_t e = 0; e < edits_.size(); ++e) {
        const Edit& edit = edits_[e];
        if (edit.operation == Operation::keep) continue;
        Block block{edit.oldLine, edit.oldLine, edit.newLine, edit.newLine, none, none};
        if (edit.operation == Operation::remove) {
            block.oldEnd += edit.lineCount;
            block.removeEdit = e;
            if (e + 1 < edits_.size() && edits_[e + 1].operation == Operation::insert) {
                ++e;
                block.newEnd += edits_[e].lineCount;
                block.insertEdit = e;
            }
        } else {
            block.newEnd += edit.lineCount;
            block.insertEdit = e;
        }
        blocks.push_back(block);
    }

    const std::size_t context = options.contextLines;
    std::string out;
    out.reserve(128 + (insertedText_.size() + removed_ * 40) * 2);
    out += "--- ";
    out += options.oldLabel;
    out += "\n+++ ";
    out += options.newLabel;
    out += '\n';

    std::size_t first = 0;
    while (first < blocks.size()) {
        std::size_t last = first;
        while (last + 1 < blocks.size() &&
               blocks[last + 1].oldStart - blocks[last].oldEnd <= 2 * context) {
            ++last;
        }
        const std::size_t oldStart =
            blocks[first].oldStart - std::min(context, blocks[first].oldStart);
        const std::size_t oldEnd = std::min(oldLines_, blocks[last].oldEnd + context);
        const std::size_t leading = blocks[first].oldStart - oldStart;
        const std::size_t newStart = blocks[first].newStart - leading;
        const std::size_t trailing = oldEnd - blocks[last].oldEnd;
        const std::size_t newEnd = blocks[last].newEnd + trailing;

        out += "@@ -";
        appendLineNumbers(out, oldStart, oldEnd - oldStart);
        out += " +";
        appendLineNumbers(out, newStart, newEnd - newStart);
        out += " @@\n";

        std::size_t position = oldStart;
        for (std::size_t b = first; b <= last; ++b) {
            const Block& block = blocks[b];
            for (; position < block.oldStart; ++position) appendDiffLine(out, ' ', lines[position]);
            for (std::size_t k = block.oldStart; k < block.oldEnd; ++k) {
                appendDiffLine(out, '-', lines[k]);
            }
            if (block.insertEdit != none) {
                std::string_view added = insertedText(block.insertEdit);
                for (const std::string_view line : splitLines(added))
                    appendDiffLine(out, '+', line);
            }
            position = block.oldEnd;
        }
        for (; position < oldEnd; ++position) appendDiffLine(out, ' ', lines[position]);
        first = last + 1;
    }
    return out;
}

std::string unifiedDiff(std::string_view oldText, std::string_view newText,
                        const UnifiedDiffOptions& options, const DiffOptions& diffOptions) {
    return EditScript::between(oldText, newText, diffOptions).unifiedDiff(oldText, options);
}

}  // namespace mirels
