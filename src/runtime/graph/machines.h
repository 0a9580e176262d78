// The part of a graph that belongs to one machine.
#pragma once

#include <quorval/runtime/graph.h>
#include "description/description.h"
#include "description/problem.h"
#include "graph/expansion.h"

#include <string>

namespace Quorval::runtime {

/// Whether a graph that is looked at or run as `options` say is taken apart as they say.
/// @throws std::invalid_argument  there is no such machine: "there is no machine '<name>'", with
///     the near one; or one is needed: "one of the machines <a>, <b> has to be named with
///     --machine, or --local be given"
void check_machine(const GraphOptions& options, const GraphDescription& description);

/// Reports keys that are missing beside others.
void check_link(const LinkDescription& link, Problems& problems);

/// Reports a broker that is missing for connections between machines: of a graph that is looked at
/// as a whole for any, of a part for those of its machine.
void check_broker(const GraphOptions& options, const GraphDescription& description,
                  Problems& problems);

/// Marks what belongs to another machine.
/// @param machine  empty: nothing does
void mark_elsewhere(Expansion& expansion, const std::string& machine);

}  // namespace Quorval::runtime
