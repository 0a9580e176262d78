#include <quorval/log.h>
#include "blocks.h"
#include "settings.h"

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
#include <system_error>
#include <utility>

namespace sound {

using Quorval::BlockConfiguration;

namespace {

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

int read_format(const Settings& settings, const std::string& path)
{
    static const std::map<std::string, int> kContainers = {{".wav", SF_FORMAT_WAV},
                                                           {".flac", SF_FORMAT_FLAC},
                                                           {".ogg", SF_FORMAT_OGG},
                                                           {".oga", SF_FORMAT_OGG}};
    static const std::map<std::string, int> kEncodings = {
        {"pcm16", SF_FORMAT_PCM_16}, {"pcm24", SF_FORMAT_PCM_24}, {"float", SF_FORMAT_FLOAT}};
    const auto container = kContainers.find(get_ending(path));
    if (container == kContainers.end()) {
        settings.refuse("path", "a name that ends in .wav, .flac, .ogg or .oga");
    }
    const std::string encoding =
        settings.get_choice("encoding", "pcm16", {"pcm16", "pcm24", "float"});
    if (container->second == SF_FORMAT_OGG) {
        return SF_FORMAT_OGG | SF_FORMAT_VORBIS;
    }
    if (container->second == SF_FORMAT_FLAC && encoding == "float") {
        settings.refuse("encoding", "one of pcm16 pcm24 in a .flac file");
    }
    return container->second | kEncodings.at(encoding);
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

}  // namespace

SoundFileSink::SoundFileSink(std::string name, const BlockConfiguration& config)
    : Block(std::move(name), config), in_(add_input(*this, "in"))
{
    const Settings settings(get_name(), config);
    path_ = settings.get_path("path");
    format_ = read_format(settings, path_);
    bits_ = get_bits(format_);  // NOLINT(cppcoreguidelines-prefer-member-initializer)
    settings.warn_about_unknown_keys("encoding, path");
}

SoundFileSink::~SoundFileSink()
{
    discard();
}

bool SoundFileSink::run()
{
    const SampleBlock& block = in_.value();
    if (file_ == nullptr) {
        open(block);
    }
    const auto frames = static_cast<sf_count_t>(block.samples.size()) / block.channels;
    if (write(block.samples, frames) != frames) {
        throw std::runtime_error(path_ + ": cannot be written: " + sf_strerror(file_.get()));
    }
    frames_written_ += frames;
    is_complete_ = block.last;
    return !is_complete_;
}

sf_count_t SoundFileSink::write(const std::vector<double>& samples, sf_count_t frames)
{
    if (bits_ == 0) {
        return sf_writef_double(file_.get(), samples.data(), frames);
    }
    quantize(samples);
    return sf_writef_int(file_.get(), quantized_.data(), frames);
}

/// Rounds to whole numbers of so many bits, at the upper end of an int, where libsndfile wants
/// them. Its own conversion scales by another number than that of its reader, so that a recording
/// would not come back as it was.
void SoundFileSink::quantize(const std::vector<double>& samples)
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

void SoundFileSink::open(const SampleBlock& block)
{
    std::error_code ignored;
    if (std::filesystem::exists(path_, ignored) &&
        !std::filesystem::is_regular_file(path_, ignored)) {
        throw std::runtime_error(path_ + ": not a regular file");
    }
    constexpr mode_t kMode = 0666;
    const std::string temporary_path = get_temporary_path(path_);
    descriptor_ = ::open(temporary_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
    if (descriptor_ < 0) {
        fail_with_errno(path_ + ": cannot be written");
    }
    temporary_path_ = temporary_path;

    info_.samplerate = block.rate;
    info_.channels = block.channels;
    info_.format = format_;
    file_.reset(sf_open_fd(descriptor_, SFM_WRITE, &info_, SF_FALSE));
    if (file_ == nullptr) {
        throw std::runtime_error(path_ + ": cannot be written: " + sf_strerror(nullptr));
    }
}

void SoundFileSink::stop()
{
    if (!is_complete_) {
        discard();
        return;
    }
    commit();
    if (samples_clipped_ > 0) {
        Quorval::ilog(LOGLEVEL_WARNING)
            << get_name() << ": " << samples_clipped_ << " samples were too loud and are clipped";
    }
    get_tools().report(get_name(), std::to_string(frames_written_) + " frames written to " + path_);
}

/// Puts the file in its place, whole and on the disk. What fails before that leaves the place as
/// it was.
void SoundFileSink::commit()
{
    file_.reset();  // writes what is left, and the header
    if (::fsync(descriptor_) < 0) {
        fail_with_errno(path_ + ": cannot be written");
    }
    if (::close(std::exchange(descriptor_, -1)) < 0) {
        fail_with_errno(path_ + ": cannot be written");
    }
    if (::rename(temporary_path_.c_str(), path_.c_str()) < 0) {
        fail_with_errno(path_ + ": cannot be replaced");
    }
    temporary_path_.clear();
}

void SoundFileSink::discard() noexcept
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

void SoundFileSink::reconfigure(const BlockConfiguration& /*merged*/,
                                const BlockConfiguration& override)
{
    const Settings settings(get_name(), override);
    settings.refuse_change("path");
    settings.refuse_change("encoding");
}

}  // namespace sound
