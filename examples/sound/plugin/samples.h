// What the ports of the sound blocks carry.
#pragma once

#include <quorval/settings.h>

#include <vector>

namespace sound {

/// A piece of a recording.
struct SampleBlock {
    int rate = 0;                 ///< frames per second
    int channels = 0;             ///< samples per frame
    std::vector<double> samples;  ///< frame after frame; full scale is from -1 to 1
    bool last = false;            ///< whether the recording ends with this piece

    /// For its codec.
    template <class Archive>
    void serialize(Archive& archive)
    {
        archive(rate, channels, samples, last);
    }
};

using Input = Quorval::InPort<SampleBlock>;
using Output = Quorval::OutPort<SampleBlock>;

}  // namespace sound

template <>
struct Quorval::PortType<sound::SampleBlock> {
    static constexpr const char* name() { return "sample-block"; }
};
