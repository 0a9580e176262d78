// Who is destroyed.
#pragma once

#include "messages/context.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// Says in the context of the thread which block is being destroyed while those of a graph are. It
/// knows the order in which superblocks destroy their members, and has to be told of each that is
/// gone. Outlives the blocks.
class Destruction {
public:
    Destruction() = default;
    Destruction(const Destruction&) = delete;
    Destruction& operator=(const Destruction&) = delete;
    /// Puts the context from before back.
    ~Destruction();

    /// A block was made.
    void add(const std::string& path) { paths_.push_back(path); }

    /// From here on blocks are destroyed.
    void begin();

    /// One of them is gone. Does nothing before begin().
    void next();

private:
    std::vector<std::string> paths_;
    std::size_t present_ = 0;
    bool has_begun_ = false;
    Context before_;
};

/// What a std::unique_ptr does with a Destruction in place of destroying it: it begins.
struct BeginDestruction {
    void operator()(Destruction* destruction) const { destruction->begin(); }
};

}  // namespace Quorval::runtime
