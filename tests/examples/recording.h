// Sound files for the tests of the sound example.
#pragma once

#include <sndfile.h>

#include <cstddef>
#include <filesystem>
#include <vector>

namespace quorval_test {

struct Recording {
    int rate = 0;
    int channels = 0;
    std::vector<double> samples;  // frame after frame
};

/// A tone and some noise, the same each time, between -0.9 and 0.9. Each sample is a whole number
/// of `bits` bits.
Recording make_recording(int channels, std::size_t frames, int bits = 16);

/// Stores the samples exactly, unless the format cannot.
void write_recording(const std::filesystem::path& file, const Recording& recording,
                     int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16);

Recording read_recording(const std::filesystem::path& file);

/// The format of a sound file, as libsndfile has it.
int get_format(const std::filesystem::path& file);

/// What gain and filter have to make of a recording, calculated in the plainest way.
Recording filter(const Recording& in, double gain, const std::vector<double>& taps);

}  // namespace quorval_test
