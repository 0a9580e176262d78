// Names that a graph of several machines has at its broker.
#pragma once

#include <string>

namespace Quorval::runtime {

/// `quorval/<graph>/value/<path>/<port>`. Of a port, characters that have a meaning in topics and
/// those that are not printable are written as "%" and two hexadecimal digits.
std::string value_topic(const std::string& graph, const std::string& path, const std::string& port);

/// `quorval/<graph>/machine/<machine>`
std::string machine_topic(const std::string& graph, const std::string& machine);

/// `quorval-<graph>-<machine>`
std::string client_name(const std::string& graph, const std::string& machine);

}  // namespace Quorval::runtime
