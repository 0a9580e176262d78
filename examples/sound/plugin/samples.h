// What the ports of the sound blocks carry.
#pragma once

#include <quorval/block.h>
#include <quorval/port.h>

#include <string>
#include <vector>

namespace sound {

/// A piece of a recording.
struct SampleBlock {
    int rate;                     ///< frames per second
    int channels;                 ///< samples per frame
    std::vector<double> samples;  ///< frame after frame; full scale is from -1 to 1
    bool last;                    ///< whether the recording ends with this piece
};

using Input = Quorval::InPort<SampleBlock>;
using Output = Quorval::OutPort<SampleBlock>;

/// Add a port of the data type `sample-block` to a block, which owns it.
Input& add_input(Quorval::Block& block, const std::string& name);
Output& add_output(Quorval::Block& block, const std::string& name);

}  // namespace sound
