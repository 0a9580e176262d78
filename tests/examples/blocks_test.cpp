// The blocks of the sound plug-in, each in a harness.
#include <quorval/pstore.h>
#include <quorval/runtime/testing.h>
#include <quorval/state.h>
#include "examples/recording.h"
#include "plugin/samples.h"
#include "support/support.h"

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using Quorval::Harness;
using quorval_test::expect_throw;
using sound::SampleBlock;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

/// A block of the plug-in, started.
class SoundBlock : public Harness {
public:
    explicit SoundBlock(const std::string& type, const BlockConfiguration& config = {})
        : Harness(QUORVAL_SOUND_PLUGIN, type, config)
    {
        start();
    }

    /// Hands a piece of mono sound to the block and runs it.
    void feed_samples(std::vector<double> samples, bool last = false)
    {
        feed("in", SampleBlock{8000, 1, std::move(samples), last});
        EXPECT_TRUE(step());
    }

    /// What the block makes of a piece.
    std::vector<double> filter(std::vector<double> samples)
    {
        feed_samples(std::move(samples));
        EXPECT_TRUE(is_triggered("out"));
        return output<SampleBlock>("out").samples;
    }
};

TEST(SoundPlugin, RefusesABadConfiguration)
{
    const std::vector<std::tuple<std::string, BlockConfiguration, std::string>> table = {
        {"SoundFileSource", {}, "'path' is missing"},
        {"SoundFileSource",
         {{"path", "x"}, {"frames", 0}},
         "'frames' has to be from 1 to 65536, not 0"},
        {"Gain", {{"factor", 1001}}, "'factor' has to be from -1000 to 1000, not 1001"},
        {"Fir", {{"taps", std::vector<double>{}}}, "'taps' has to be of 1 to 1024 items, not 0"},
        {"Fir",
         {{"taps", {0.5, std::nan("")}}},
         "'taps' has to be a finite number, not nan (item 1)"},
        {"SoundFileSink", {}, "'path' is missing"},
        {"SoundFileSink",
         {{"path", "x.mp3"}},
         "'path' has to end in .wav, .flac, .ogg or .oga, not 'x.mp3'"},
        {"SoundFileSink",
         {{"path", "x.wav"}, {"encoding", "PCM16"}},
         "'encoding' has to be one of pcm16, pcm24, float, not 'PCM16'"},
        {"SoundFileSink",
         {{"path", "x.flac"}, {"encoding", "float"}},
         "'encoding' cannot be float in a .flac file"},
    };

    for (const auto& [type, config, text] : table) {
        SCOPED_TRACE(type);
        expect_throw<std::invalid_argument>(
            [&, &type = type, &config = config] { Harness(QUORVAL_SOUND_PLUGIN, type, config); },
            text);
    }
}

TEST(SoundPlugin, TakesAsManyTapsAsItSays)
{
    EXPECT_NO_THROW(SoundBlock("Fir", {{"taps", std::vector<double>(1024, 1.0)}}));
    EXPECT_THROW(SoundBlock("Fir", {{"taps", std::vector<double>(1025, 1.0)}}),
                 std::invalid_argument);
}

TEST(SoundGain, ChangesBetweenTwoPieces)
{
    SoundBlock gain("Gain", {{"factor", 0.5}});

    EXPECT_EQ(gain.filter({0.5, -1}), (std::vector<double>{0.25, -0.5}));
    gain.reconfigure({{"factor", 2}});

    EXPECT_EQ(gain.filter({0.5, -1}), (std::vector<double>{1, -2}));
    EXPECT_TRUE(gain.messages().empty());
}

TEST(SoundGain, PassesTheRestOfAPieceOn)
{
    SoundBlock gain("Gain");

    gain.feed_samples({0.5}, true);

    const auto& out = gain.output<SampleBlock>("out");
    EXPECT_EQ(out.rate, 8000);
    EXPECT_EQ(out.channels, 1);
    EXPECT_TRUE(out.last);
    EXPECT_EQ(out.samples, std::vector<double>{0.5});
}

