#include <quorval/log.h>
#include "blocks.h"
#include "settings.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace sound {

using Quorval::BlockConfiguration;

namespace {

constexpr int kMostFrames = 65536;

[[noreturn]] void fail(const std::string& path, const std::string& reason)
{
    throw std::runtime_error(path + ": " + reason);
}

int read_frames(const Settings& settings, int present)
{
    return settings.get_int("frames", present, 1, kMostFrames);
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

}  // namespace

SoundFileSource::SoundFileSource(std::string name, const BlockConfiguration& config,
                                 const Quorval::InitTools& tools)
    : Block(std::move(name), config),
      out_(add_output(*this, "out")),
      next_(static_cast<Quorval::EventPort&>(*make_eventport("next")))
{
    const Settings settings(get_name(), config);
    path_ = settings.get_path("path");
    frames_per_block_ = read_frames(settings, tools.frames_per_block);
    settings.warn_about_unknown_keys("frames, path");
}

void SoundFileSource::start()
{
    open();
    check_for_damage();
    next_.fire();
}

void SoundFileSource::open()
{
    // A pipe would make the opening wait, and a directory reads as an empty file.
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path_, error);
    if (error) {
        fail(path_, error.message());
    }
    if (!std::filesystem::is_regular_file(status)) {
        fail(path_, "not a regular file");
    }
    file_.reset(sf_open(path_.c_str(), SFM_READ, &info_));
    if (file_ == nullptr) {
        std::string reason = sf_strerror(nullptr);
        reason.erase(reason.find_last_not_of(" .\n") + 1);
        fail(path_, "cannot be read as a sound file: " + reason);
    }
    Quorval::ilog(LOGLEVEL_INFO) << get_name() << ": " << path_ << " has " << info_.channels
                                 << " channels, " << info_.samplerate << " frames per second";
}

void SoundFileSource::check_for_damage() const
{
    const std::string damage = find_damage(file_.get());
    if (!damage.empty()) {
        fail(path_, "damaged (" + damage + ")");
    }
}

bool SoundFileSource::run()
{
    // Before the next event is asked for: a reset by the application after the run would swallow
    // that one too.
    next_.reset(false);

    SampleBlock& block = out_.value();
    read(block);
    get_tools().progress(frames_read_, info_.frames);
    if (block.last) {
        check_for_damage();
    } else {
        next_.fire();
    }
    out_.trigger();
    return true;
}

void SoundFileSource::read(SampleBlock& block)
{
    const sf_count_t left = info_.frames - frames_read_;
    const sf_count_t wanted = std::min<sf_count_t>(frames_per_block_, left);
    block.rate = info_.samplerate;
    block.channels = info_.channels;
    block.samples.resize(static_cast<std::size_t>(wanted * info_.channels));
    if (sf_readf_double(file_.get(), block.samples.data(), wanted) != wanted) {
        fail(path_, "damaged, it ends before its " + std::to_string(info_.frames) + " frames");
    }
    if (!std::all_of(block.samples.begin(), block.samples.end(),
                     [](double sample) { return std::isfinite(sample); })) {
        fail(path_, "damaged, it holds samples that are no numbers");
    }
    frames_read_ += wanted;
    block.last = wanted == left;
}

void SoundFileSource::stop()
{
    file_.reset();
}

void SoundFileSource::reconfigure(const BlockConfiguration& /*merged*/,
                                  const BlockConfiguration& override)
{
    const Settings settings(get_name(), override);
    settings.refuse_change("path");
    frames_per_block_ = read_frames(settings, frames_per_block_);
}

}  // namespace sound
