// SoundFileSink: shows its file only when it is complete.
#include <quorval/log.h>
#include "blocks.h"
#include "samples.h"
#include "sound_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace sound {

using Quorval::BlockConfiguration;

namespace {

struct SoundFileSinkSettings {
    std::string path;
    std::string encoding = "pcm16";
};

const Quorval::Settings<SoundFileSinkSettings>& sound_file_sink_settings()
{
    static const auto kSettings =
        Quorval::Settings<SoundFileSinkSettings>(
            "Writes a recording. The file appears whole, when the graph stops, and not at all "
            "when something failed.")
            .add("path", &SoundFileSinkSettings::path,
                 "the file; ends in .wav, .flac, .ogg or .oga, which says the format")
            .required()
            .add("encoding", &SoundFileSinkSettings::encoding,
                 "of the samples; float in .wav alone; an Ogg file is always Vorbis")
            .choices({"pcm16", "pcm24", "float"});
    return kSettings;
}

[[noreturn]] void fail_with_errno(const std::string& what)
{
    const int error = errno;
    throw std::system_error(error, std::generic_category(), what);
}

/// The ending of the file's name in lower case, with its full stop.
std::string get_ending(const std::string& path)
{
    std::string ending = std::filesystem::path(path).extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return ending;
}

/// The format of the file as libsndfile has it.
int get_format(const SoundFileSinkSettings& settings)
{
    static const std::map<std::string, int> kContainers = {{".wav", SF_FORMAT_WAV},
                                                           {".flac", SF_FORMAT_FLAC},
                                                           {".ogg", SF_FORMAT_OGG},
                                                           {".oga", SF_FORMAT_OGG}};
    static const std::map<std::string, int> kEncodings = {
        {"pcm16", SF_FORMAT_PCM_16}, {"pcm24", SF_FORMAT_PCM_24}, {"float", SF_FORMAT_FLOAT}};
    const auto container = kContainers.find(get_ending(settings.path));
    if (container == kContainers.end()) {
        throw std::invalid_argument("'path' has to end in .wav, .flac, .ogg or .oga, not '" +
                                    settings.path + "'");
    }
    if (container->second == SF_FORMAT_OGG) {
        return SF_FORMAT_OGG | SF_FORMAT_VORBIS;
    }
    if (container->second == SF_FORMAT_FLAC && settings.encoding == "float") {
        throw std::invalid_argument("'encoding' cannot be float in a .flac file");
    }
    return container->second | kEncodings.at(settings.encoding);
}

/// What a symbolic link leads to is replaced, not the link.
std::string follow_links(const std::string& path)
{
    std::error_code error;
    const std::filesystem::path target = std::filesystem::canonical(path, error);
    return error ? path : target.string();
}

int get_bits(int format)
{
    constexpr int kBitsOfPcm24 = 24;
    switch (format & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_PCM_16:
            return 16;
        case SF_FORMAT_PCM_24:
            return kBitsOfPcm24;
        default:
            return 0;
    }
}

/// In the same directory, so that it can be renamed, and hidden until then.
std::string get_temporary_path(const std::filesystem::path& path)
{
    const std::string name =
        "." + path.filename().string() + "." + std::to_string(::getpid()) + ".part";
    return (path.parent_path() / name).string();
}

class SoundFileSink : public Quorval::Block {
public:
    SoundFileSink(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config),
          settings_(sound_file_sink_settings().read(config)),
          format_(get_format(settings_)),
          bits_(get_bits(format_))
    {
    }
    SoundFileSink(const SoundFileSink&) = delete;
    SoundFileSink& operator=(const SoundFileSink&) = delete;
    ~SoundFileSink() override { discard(); }

    void start() override { path_ = follow_links(settings_.path); }

    bool run() override
    {
        const SampleBlock& block = in_->value();
        if (file_ == nullptr) {
            open(block);
        }
        const auto frames = static_cast<sf_count_t>(block.samples.size()) / block.channels;
        if (write(block.samples, frames) != frames) {
            throw std::runtime_error(settings_.path +
                                     ": cannot be written: " + sf_strerror(file_.get()));
        }
        frames_written_ += frames;
        if (block.last && !is_complete_) {
            Quorval::ilog(LOGLEVEL_INFO) << "the recording has come to its end";
        }
        is_complete_ = block.last;
        return true;
    }