TEST(SoundGain, KeepsItsFactorWhenAChangeIsRefused)
{
    SoundBlock gain("Gain", {{"factor", 0.5}});
    gain.reconfigure({{"factor", 0.25}});

    EXPECT_THROW(gain.reconfigure({{"factor", "loud"}}), std::invalid_argument);
    EXPECT_THROW(gain.reconfigure({{"factor", 1e9}}), std::invalid_argument);

    EXPECT_EQ(gain.filter({1}), std::vector<double>{0.25});
}

TEST(SoundFir, RemembersThePiecesBefore)
{
    SoundBlock fir("Fir", {{"taps", {1.0, 0.5, 0.25}}});

    EXPECT_EQ(fir.filter({1}), std::vector<double>{1});
    EXPECT_EQ(fir.filter({}), std::vector<double>{});
    EXPECT_EQ(fir.filter({0, 0, 0}), (std::vector<double>{0.5, 0.25, 0}));
}

TEST(SoundFir, GoesOnWithMoreAndWithFewerTaps)
{
    SoundBlock fir("Fir", {{"taps", {1.0, 0.5}}});

    EXPECT_EQ(fir.filter({1, 2}), (std::vector<double>{1, 2.5}));
    fir.reconfigure({{"taps", {0, 0, 1}}});
    EXPECT_EQ(fir.filter({4, 8}), (std::vector<double>{0, 2}));
    fir.reconfigure({{"taps", {0, 1}}});
    EXPECT_EQ(fir.filter({16}), std::vector<double>{8});
    EXPECT_THROW(fir.reconfigure({{"taps", std::vector<int>{}}}), std::invalid_argument);
    fir.reconfigure({{"taps", {3}}});

    EXPECT_EQ(fir.filter({1}), std::vector<double>{3});
}

/// A directory for the files of a test.
class SoundFiles : public testing::Test {
protected:
    std::string file(const std::string& name) const { return (directory_.path() / name).string(); }
    bool is_empty() const { return std::filesystem::is_empty(directory_.path()); }

    quorval_test::TemporaryDirectory directory_;
};

TEST_F(SoundFiles, SourceAsksForItsNextRunUntilTheEnd)
{
    quorval_test::write_recording(file("in.wav"), quorval_test::make_recording(1, 7));
    SoundBlock source("SoundFileSource", {{"path", file("in.wav")}, {"frames", 3}});

    std::vector<std::size_t> sizes;
    std::vector<std::uint64_t> progress;
    while (source.step()) {
        sizes.push_back(source.output<SampleBlock>("out").samples.size());
        progress.push_back(source.progress().first);
    }

    EXPECT_EQ(sizes, (std::vector<std::size_t>{3, 3, 1}));
    EXPECT_EQ(progress, (std::vector<std::uint64_t>{3, 6, 7}));
    EXPECT_EQ(source.progress().second, 7U);
    EXPECT_TRUE(source.output<SampleBlock>("out").last);
    EXPECT_TRUE(source.is_done());
    EXPECT_EQ(source.messages(),
              std::vector<std::string>{file("in.wav") + " has 1 channels, 8000 frames per second"});
}

TEST_F(SoundFiles, SourceReadsPiecesOfTheSizeThatWasSetLast)
{
    const quorval_test::Recording in = quorval_test::make_recording(1, 7);
    quorval_test::write_recording(file("in.wav"), in);
    SoundBlock source("SoundFileSource", {{"path", file("in.wav")}, {"frames", 2}});
    source.step();
    EXPECT_EQ(source.output<SampleBlock>("out").samples.size(), 2U);

    source.reconfigure({{"frames", 5}});
    source.step();

    EXPECT_EQ(source.output<SampleBlock>("out").samples,
              std::vector<double>(in.samples.begin() + 2, in.samples.end()));
    EXPECT_TRUE(source.is_done());
    expect_throw<std::invalid_argument>(
        [&] {
            source.reconfigure({{"path", "other.wav"}});
        },
        "'path' cannot be changed while the graph runs");
}

