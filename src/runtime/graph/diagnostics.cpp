#include "graph/diagnostics.h"

#include "messages/printable.h"

#include <algorithm>
#include <cstddef>
#include <set>
#include <string>
#include <utility>

namespace Quorval {

namespace runtime {

namespace {

// A line with many findings is shown with each of them.
constexpr std::size_t kLongestLine = 1000;

/// Gives the lines of a text, each step forward at the cost of what lies between.
class LineReader {
public:
    explicit LineReader(const std::string& text) : text_(text) {}

    /// @param line  from 1, and not before the last one that was asked for
    /// @return empty for a line that is too long
    std::string get(unsigned line)
    {
        while (line_ < line) {
            begin_ = end() + 1;
            ++line_;
        }
        if (begin_ >= text_.size() || end() - begin_ > kLongestLine) {
            return {};
        }
        std::string found = text_.substr(begin_, end() - begin_);
        if (!found.empty() && found.back() == '\r') {
            found.pop_back();
        }
        return found;
    }

private:
    std::size_t end() const
    {
        return begin_ < text_.size() ? std::min(text_.find('\n', begin_), text_.size())
                                     : text_.size();
    }

    const std::string& text_;
    unsigned line_ = 1;
    std::size_t begin_ = 0;
};

}  // namespace

std::vector<Diagnostic> to_diagnostics(const Problems& problems, const std::vector<Source>& sources)
{
    std::vector<LineReader> readers;
    readers.reserve(sources.size());
    for (const Source& source : sources) {
        readers.emplace_back(source.text);
    }
    std::vector<Diagnostic> diagnostics;
    std::set<std::string> shown;
    for (Problem& problem : problems.sorted()) {
        const Place& place = problem.place;
        Diagnostic diagnostic;
        diagnostic.file = sources[place.source].name;
        diagnostic.line = place.line;
        diagnostic.column = place.column;
        diagnostic.is_error = problem.severity == Severity::Error;
        diagnostic.text = printable(problem.text);
        // One file can be several sources, when it cannot be read; an assignment can be repeated.
        if (!shown.insert(to_string(diagnostic)).second) {
            continue;
        }
        if (place.line > 0) {
            diagnostic.source_line = readers[place.source].get(place.line);
        }
        diagnostics.push_back(std::move(diagnostic));
    }
    return diagnostics;
}

}  // namespace runtime

namespace {

std::string join(const std::vector<Diagnostic>& diagnostics)
{
    std::string text;
    for (const Diagnostic& diagnostic : diagnostics) {
        text += (text.empty() ? "" : "\n") + to_string(diagnostic);
    }
    return text;
}

}  // namespace

std::string to_string(const Diagnostic& diagnostic)
{
    std::string text = runtime::printable(diagnostic.file);
    if (diagnostic.line > 0) {
        text += ":" + std::to_string(diagnostic.line) + ":" + std::to_string(diagnostic.column);
    }
    return text + (diagnostic.is_error ? ": error: " : ": warning: ") + diagnostic.text;
}

GraphError::GraphError(std::vector<Diagnostic> diagnostics)
    : std::runtime_error(join(diagnostics)), diagnostics_(std::move(diagnostics))
{
}

GraphError::GraphError(const GraphError&) = default;
GraphError& GraphError::operator=(const GraphError&) = default;
GraphError::~GraphError() = default;

const std::vector<Diagnostic>& GraphError::diagnostics() const noexcept
{
    return diagnostics_;
}

}  // namespace Quorval
