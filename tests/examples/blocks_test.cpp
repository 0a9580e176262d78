// The blocks of the sound plug-in, driven by hand.
#include <quorval/pluginloader.h>
#include <quorval/pstore.h>
#include "examples/recording.h"
#include "plugin/samples.h"
#include "support/support.h"
#include "tools.h"

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::InPortInternal;
using Quorval::OutPort;
using Quorval::OutPortInternal;
using quorval_test::expect_throw;
using sound::SampleBlock;
using Reports = std::vector<std::string>;

class SoundBlock : public testing::Test {
protected:
    SoundBlock()
    {
        tools_->report = [this](const std::string& block, const std::string& finding) {
            reports_.push_back(block + ": " + finding);
        };
        tools_->progress = [this](std::int64_t done, std::int64_t total) {
            progress_.emplace_back(done, total);
        };
    }

    /// The block lives as long as the test.
    Block& create(const std::string& type, const BlockConfiguration& config)
    {
        created_.push_back(std::get<0>(loader_.create(type, config, "b")));
        Block& block = *created_.back()->get_blocks().front();
        block.set_tools(tools_);
        return block;
    }

    /// Hands a piece of mono sound to the block and runs it.
    bool feed(Block& block, std::vector<double> samples, bool last = false)
    {
        feed_.write({8000, 1, std::move(samples), last});
        get_input(block).update(feed_);
        const bool result = block.run();
        block.reset_inports(false);
        feed_.reset(false);
        return result;
    }
    static InPortInternal& get_input(const Block& block)
    {
        return *block.get_inport("in").front().second.get_connectable();
    }
    static const SampleBlock& get_output(const Block& block)
    {
        return *static_cast<const SampleBlock*>(block.get_outport("out").second.get_data());
    }
    std::vector<double> filter(Block& block, std::vector<double> samples)
    {
        feed(block, std::move(samples));
        return get_output(block).samples;
    }

    quorval_test::TemporaryDirectory directory_;
    quorval_test::ScopedEnvironment plugins_{"QUORVAL_PLUGIN_DIR", QUORVAL_SOUND_PLUGIN_DIR};
    quorval_test::LogRecorder log_{LOGLEVEL_WARNING};
    const Quorval::InitTools init_tools_{3};
    Quorval::PluginLoader loader_{QUORVAL_SOUND_PLUGIN, init_tools_};
    std::shared_ptr<Quorval::RuntimeTools> tools_ = std::make_shared<Quorval::RuntimeTools>();
    Reports reports_;
    std::vector<std::pair<std::int64_t, std::int64_t>> progress_;
    OutPort<SampleBlock> feed_{"feed", Quorval::Datatype("sample-block")};
    std::vector<Quorval::UniqueDlPtr<Quorval::Container>> created_;
};

TEST_F(SoundBlock, HasPortsOfOneType)
{
    const BlockConfiguration file{{"path", "x.wav"}};
    using Info = std::unordered_map<std::string, Quorval::Datatype>;
    const Info in{{"in", Quorval::Datatype("sample-block")}};
    const Info out{{"out", Quorval::Datatype("sample-block")}};

    EXPECT_TRUE(create("SoundFileSource", file).get_inports_info().empty());
    EXPECT_EQ(create("SoundFileSource", file).get_outports_info(), out);
    EXPECT_EQ(create("SoundFileSource", file).get_fdport_names(), std::vector<std::string>{"next"});
    EXPECT_EQ(create("Gain", {}).get_inports_info(), in);
    EXPECT_EQ(create("Gain", {}).get_outports_info(), out);
    EXPECT_EQ(create("Fir", {}).get_inports_info(), in);
    EXPECT_EQ(create("Fir", {}).get_outports_info(), out);
    EXPECT_EQ(create("LevelMeter", {}).get_inports_info(), in);
    EXPECT_TRUE(create("LevelMeter", {}).get_outports_info().empty());
    EXPECT_EQ(create("SoundFileSink", file).get_inports_info(), in);
}

