// Reading of label tables.
#include "scene/error.h"
#include "scene/labels.h"

#include <charconv>
#include <cmath>
#include <optional>

namespace scene {

namespace {

constexpr std::string_view kBlanks = " \t\r";

[[noreturn]] void Wrong(const std::string& subject, int line_number, const std::string& why) {
    throw Error(ErrorKind::kInput, subject, "line " + std::to_string(line_number) + ": " + why,
                "a line is: label, red, green, blue, opacity, visibility, mesh visibility, \"name\"");
}

// Takes the next number off the front of a line.
std::optional<double> TakeNumber(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    double number = 0.0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    if (error != std::errc() || !std::isfinite(number)) {
        return std::nullopt;
    }
    line.remove_prefix(static_cast<std::size_t>(end - line.data()));
    return number;
}

// What stands between the first and the last double quote.
std::string Quoted(std::string_view line) {
    const std::size_t first = line.find('"');
    const std::size_t last = line.rfind('"');
    return first == last ? std::string() : std::string(line.substr(first + 1, last - first - 1));
}

LabelTableEntry ParseLine(std::string_view line, int line_number, const std::string& subject) {
    double fields[7];
    for (double& field : fields) {
        const std::optional<double> number = TakeNumber(line);
        if (!number) {
            Wrong(subject, line_number, "it does not begin with seven numbers");
        }
        field = *number;
    }

    LabelTableEntry entry;
    if (fields[0] < 0.0 || fields[0] > 65535.0 || fields[0] != std::floor(fields[0])) {
        Wrong(subject, line_number, "its label is not a whole number from 0 to 65535");
    }
    entry.label = static_cast<int>(fields[0]);
    for (int channel = 1; channel <= 3; ++channel) {
        if (fields[channel] < 0.0 || fields[channel] > 255.0) {
            Wrong(subject, line_number, "a colour is not from 0 to 255");
        }
        entry.rgb = entry.rgb << 8 | static_cast<std::uint32_t>(std::lround(fields[channel]));
    }
    if (fields[4] < 0.0 || fields[4] > 1.0) {
        Wrong(subject, line_number, "its opacity is not from 0 to 1");
    }
    entry.opacity = fields[4];
    entry.visible = fields[5] != 0.0;
    entry.name = Quoted(line);
    return entry;
}

}  // namespace

std::vector<LabelTableEntry> ParseLabelTable(std::string_view text, const std::string& subject) {
    std::vector<LabelTableEntry> entries;
    int line_number = 0;
    for (std::size_t from = 0; from < text.size();) {
        const std::size_t to = std::min(text.find('\n', from), text.size());
        const std::string_view line = text.substr(from, to - from);
        from = to + 1;
        ++line_number;
        const std::size_t begin = line.find_first_not_of(kBlanks);
        if (begin != std::string_view::npos && line[begin] != '#') {
            entries.push_back(ParseLine(line, line_number, subject));
        }
    }
    if (entries.empty()) {
        throw Error(ErrorKind::kInput, subject, "is not a label table: it has no label", "");
    }
    return entries;
}

}  // namespace scene
