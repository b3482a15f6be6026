#include "mirels/plist/StructuredDescription.h"

namespace mirels {

StructuredDescriptionBuildAction StructuredDescriptionBuildAction::line(std::string text) {
    return {Kind::line, std::move(text), {}, {}};
}

StructuredDescriptionBuildAction StructuredDescriptionBuildAction::keyValue(std::string key,
                                                                            std::string value) {
    return {Kind::keyValue, std::move(key), std::move(value), {}};
}

StructuredDescriptionBuildAction StructuredDescriptionBuildAction::section(
    std::string heading, std::vector<StructuredDescriptionBuildAction> actions) {
    return {Kind::section, std::move(heading), {}, std::move(actions)};
}

StructuredDescriptionBuildAction StructuredDescriptionBuildAction::group(
    std::string title, std::vector<StructuredDescriptionBuildAction> actions) {
    return {Kind::group, std::move(title), {}, std::move(actions)};
}

namespace {

constexpr std::size_t indentWidth = 2;

/// Calls `emit` with each line of `text` (split at "\n"; an empty text is one empty line).
template <class Emit>
void forEachLine(std::string_view text, Emit&& emit) {
    std::size_t start = 0;
    while (true) {
        const std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            emit(text.substr(start));
            return;
        }
        emit(text.substr(start, end - start));
        start = end + 1;
    }
}

/// Renders `actions` at `depth`, calling `emit(indent, text)` per line. Nesting is walked with
/// an explicit stack so that a deeply nested description cannot exhaust the thread's stack.
template <class Emit>
void render(const std::vector<StructuredDescriptionBuildAction>& actions, Emit&& emit) {
    struct Level {
        const std::vector<StructuredDescriptionBuildAction>* actions;
        std::size_t next;
    };
    std::vector<Level> stack{{&actions, 0}};
    while (!stack.empty()) {
        Level& level = stack.back();
        if (level.next == level.actions->size()) {
            stack.pop_back();
            continue;
        }
        const auto& action = (*level.actions)[level.next++];
        const std::size_t indent = (stack.size() - 1) * indentWidth;
        switch (action.kind()) {
            case StructuredDescriptionBuildAction::Kind::line:
            case StructuredDescriptionBuildAction::Kind::section:
            case StructuredDescriptionBuildAction::Kind::group:
                forEachLine(action.text(), [&](std::string_view line) { emit(indent, line, {}); });
                break;
            case StructuredDescriptionBuildAction::Kind::keyValue: {
                bool first = true;
                forEachLine(action.value(), [&](std::string_view line) {
                    if (first) {
                        emit(indent, action.text(), line);
                        first = false;
                    } else {
                        emit(indent + indentWidth, line, {});
                    }
                });
                break;
            }
        }
        if (!action.actions().empty()) stack.push_back({&action.actions(), 0});
    }
}

}  // namespace

std::vector<std::string> renderStructuredDescriptionLines(
    const std::vector<StructuredDescriptionBuildAction>& actions) {
    std::vector<std::string> lines;
    render(actions, [&](std::size_t indent, std::string_view text, std::string_view value) {
        std::string& line = lines.emplace_back(indent, ' ');
        line += text;
        if (value.data() != nullptr) {
            line += ": ";
            line += value;
        }
    });
    return lines;
}

std::string renderStructuredDescription(
    const std::vector<StructuredDescriptionBuildAction>& actions) {
    std::string out;
    bool first = true;
    render(actions, [&](std::size_t indent, std::string_view text, std::string_view value) {
        if (!first) out += '\n';
        first = false;
        out.append(indent, ' ');
        out += text;
        if (value.data() != nullptr) {
            out += ": ";
            out += value;
        }
    });
    return out;
}

std::string StructuredStringConvertible::structuredDescription() const {
    std::vector<StructuredDescriptionBuildAction> actions;
    describe(actions);
    return renderStructuredDescription(actions);
}

}  // namespace mirels