TEST_F(SoundBlock, ConsumesAllKeysThatItKnows)
{
    const std::vector<std::pair<std::string, BlockConfiguration>> table = {
        {"SoundFileSource", {{"path", "x.wav"}, {"frames", 1}, {"pstore_path", "/x/"}}},
        {"Gain", {{"factor", 1}, {"pstore_path", "/x/"}}},
        {"Fir", {{"taps", {1, 2}}, {"pstore_path", "/x/"}}},
        {"LevelMeter", {{"forget", true}, {"pstore_path", "/x/"}}},
        {"SoundFileSink", {{"path", "x.wav"}, {"encoding", "float"}, {"pstore_path", "/x/"}}},
    };

    for (const auto& [type, config] : table) {
        create(type, config);

        EXPECT_TRUE(config.is_consumed()) << type;
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SoundBlock, WarnsAboutAKeyThatItDoesNotKnow)
{
    const std::vector<std::tuple<std::string, BlockConfiguration, std::string>> table = {
        {"SoundFileSource", {{"path", "x.wav"}, {"pth", 1}}, "frames, path"},
        {"Gain", {{"factr", 1}}, "factor"},
        {"Fir", {{"tap", 1}}, "taps"},
        {"LevelMeter", {{"forgets", true}}, "forget, pstore_path"},
        {"SoundFileSink", {{"path", "x.wav"}, {"format", "float"}}, "encoding, path"},
    };

    for (const auto& [type, config, known] : table) {
        log_.clear();
        create(type, config);

        EXPECT_EQ(log_.texts(),
                  (std::vector<std::string>{
                      "b: the configuration holds an unknown key, known are " + known}))
            << type;
    }
}

TEST_F(SoundBlock, RefusesABadConfiguration)
{
    const std::string number = " is refused, allowed is a number from -1000 to 1000";
    const std::string numbers = " is refused, allowed is a list of 1 to 1024 finite numbers";
    const std::string whole = " is refused, allowed is a whole number from 1 to 65536";
    const std::string name = " is refused, allowed is the name of a file";
    const std::string encoding = " is refused, allowed is one of pcm16 pcm24 float";
    const std::vector<std::tuple<std::string, BlockConfiguration, std::string>> table = {
        {"SoundFileSource", {}, "b: path" + name},
        {"SoundFileSource", {{"path", ""}}, "b: path (string) = " + name},
        {"SoundFileSource", {{"path", 1}}, "b: path (int) = 1" + name},
        {"SoundFileSource", {{"path", "x"}, {"frames", 0}}, "b: frames (int) = 0" + whole},
        {"SoundFileSource", {{"path", "x"}, {"frames", 1.5}}, "b: frames (double) = 1.5" + whole},
        {"Gain", {{"factor", "1"}}, "b: factor (string) = 1" + number},
        {"Gain", {{"factor", true}}, "b: factor (bool) = 1" + number},
        {"Gain", {{"factor", 1001}}, "b: factor (int) = 1001" + number},
        {"Fir", {{"taps", std::vector<double>{}}}, "b: taps (DoubleVector) = {}" + numbers},
        {"Fir", {{"taps", 1.0}}, "b: taps (double) = 1" + numbers},
        {"Fir", {{"taps", {0.5, std::nan("")}}}, "b: taps (DoubleVector) = {0.5, nan}" + numbers},
        {"LevelMeter",
         {{"forget", "no"}},
         "b: forget (string) = no is refused, allowed is true or false"},
        {"SoundFileSink", {}, "b: path" + name},
        {"SoundFileSink",
         {{"path", "x"}},
         "b: path (string) = x is refused, allowed is a name that ends in .wav, .flac, .ogg or "
         ".oga"},
        {"SoundFileSink",
         {{"path", "x.wav"}, {"encoding", 16}},
         "b: encoding (int) = 16" + encoding},
        {"SoundFileSink",
         {{"path", "x.wav"}, {"encoding", "PCM16"}},
         "b: encoding (string) = PCM16" + encoding},
    };

    for (const auto& [type, config, text] : table) {
        SCOPED_TRACE(type);
        expect_throw<std::invalid_argument>(
            [&, &type = type, &config = config] { create(type, config); }, text);
    }
}

TEST_F(SoundBlock, TakesAsManyTapsAsItSays)
{
    EXPECT_NO_THROW(create("Fir", {{"taps", std::vector<double>(1024, 1.0)}}));
    EXPECT_THROW(create("Fir", {{"taps", std::vector<double>(1025, 1.0)}}), std::invalid_argument);
}

TEST_F(SoundBlock, GainChangesBetweenTwoPieces)
{
    Block& gain = create("Gain", {{"factor", 0.5}});

    EXPECT_EQ(filter(gain, {0.5, -1}), (std::vector<double>{0.25, -0.5}));
    gain.override_config({{"factor", 2}});

    EXPECT_EQ(filter(gain, {0.5, -1}), (std::vector<double>{1, -2}));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SoundBlock, GainPassesTheRestOfAPieceOn)
{
    Block& gain = create("Gain", {});

    feed(gain, {0.5}, true);

    EXPECT_TRUE(gain.has_triggered_port());
    EXPECT_EQ(get_output(gain).rate, 8000);
    EXPECT_EQ(get_output(gain).channels, 1);
    EXPECT_TRUE(get_output(gain).last);
    EXPECT_EQ(get_output(gain).samples, std::vector<double>{0.5});
}

TEST_F(SoundBlock, KeepsItsSettingsWhenAChangeIsRefused)
{
    Block& gain = create("Gain", {{"factor", 0.5}});
    Block& fir = create("Fir", {{"taps", {2, 1}}});
    gain.override_config({{"factor", 0.25}});

    EXPECT_THROW(gain.override_config({{"factor", "loud"}}), std::invalid_argument);
    EXPECT_THROW(gain.override_config({{"factor", 1e9}}), std::invalid_argument);
    EXPECT_THROW(fir.override_config({{"taps", std::vector<int>{}}}), std::invalid_argument);

    EXPECT_EQ(filter(gain, {1}), std::vector<double>{0.25});
    EXPECT_EQ(filter(fir, {1, 0}), (std::vector<double>{2, 1}));
}

TEST_F(SoundBlock, FirRemembersThePiecesBefore)
{
    Block& fir = create("Fir", {{"taps", {1.0, 0.5, 0.25}}});

    EXPECT_EQ(filter(fir, {1}), std::vector<double>{1});
    EXPECT_EQ(filter(fir, {}), std::vector<double>{});
    EXPECT_EQ(filter(fir, {0, 0, 0}), (std::vector<double>{0.5, 0.25, 0}));
}

TEST_F(SoundBlock, FirGoesOnWithMoreAndWithFewerTaps)
{
    Block& fir = create("Fir", {{"taps", {1.0, 0.5}}});

    EXPECT_EQ(filter(fir, {1, 2}), (std::vector<double>{1, 2.5}));
    fir.override_config({{"taps", {0, 0, 1}}});
    EXPECT_EQ(filter(fir, {4, 8}), (std::vector<double>{0, 2}));
    fir.override_config({{"taps", {0, 1}}});
    EXPECT_EQ(filter(fir, {16}), std::vector<double>{8});
    fir.override_config({{"taps", {3}}});

    EXPECT_EQ(filter(fir, {1}), std::vector<double>{3});
}

TEST_F(SoundBlock, SourceAsksForItsNextRunUntilTheEnd)
{
    const std::string path = directory_.path() / "in.wav";
    quorval_test::write_recording(path, quorval_test::make_recording(1, 7));
    Block& source = create("SoundFileSource", {{"path", path}});
    Quorval::FdPort& next = *source.get_fdport("next");
    source.start();

    std::vector<std::size_t> sizes;
    bool last = false;
    while (!last) {
        next.trigger(true, false);
        EXPECT_TRUE(source.run());
        EXPECT_FALSE(next.is_triggered());
        source.reset_fdports(false);
        sizes.push_back(get_output(source).samples.size());
        last = get_output(source).last;
    }

    EXPECT_EQ(sizes, (std::vector<std::size_t>{3, 3, 1}));
    using Progress = std::vector<std::pair<std::int64_t, std::int64_t>>;
    EXPECT_EQ(progress_, (Progress{{3, 7}, {6, 7}, {7, 7}}));
}

TEST_F(SoundBlock, SourceReadsPiecesOfTheSizeThatWasSetLast)
{
    const std::string path = directory_.path() / "in.wav";
    const quorval_test::Recording in = quorval_test::make_recording(1, 7);
    quorval_test::write_recording(path, in);
    Block& source = create("SoundFileSource", {{"path", path}, {"frames", 2}});
    source.start();
    source.get_fdport("next")->trigger(true, false);
    source.run();
    EXPECT_EQ(get_output(source).samples.size(), 2U);

    source.override_config({{"frames", 5}});
    source.get_fdport("next")->trigger(true, false);
    source.run();

    EXPECT_EQ(get_output(source).samples,
              std::vector<double>(in.samples.begin() + 2, in.samples.end()));
    EXPECT_TRUE(get_output(source).last);
}

TEST_F(SoundBlock, MeterMeasuresOverAllPieces)
{
    Block& meter = create("LevelMeter", {});
    meter.start();

    feed(meter, {0.1, -0.7});
    feed(meter, {0.5, 0.5});
    meter.stop();

    EXPECT_EQ(reports_, Reports{"b: peak 0.700000 (-3.10 dBFS), RMS 0.500000 (-6.02 dBFS)"});
}

TEST_F(SoundBlock, MeterStoresTheHighestPeak)
{
    const std::string store = directory_.store_path();
    Block& first = create("LevelMeter", {{"pstore_path", store}});
    first.start();
    feed(first, {0.75});
    first.stop();
    EXPECT_TRUE(Quorval::PStore(store).load("level") == BlockConfiguration({{"peak", 0.75}}));
    reports_.clear();

    Block& second = create("LevelMeter", {{"pstore_path", store}});
    second.start();
    feed(second, {0.5});
    second.stop();

    EXPECT_EQ(reports_, (Reports{"b: highest peak of earlier runs 0.750000 (-2.50 dBFS)",
                                 "b: peak 0.500000 (-6.02 dBFS), RMS 0.500000 (-6.02 dBFS)",
                                 "b: highest peak ever 0.750000 (-2.50 dBFS)"}));
}

TEST_F(SoundBlock, MeterStartsAfreshWhenConfiguredToForget)
{
    const std::string store = directory_.store_path();
    Quorval::PStore(store).store("level", {{"peak", 0.75}});
    Block& meter = create("LevelMeter", {{"pstore_path", store}, {"forget", true}});

    meter.start();
    feed(meter, {0.5});
    meter.stop();

    EXPECT_TRUE(Quorval::PStore(store).load("level") == BlockConfiguration({{"peak", 0.5}}));
}

TEST_F(SoundBlock, MeterRefusesAStoreWithoutALevel)
{
    const std::string store = directory_.store_path();
    const std::string head = "cannot read " + store + "level: ";
    Block& meter = create("LevelMeter", {{"pstore_path", store}});

    Quorval::PStore(store).store("level", {{"peak", -0.5}});
    expect_throw<std::runtime_error>([&] { meter.start(); }, head + "no level can be negative");
    Quorval::PStore(store).store("level", {{"peak", std::nan("")}});
    expect_throw<std::runtime_error>([&] { meter.start(); }, head + "no level can be negative");
    Quorval::PStore(store).store("level", {{"peak", "loud"}});
    expect_throw<std::runtime_error>(
        [&] { meter.start(); },
        head + "BlockConfiguration::getDouble failed, the parameter 'peak' is type: string");
    Quorval::PStore(store).store("level", {});

    expect_throw<std::runtime_error>(
        [&] { meter.start(); },
        head + "BlockConfiguration::getDouble failed, the parameter 'peak' does not exist");
}

TEST_F(SoundBlock, SinkShowsTheFileWhenItIsComplete)
{
    const std::string path = directory_.path() / "out.wav";
    Block& sink = create("SoundFileSink", {{"path", path}});
    sink.start();

    EXPECT_TRUE(feed(sink, {0.5, 0.25}));
    EXPECT_FALSE(feed(sink, {0.125}, true));
    EXPECT_FALSE(std::filesystem::exists(path));
    sink.stop();

    EXPECT_EQ(quorval_test::read_recording(path).samples, (std::vector<double>{0.5, 0.25, 0.125}));
    EXPECT_EQ(reports_, Reports{"b: 3 frames written to " + path});
}

TEST_F(SoundBlock, SinkDropsWhatIsNotComplete)
{
    const std::string path = directory_.path() / "out.wav";
    Block& sink = create("SoundFileSink", {{"path", path}});
    feed(sink, {0.5, 0.25});
    EXPECT_FALSE(std::filesystem::is_empty(directory_.path()));

    sink.stop();

    EXPECT_TRUE(std::filesystem::is_empty(directory_.path()));
    EXPECT_TRUE(reports_.empty());
}

TEST_F(SoundBlock, SinkTakesAnUnfinishedFileWithIt)
{
    Block& sink = create("SoundFileSink", {{"path", (directory_.path() / "out.ogg").string()}});
    feed(sink, {0.5, 0.25}, true);
    EXPECT_FALSE(std::filesystem::is_empty(directory_.path()));

    created_.clear();

    EXPECT_TRUE(std::filesystem::is_empty(directory_.path()));
}

TEST_F(SoundBlock, SinkLeavesTheOldFileWhenItCannotReplaceIt)
{
    const std::string path = directory_.path() / "out.wav";
    Block& sink = create("SoundFileSink", {{"path", path}});
    feed(sink, {0.5}, true);
    std::filesystem::create_directory(path);

    expect_throw<std::system_error>([&] { sink.stop(); },
                                    path + ": cannot be replaced: Is a directory");
    created_.clear();

    EXPECT_TRUE(std::filesystem::is_directory(path));
    EXPECT_TRUE(std::filesystem::is_empty(path));
}

}  // namespace
