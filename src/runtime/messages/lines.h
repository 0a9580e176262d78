// The form of a message on standard error.
#pragma once

#include <quorval/log.h>

#include <string>
#include <string_view>

namespace Quorval::runtime {

/// "quorval: error: left/gain: text" and the end of the line, for each line of `text`; one line
/// end at its end does not count. Control characters appear as \xHH.
/// @param path  of the block that the message is about; null for none
std::string to_lines(loglevel level, const char* path, std::string_view text);

/// The message as an entry of a journal has it: the path in front, its lines as they are.
std::string to_entry(const char* path, std::string_view text);

}  // namespace Quorval::runtime
