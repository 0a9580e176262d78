#include "diagnostics.h"

#include "output.h"
#include "text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdio>

namespace {

using Quorval::Diagnostic;

/// So much of a line is shown on either side of the caret.
constexpr std::size_t kMostCells = 60;

constexpr const char* kRed = "\033[1;31m";
constexpr const char* kMagenta = "\033[1;35m";
constexpr const char* kPlain = "\033[0m";

/// The line of a finding, with the kind of it in colour.
std::string to_coloured_string(const Diagnostic& diagnostic)
{
    std::string line = to_string(diagnostic);
    const std::string kind = diagnostic.is_error ? "error:" : "warning:";
    const std::size_t begin = line.find(" " + kind + " ") + 1;
    line.insert(begin + kind.size(), kPlain);
    line.insert(begin, diagnostic.is_error ? kRed : kMagenta);
    return line;
}

}  // namespace

std::string show_place(const Diagnostic& diagnostic)
{
    if (diagnostic.line == 0 || diagnostic.source_line.empty()) {
        return "";
    }
    const std::vector<Cell> cells = lay_out(diagnostic.source_line);
    const std::size_t at = std::min<std::size_t>(diagnostic.column - 1, cells.size());
    const std::size_t begin = at > kMostCells ? at - kMostCells : 0;
    const std::size_t end = std::min(at + kMostCells, cells.size());
    std::string line;
    std::string below;
    for (std::size_t i = begin; i < end; ++i) {
        line += cells[i].text;
        below.append(i < at ? cells[i].width : 0, ' ');
    }
    return line + "\n" + below + "^\n";
}

void show_diagnostics(const std::vector<Diagnostic>& diagnostics)
{
    std::string text;
    for (const Diagnostic& diagnostic : diagnostics) {
        text += (has_colours() ? to_coloured_string(diagnostic) : to_string(diagnostic)) + "\n";
        if (has_terminal()) {
            text += show_place(diagnostic);
        }
    }
    static_cast<void>(std::fwrite(text.data(), 1, text.size(), stderr));
}

std::string to_json(const std::vector<Diagnostic>& diagnostics)
{
    auto list = nlohmann::json::array();
    for (const Diagnostic& diagnostic : diagnostics) {
        nlohmann::json entry = {{"file", diagnostic.file},
                                {"severity", diagnostic.is_error ? "error" : "warning"},
                                {"text", diagnostic.text}};
        if (diagnostic.line != 0) {
            entry["line"] = diagnostic.line;
            entry["column"] = diagnostic.column;
        }
        list.push_back(std::move(entry));
    }
    return list.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}