    void stop() override
    {
        if (!is_complete_) {
            Quorval::ilog(LOGLEVEL_WARNING)
                << "the recording did not come to its end: " << settings_.path << " is not written";
            discard();
            return;
        }
        commit();
        if (samples_clipped_ > 0) {
            Quorval::ilog(LOGLEVEL_WARNING)
                << samples_clipped_ << " samples were too loud and are clipped";
        }
        Quorval::ilog(LOGLEVEL_INFO) << frames_written_ << " frames written to " << settings_.path;
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = sound_file_sink_settings().apply(settings_, override);
    }

private:
    void open(const SampleBlock& block)
    {
        std::error_code ignored;
        if (std::filesystem::exists(path_, ignored) &&
            !std::filesystem::is_regular_file(path_, ignored)) {
            throw std::runtime_error(settings_.path + ": not a regular file");
        }
        constexpr mode_t kMode = 0666;
        const std::string temporary_path = get_temporary_path(path_);
        descriptor_ = ::open(temporary_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
        if (descriptor_ < 0) {
            fail_with_errno(settings_.path + ": cannot be written");
        }
        temporary_path_ = temporary_path;

        info_.samplerate = block.rate;
        info_.channels = block.channels;
        info_.format = format_;
        file_.reset(sf_open_fd(descriptor_, SFM_WRITE, &info_, SF_FALSE));
        if (file_ == nullptr) {
            throw std::runtime_error(settings_.path +
                                     ": cannot be written: " + sf_strerror(nullptr));
        }
    }

    sf_count_t write(const std::vector<double>& samples, sf_count_t frames)
    {
        if (bits_ == 0) {
            return sf_writef_double(file_.get(), samples.data(), frames);
        }
        quantize(samples);
        return sf_writef_int(file_.get(), quantized_.data(), frames);
    }

    /// Rounds to whole numbers of so many bits, at the upper end of an int, where libsndfile wants
    /// them. Its own conversion scales by another number than that of its reader, so that a
    /// recording would not come back as it was.
    void quantize(const std::vector<double>& samples)
    {
        const double scale = std::ldexp(1.0, bits_ - 1);
        const int shift = std::numeric_limits<unsigned>::digits - bits_;
        quantized_.clear();
        for (const double sample : samples) {
            const double rounded = std::nearbyint(sample * scale);
            const double fitting = std::max(-scale, std::min(scale - 1, rounded));
            quantized_.push_back(static_cast<int>(fitting) * (1 << shift));
            samples_clipped_ += std::abs(sample) > 1 ? 1 : 0;
        }
    }

    /// Puts the file in its place, whole and on the disk. What fails before that leaves the place
    /// as it was.
    void commit()
    {
        file_.reset();  // writes what is left, and the header
        if (::fsync(descriptor_) < 0) {
            fail_with_errno(settings_.path + ": cannot be written");
        }
        if (::close(std::exchange(descriptor_, -1)) < 0) {
            fail_with_errno(settings_.path + ": cannot be written");
        }
        if (::rename(temporary_path_.c_str(), path_.c_str()) < 0) {
            fail_with_errno(settings_.path + ": cannot be replaced");
        }
        temporary_path_.clear();
    }

    void discard() noexcept
    {
        file_.reset();
        if (descriptor_ >= 0) {
            ::close(std::exchange(descriptor_, -1));
        }
        if (!temporary_path_.empty()) {
            ::unlink(temporary_path_.c_str());
            temporary_path_.clear();
        }
    }

    SoundFileSinkSettings settings_;
    Input* in_ = Quorval::add_input<SampleBlock>(*this, "in");
    std::string path_;  // of the file itself
    int format_;        // as libsndfile has it
    int bits_;          // of a sample, 0 where samples are not whole numbers
    std::vector<int> quantized_;
    std::string temporary_path_;  // empty when there is no such file
    int descriptor_ = -1;
    SoundFile file_;
    SF_INFO info_{};
    std::int64_t frames_written_ = 0;
    std::int64_t samples_clipped_ = 0;
    bool is_complete_ = false;
};

}  // namespace

void register_sound_file_sink(Quorval::IRegistry& registry)
{
    Quorval::register_block<SoundFileSink>(registry, "SoundFileSink", sound_file_sink_settings());
}

}  // namespace sound