TEST_F(SoundFiles, SourceNamesWhatIsWrongWithItsFile)
{
    std::filesystem::create_directory(file("directory"));
    quorval_test::write_file(file("text"), "This is no sound.\n");
    const std::vector<std::pair<std::string, std::string>> table = {
        {file("missing"), "No such file or directory"},
        {file("directory"), "not a regular file"},
        {file("text"), "cannot be read as a sound file: Format not recognised"},
    };

    for (const auto& [path, text] : table) {
        expect_throw<std::runtime_error>(
            [&path = path] {
                SoundBlock("SoundFileSource", {{"path", path}});
            },
            path + ": " + text);
    }
}

TEST_F(SoundFiles, SinkShowsTheFileWhenItIsComplete)
{
    SoundBlock sink("SoundFileSink", {{"path", file("out.wav")}});

    sink.feed_samples({0.5, 0.25});
    sink.feed_samples({0.125}, true);
    EXPECT_FALSE(std::filesystem::exists(file("out.wav")));
    sink.stop();

    EXPECT_EQ(quorval_test::read_recording(file("out.wav")).samples,
              (std::vector<double>{0.5, 0.25, 0.125}));
    EXPECT_EQ(sink.messages(),
              (std::vector<std::string>{"the recording has come to its end",
                                        "3 frames written to " + file("out.wav")}));
}

TEST_F(SoundFiles, SinkCutsWhatIsTooLoudAndSaysSo)
{
    SoundBlock sink("SoundFileSink", {{"path", file("out.wav")}});

    sink.feed_samples({1.5, -1.5, 0.5}, true);
    sink.stop();

    EXPECT_EQ(quorval_test::read_recording(file("out.wav")).samples,
              (std::vector<double>{32767.0 / 32768.0, -1, 0.5}));
    EXPECT_EQ(sink.messages().at(1), "2 samples were too loud and are clipped");
}

TEST_F(SoundFiles, SinkReplacesWhatASymbolicLinkLeadsTo)
{
    quorval_test::write_file(file("target.wav"), "old");
    std::filesystem::create_symlink("target.wav", file("link.wav"));
    SoundBlock sink("SoundFileSink", {{"path", file("link.wav")}});

    sink.feed_samples({0.5}, true);
    sink.stop();

    EXPECT_TRUE(std::filesystem::is_symlink(file("link.wav")));
    EXPECT_EQ(quorval_test::read_recording(file("target.wav")).samples, std::vector<double>{0.5});
}

TEST_F(SoundFiles, SinkDropsWhatIsNotComplete)
{
    SoundBlock sink("SoundFileSink", {{"path", file("out.wav")}});
    sink.feed_samples({0.5, 0.25});
    EXPECT_FALSE(is_empty());

    sink.stop();

    EXPECT_TRUE(is_empty());
    EXPECT_EQ(sink.messages(), std::vector<std::string>{"the recording did not come to its end: " +
                                                        file("out.wav") + " is not written"});
}

TEST_F(SoundFiles, SinkTakesAnUnfinishedFileWithIt)
{
    {
        SoundBlock sink("SoundFileSink", {{"path", file("out.ogg")}});
        sink.feed_samples({0.5, 0.25}, true);
        EXPECT_FALSE(is_empty());
    }
    EXPECT_TRUE(is_empty());
}

TEST_F(SoundFiles, SinkLeavesTheOldFileWhenItCannotReplaceIt)
{
    {
        SoundBlock sink("SoundFileSink", {{"path", file("out.wav")}});
        sink.feed_samples({0.5}, true);
        std::filesystem::create_directory(file("out.wav"));

        expect_throw<std::system_error>([&] { sink.stop(); },
                                        file("out.wav") + ": cannot be replaced: Is a directory");
    }
    EXPECT_TRUE(std::filesystem::is_empty(file("out.wav")));
}

