// What is wrong with a graph, as a user reads it.
#pragma once

#include <quorval/export.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace Quorval {

/// One finding about a graph and its place in what the user wrote.
struct Diagnostic {
    std::string file;      ///< as it was given; of an assignment `--set PATH.KEY`
    unsigned line = 0;     ///< from 1; 0 for an assignment
    unsigned column = 0;   ///< from 1, in characters; 0 for an assignment
    bool is_error = true;  ///< a warning otherwise
    std::string text;      ///< one line
    /// The line of the file as it stands there; empty where there is none, or a very long one.
    std::string source_line;
};

/// `FILE:LINE:COLUMN: error: TEXT`, or `warning:`; for an assignment `--set PATH.KEY: error: TEXT`.
QUORVAL_EXPORT std::string to_string(const Diagnostic& diagnostic);

/// A graph cannot be made. what() is the text of all findings, a line each.
class QUORVAL_EXPORT GraphError : public std::runtime_error {
public:
    /// @param diagnostics  all findings, warnings too, in the order in which they are shown
    explicit GraphError(std::vector<Diagnostic> diagnostics);
    GraphError(const GraphError& other);
    GraphError& operator=(const GraphError& other);
    ~GraphError() override;

    const std::vector<Diagnostic>& diagnostics() const noexcept;

private:
    std::vector<Diagnostic> diagnostics_;
};

}  // namespace Quorval
