// Changes of running blocks, as lines of text.
#pragma once

#include <quorval/config.h>

#include <string>

namespace host {

/// A change for one block.
struct Change {
    std::string block;
    Quorval::BlockConfiguration override;
};

/// Reads a line `<block>.<key> <value>`, such as `gain.factor 0.25`. The value is a number, `true`
/// or `false`, a list of numbers such as `{0.5, 0.5}`, or else a string.
/// @throws std::invalid_argument  the line has another form: "expected <block>.<key> <value>"; or
///     a list holds something else: "expected numbers in {}"
/// @throws std::runtime_error     the key is not valid, with the text of the configuration
Change parse_change(const std::string& line);

/// Cuts what is read piece by piece into lines.
class LineReader {
public:
    /// Reads once from `fd` into the lines.
    /// @return false at the end of the input; an unfinished last line then counts as a line
    /// @throws std::system_error  the input cannot be read
    bool read(int fd);

    /// Takes the next whole line, without its end. A longer line than anybody would write comes in
    /// pieces.
    /// @return false when there is none yet
    bool next(std::string& line);

private:
    std::string pending_;
    bool ended_ = false;
};

}  // namespace host
