// SoundFileSource: asks for its own runs, one for each piece, so that other things get their turn
// in between.
#include <quorval/log.h>
#include <quorval/runtime/tools.h>
#include "blocks.h"
#include "samples.h"
#include "sound_file.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>

namespace sound {

using Quorval::BlockConfiguration;

namespace {

struct SoundFileSourceSettings {
    std::string path;
    int frames = 1024;
};

const Quorval::Settings<SoundFileSourceSettings>& sound_file_source_settings()
{
    constexpr int kMostFrames = 65536;
    static const auto kSettings =
        Quorval::Settings<SoundFileSourceSettings>("Reads a recording, piece by piece.")
            .add("path", &SoundFileSourceSettings::path, "the file")
            .required()
            .add("frames", &SoundFileSourceSettings::frames, "the size of a piece")
            .range(1, kMostFrames)
            .live();
    return kSettings;
}

[[noreturn]] void fail(const std::string& path, const std::string& reason)
{
    throw std::runtime_error(path + ": " + reason);
}

/// What libsndfile noted about damage that it passes over, empty when there is none. Only its log
/// for people tells that the data of a WAV file are cut off or that pages of an Ogg file are lost.
std::string find_damage(SNDFILE* file)
{
    constexpr std::size_t kLogSize = 16384;
    std::string log(kLogSize, '\0');
    const int length = sf_command(file, SFC_GET_LOG_INFO, log.data(), static_cast<int>(kLogSize));
    log.resize(static_cast<std::size_t>(std::max(length, 0)));

    constexpr std::array<const char*, 5> kSigns = {"ended unexpectedly", "Corrupted", "a hole",
                                                   "ERROR : ", "data : "};
    for (std::size_t begin = 0; begin < log.size();) {
        const std::size_t end = std::min(log.find('\n', begin), log.size());
        std::string line = log.substr(begin, end - begin);
        for (const char* sign : kSigns) {
            const bool is_size = std::string(sign) == "data : ";
            if (line.find(sign) != std::string::npos &&
                (!is_size || line.find("(should be") != std::string::npos)) {
                return line;
            }
        }
        begin = end + 1;
    }
    return "";
}

class SoundFileSource : public Quorval::Block {
public:
    SoundFileSource(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(sound_file_source_settings().read(config))
    {
    }

    void start() override
    {
        open();
        check_for_damage();
        get_tools().request_run();
    }

    bool run() override
    {
        SampleBlock& block = out_->value();
        read(block);
        get_tools().progress(static_cast<std::uint64_t>(frames_read_),
                             static_cast<std::uint64_t>(info_.frames));
        if (block.last) {
            check_for_damage();
        } else {
            get_tools().request_run();
        }
        out_->trigger();
        return !block.last;
    }

    void stop() override { file_.reset(); }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = sound_file_source_settings().apply(settings_, override);
    }

private:
    void open()
    {
        const std::string& path = settings_.path;
        // A pipe would make the opening wait, and a directory reads as an empty file.
        std::error_code error;
        const std::filesystem::file_status status = std::filesystem::status(path, error);
        if (error) {
            fail(path, error.message());
        }
        if (!std::filesystem::is_regular_file(status)) {
            fail(path, "not a regular file");
        }
        file_.reset(sf_open(path.c_str(), SFM_READ, &info_));
        if (file_ == nullptr) {
            std::string reason = sf_strerror(nullptr);
            reason.erase(reason.find_last_not_of(" .\n") + 1);
            fail(path, "cannot be read as a sound file: " + reason);
        }
        Quorval::ilog(LOGLEVEL_INFO) << path << " has " << info_.channels << " channels, "
                                     << info_.samplerate << " frames per second";
    }

    void check_for_damage() const
    {
        const std::string damage = find_damage(file_.get());
        if (!damage.empty()) {
            fail(settings_.path, "damaged (" + damage + ")");
        }
    }

    void read(SampleBlock& block)
    {
        const sf_count_t left = info_.frames - frames_read_;
        const sf_count_t wanted = std::min<sf_count_t>(settings_.frames, left);
        block.rate = info_.samplerate;
        block.channels = info_.channels;
        block.samples.resize(static_cast<std::size_t>(wanted * info_.channels));
        if (sf_readf_double(file_.get(), block.samples.data(), wanted) != wanted) {
            fail(settings_.path,
                 "damaged, it ends before its " + std::to_string(info_.frames) + " frames");
        }
        if (!std::all_of(block.samples.begin(), block.samples.end(),
                         [](double sample) { return std::isfinite(sample); })) {
            fail(settings_.path, "damaged, it holds samples that are no numbers");
        }
        frames_read_ += wanted;
        block.last = wanted == left;
    }

    SoundFileSourceSettings settings_;
    Output* out_ = Quorval::add_output<SampleBlock>(*this, "out");
    SoundFile file_;
    SF_INFO info_{};
    std::int64_t frames_read_ = 0;
};

}  // namespace

void register_sound_file_source(Quorval::IRegistry& registry)
{
    Quorval::register_block<SoundFileSource>(registry, "SoundFileSource",
                                             sound_file_source_settings());
}

}  // namespace sound
