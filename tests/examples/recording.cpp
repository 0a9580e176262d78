#include "recording.h"

#include <cmath>
#include <cstdint>
#include <memory>
#include <stdexcept>

namespace quorval_test {

namespace {

struct Close {
    void operator()(SNDFILE* file) const { sf_close(file); }
};

std::unique_ptr<SNDFILE, Close> open(const std::filesystem::path& file, int mode, SF_INFO& info)
{
    std::unique_ptr<SNDFILE, Close> opened(sf_open(file.c_str(), mode, &info));
    if (opened == nullptr) {
        throw std::runtime_error(file.string() + ": " + sf_strerror(nullptr));
    }
    return opened;
}

}  // namespace

Recording make_recording(int channels, std::size_t frames, int bits)
{
    const double scale = std::ldexp(1.0, bits - 1);
    Recording recording{8000, channels, {}};
    std::uint32_t state = 1;
    for (std::size_t i = 0; i < frames * static_cast<std::size_t>(channels); ++i) {
        state = state * 1664525U + 1013904223U;
        const double noise = static_cast<double>(state >> 8U) / 16777216.0 - 0.5;
        const double tone = std::sin(0.05 * static_cast<double>(i));
        recording.samples.push_back(std::round((0.7 * tone + 0.4 * noise) * scale) / scale);
    }
    return recording;
}

void write_recording(const std::filesystem::path& file, const Recording& recording, int format)
{
    SF_INFO info{};
    info.samplerate = recording.rate;
    info.channels = recording.channels;
    info.format = format;
    const auto opened = open(file, SFM_WRITE, info);
    const auto frames = static_cast<sf_count_t>(recording.samples.size()) / recording.channels;
    sf_count_t written = 0;
    const int encoding = format & SF_FORMAT_SUBMASK;
    if (encoding == SF_FORMAT_PCM_16 || encoding == SF_FORMAT_PCM_24) {
        std::vector<int> whole;
        for (const double sample : recording.samples) {
            whole.push_back(static_cast<int>(sample * 2147483648.0));
        }
        written = sf_writef_int(opened.get(), whole.data(), frames);
    } else {
        written = sf_writef_double(opened.get(), recording.samples.data(), frames);
    }
    if (written != frames) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

Recording read_recording(const std::filesystem::path& file)
{
    SF_INFO info{};
    const auto opened = open(file, SFM_READ, info);
    Recording recording{info.samplerate, info.channels, {}};
    recording.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
    const sf_count_t read = sf_readf_double(opened.get(), recording.samples.data(), info.frames);
    if (read != info.frames) {
        throw std::runtime_error("cannot read all of " + file.string());
    }
    return recording;
}

int get_format(const std::filesystem::path& file)
{
    SF_INFO info{};
    open(file, SFM_READ, info);
    return info.format;
}

Recording filter(const Recording& in, double gain, const std::vector<double>& taps)
{
    Recording out = in;
    const auto channels = static_cast<std::size_t>(in.channels);
    for (std::size_t i = 0; i < in.samples.size(); ++i) {
        out.samples[i] = 0;
        for (std::size_t tap = 0; tap < taps.size() && tap * channels <= i; ++tap) {
            out.samples[i] += taps[tap] * gain * in.samples[i - tap * channels];
        }
    }
    return out;
}

}  // namespace quorval_test
