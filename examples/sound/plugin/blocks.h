// The block types of the plug-in.
#pragma once

#include <quorval/block.h>
#include "../tools.h"
#include "samples.h"

#include <sndfile.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace sound {

struct CloseSoundFile {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, CloseSoundFile>;

/// Reads a recording, one piece in each run. Between the runs it asks for the next one through its
/// event port "next", so that the event loop gets to other things in between.
///
/// Keys: `path`, the file; `frames` (int), the size of a piece. Output: "out".
class SoundFileSource : public Quorval::Block {
public:
    SoundFileSource(std::string name, const Quorval::BlockConfiguration& config,
                    const Quorval::InitTools& tools);

    void start() override;
    bool run() override;
    void stop() override;
    void reconfigure(const Quorval::BlockConfiguration& merged,
                     const Quorval::BlockConfiguration& override) override;

private:
    void open();
    void check_for_damage() const;
    void read(SampleBlock& block);

    Output& out_;
    Quorval::EventPort& next_;
    std::string path_;
    int frames_per_block_;
    SoundFile file_;
    SF_INFO info_{};
    std::int64_t frames_read_ = 0;
};

/// Multiplies all samples. Key: `factor` (double). Ports: "in", "out".
class Gain : public Quorval::Block {
public:
    Gain(std::string name, const Quorval::BlockConfiguration& config);

    bool run() override;
    void reconfigure(const Quorval::BlockConfiguration& merged,
                     const Quorval::BlockConfiguration& override) override;

private:
    Input& in_;
    Output& out_;
    double factor_;
};

/// Filters each channel: y[n] = taps[0] x[n] + taps[1] x[n-1] + …, with silence in front of the
/// recording. Key: `taps` (DoubleVector). Ports: "in", "out".
class Fir : public Quorval::Block {
public:
    Fir(std::string name, const Quorval::BlockConfiguration& config);

    bool run() override;
    void reconfigure(const Quorval::BlockConfiguration& merged,
                     const Quorval::BlockConfiguration& override) override;

private:
    void fit_history(std::size_t samples);

    Input& in_;
    Output& out_;
    std::vector<double> taps_;
    std::vector<double> history_;  // the frames in front of the next piece, one less than taps
};

/// Measures the peak and the root mean square of all that it sees, and reports both when it stops.
/// With a store, which the key `pstore_path` sets, it remembers the highest peak ever, and reports
/// that one too, at the start and at the end.
///
/// Key: `forget` (bool), drops what is remembered. Port: "in".
class LevelMeter : public Quorval::Block {
public:
    LevelMeter(std::string name, const Quorval::BlockConfiguration& config);

    void start() override;
    bool run() override;
    void stop() override;
    void reconfigure(const Quorval::BlockConfiguration& merged,
                     const Quorval::BlockConfiguration& override) override;

private:
    bool has_store();
    double load_highest_peak();

    Input& in_;
    bool forget_;
    double peak_ = 0;
    double highest_peak_ = 0;
    double sum_of_squares_ = 0;
    std::int64_t samples_ = 0;
};

/// Writes a recording. The file appears under its name when the recording is complete, in stop();
/// until then the data lies beside it, and goes away with the block when something fails.
///
/// Keys: `path`, the file, whose ending says the format (.wav, .flac, .ogg, .oga); `encoding`,
/// pcm16, pcm24 or, in .wav alone, float; an Ogg file is always Vorbis. Port: "in".
class SoundFileSink : public Quorval::Block {
public:
    SoundFileSink(std::string name, const Quorval::BlockConfiguration& config);
    ~SoundFileSink() override;

    bool run() override;
    void stop() override;
    void reconfigure(const Quorval::BlockConfiguration& merged,
                     const Quorval::BlockConfiguration& override) override;

private:
    void open(const SampleBlock& block);
    sf_count_t write(const std::vector<double>& samples, sf_count_t frames);
    void quantize(const std::vector<double>& samples);
    void commit();
    void discard() noexcept;

    Input& in_;
    std::string path_;
    int format_;  // as libsndfile has it
    int bits_;    // of a sample, 0 where samples are not whole numbers
    std::vector<int> quantized_;
    std::string temporary_path_;  // empty when there is no such file
    int descriptor_ = -1;
    SoundFile file_;
    SF_INFO info_{};
    std::int64_t frames_written_ = 0;
    std::int64_t samples_clipped_ = 0;
    bool is_complete_ = false;
};

}  // namespace sound
