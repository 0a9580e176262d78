// The services that the host shares with its blocks. The library only passes them on, so host and
// plug-in are built with the same definition.
#pragma once

#include <quorval/block.h>
#include <quorval/pluginloader.h>

#include <cstdint>
#include <functional>
#include <string>

namespace Quorval {

/// What the create functions of the plug-in get.
struct InitTools {
    int frames_per_block;  ///< how much a source delivers in one run, unless configured otherwise
};

/// What running blocks get.
struct RuntimeTools {
    /// Tells the user what a block found out.
    std::function<void(const std::string& block, const std::string& finding)> report;
    /// Tells how many frames of how many are read.
    std::function<void(std::int64_t done, std::int64_t total)> progress;
};

}  // namespace Quorval