TEST(SoundLevelMeter, MeasuresOverAllPieces)
{
    SoundBlock meter("LevelMeter");
    CaptureStdout();

    meter.feed_samples({0.1, -0.7});
    meter.feed_samples({0.5, 0.5});
    meter.stop();

    EXPECT_EQ(GetCapturedStdout(),
              "LevelMeter: peak 0.700000 (-3.10 dBFS), RMS 0.500000 (-6.02 dBFS)\n"
              "LevelMeter: highest peak ever 0.700000 (-3.10 dBFS)\n");
}

TEST(SoundLevelMeter, ReportsSilenceAsNoLevelAtAll)
{
    SoundBlock meter("LevelMeter");
    CaptureStdout();

    meter.stop();

    EXPECT_EQ(GetCapturedStdout(),
              "LevelMeter: peak 0.000000 (-inf dBFS), RMS 0.000000 (-inf dBFS)\n"
              "LevelMeter: highest peak ever 0.000000 (-inf dBFS)\n");
}

/// A meter that has seen a peak of 0.75 in an earlier run.
class RememberingMeter : public testing::Test {
protected:
    explicit RememberingMeter(const BlockConfiguration& config = {}) : meter_("LevelMeter", config)
    {
        CaptureStdout();
        meter_.feed_samples({0.75});
        meter_.restart();
        GetCapturedStdout();
        CaptureStdout();
    }
    ~RememberingMeter() override { GetCapturedStdout(); }

    Quorval::PStore& store() { return meter_.block().pstore(); }

    SoundBlock meter_;
};

TEST_F(RememberingMeter, ReportsTheHighestPeakOfAllRuns)
{
    meter_.start();
    meter_.feed_samples({0.5});
    meter_.stop();

    EXPECT_EQ(GetCapturedStdout(),
              "LevelMeter: highest peak of earlier runs 0.750000 (-2.50 dBFS)\n"
              "LevelMeter: peak 0.500000 (-6.02 dBFS), RMS 0.500000 (-6.02 dBFS)\n"
              "LevelMeter: highest peak ever 0.750000 (-2.50 dBFS)\n");
    CaptureStdout();
}

TEST_F(RememberingMeter, ForgetsWhenItIsTold)
{
    meter_.start();
    meter_.reconfigure({{"forget", true}});
    meter_.feed_samples({0.5});
    meter_.stop();

    EXPECT_EQ(Quorval::load_state(store(), "level"), (BlockConfiguration{{"peak", 0.5}}));
}

TEST_F(RememberingMeter, RefusesAStoreWithoutALevel)
{
    const std::string getter = "BlockConfiguration::getDouble failed, the parameter 'peak' ";
    const std::vector<std::pair<BlockConfiguration, std::string>> table = {
        {{{"peak", -0.5}}, "no level can be negative"},
        {{{"peak", std::nan("")}}, "no level can be negative"},
        {{{"peak", "loud"}}, getter + "is type: string"},
        {{}, "the state " + store().get_path() + "level is damaged: it holds nothing"},
    };

    for (const auto& [content, text] : table) {
        store().store("level", content);
        expect_throw<std::runtime_error>([this] { meter_.start(); }, text);
    }
    store().store("level", {{"other", 0.5}});
    expect_throw<std::out_of_range>([this] { meter_.start(); }, getter + "does not exist");
}

/// A meter that drops what it remembered as soon as it starts.
class ForgettingMeter : public RememberingMeter {
protected:
    ForgettingMeter() : RememberingMeter({{"forget", true}}) {}
};

TEST_F(ForgettingMeter, StartsAfresh)
{
    meter_.start();
    meter_.feed_samples({0.5});
    meter_.stop();

    EXPECT_EQ(Quorval::load_state(store(), "level"), (BlockConfiguration{{"peak", 0.5}}));
}

}  // namespace
