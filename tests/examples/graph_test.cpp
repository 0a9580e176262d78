// The graph of the sound example, run as its users run it.
#include "examples/recording.h"
#include "runtime/link/broker.h"
#include "support/process.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

using quorval_test::get_format;
using quorval_test::make_recording;
using quorval_test::Process;
using quorval_test::ProcessOptions;
using quorval_test::ProcessResult;
using quorval_test::read_file;
using quorval_test::read_recording;
using quorval_test::Recording;
using quorval_test::write_file;
using quorval_test::write_recording;
using Arguments = std::vector<std::string>;

constexpr int kFloatWav = SF_FORMAT_WAV | SF_FORMAT_FLOAT;

/// `quorval` in a working directory of its own, with the graph files of the example in it.
class SoundGraph : public testing::Test {
protected:
    SoundGraph()
    {
        for (const char* name : {"loudness.toml", "mistakes.toml", "two-machines.toml"}) {
            fs::copy_file(fs::path(QUORVAL_SOUND_DIR) / name, file(name));
        }
    }

    fs::path file(const std::string& name) const { return work_.path() / name; }

    ProcessOptions command(const Arguments& arguments) const
    {
        ProcessOptions options;
        std::istringstream emulator(QUORVAL_EMULATOR);
        for (std::string word; std::getline(emulator, word, ';');) {
            options.command.push_back(word);
        }
        options.command.emplace_back(QUORVAL_COMMAND);
        options.command.insert(options.command.end(), arguments.begin(), arguments.end());
        options.directory = work_.path().string();
        options.environment = {
            {"QUORVAL_PLUGIN_PATH", QUORVAL_SOUND_PLUGIN_DIR ":" QUORVAL_BASIC_PLUGIN_DIR},
            {"QUORVAL_PLUGIN_DIR", std::nullopt},
            {"STATE_DIRECTORY", std::nullopt},
            {"JOURNAL_STREAM", std::nullopt},
        };
        return options;
    }

    /// `quorval run` on the graph, with changes of its settings and other arguments.
    ProcessOptions run_command(const Arguments& settings, Arguments arguments = {}) const
    {
        arguments.insert(arguments.begin(), "run");
        for (const std::string& setting : settings) {
            arguments.insert(arguments.end(), {"--set", setting});
        }
        arguments.emplace_back("loudness.toml");
        return command(arguments);
    }
    ProcessResult run(const Arguments& settings, const Arguments& arguments = {}) const
    {
        return quorval_test::run_process(run_command(settings, arguments));
    }

    /// The names in the working directory, hidden ones too, without the graph files.
    std::vector<std::string> list() const
    {
        std::vector<std::string> names;
        for (const fs::directory_entry& entry : fs::directory_iterator(work_.path())) {
            if (entry.path().extension() != ".toml") {
                names.push_back(entry.path().filename());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    /// A run that fails and leaves the directory as it was.
    void expect_failure(const Arguments& settings, const std::string& text) const
    {
        const std::vector<std::string> before = list();

        const ProcessResult result = run(settings, {"-q"});

        EXPECT_EQ(result.status, 1) << text;
        EXPECT_EQ(result.err, "quorval: error: " + text + "\n");
        EXPECT_EQ(list(), before) << text;
    }

    static void expect_success(const ProcessResult& result)
    {
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
    }

    static void expect_equal(const Recording& actual, const Recording& expected, double tolerance)
    {
        ASSERT_EQ(actual.rate, expected.rate);
        ASSERT_EQ(actual.channels, expected.channels);
        ASSERT_EQ(actual.samples.size(), expected.samples.size());
        for (std::size_t i = 0; i < expected.samples.size(); ++i) {
            ASSERT_NEAR(actual.samples[i], expected.samples[i], tolerance) << "sample " << i;
        }
    }

    quorval_test::TemporaryDirectory work_;
};

// What it makes of a recording.

TEST_F(SoundGraph, CalculatesTheSamplesOfBothStages)
{
    // One unit in the last place of the stored float numbers.
    constexpr double kTolerance = 6e-8;
    for (const auto& [channels, frames] :
         std::vector<std::pair<int, std::string>>{{1, "1"}, {2, "7"}, {5, "1000"}, {2, "65536"}}) {
        SCOPED_TRACE(frames + " frames");
        const Recording in = make_recording(channels, 1000);
        write_recording(file("in.wav"), in, kFloatWav);

        expect_success(run({"source.frames=" + frames, "quieter/gain.factor=-0.375",
                            "quieter/fir.taps=[0.5, -0.25]", "smoother/gain.factor=2",
                            "sink.path=out.wav", "sink.encoding=float"}));

        const Recording between = quorval_test::filter(in, -0.375, {0.5, -0.25});
        expect_equal(read_recording(file("out.wav")),
                     quorval_test::filter(between, 2, {0.25, 0.5, 0.25}), kTolerance);
    }
}

TEST_F(SoundGraph, ComputesTheSameFromWhatWasRecordedOfIt)
{
    write_recording(file("in.wav"), make_recording(2, 5000), kFloatWav);
    expect_success(run({"sink.path=live.wav"}, {"--record", "r"}));
    fs::remove(file("in.wav"));

    expect_success(quorval_test::run_process(
        command({"replay", "--fast", "r", "loudness.toml", "--set", "sink.path=replayed.wav"})));

    EXPECT_EQ(read_file(file("replayed.wav")), read_file(file("live.wav")));
}

TEST_F(SoundGraph, BringsEverySampleBackThroughLosslessFormats)
{
    struct Variant {
        std::string name;
        std::string encoding;
        int bits;
        int format;
    };
    const std::vector<Variant> table = {
        {"out.wav", "pcm16", 16, SF_FORMAT_WAV | SF_FORMAT_PCM_16},
        {"out.wav", "pcm24", 24, SF_FORMAT_WAV | SF_FORMAT_PCM_24},
        {"out.wav", "float", 24, SF_FORMAT_WAV | SF_FORMAT_FLOAT},
        {"out.flac", "pcm16", 16, SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
        {"OUT.FLAC", "pcm24", 24, SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
    };

    for (const Variant& variant : table) {
        SCOPED_TRACE(variant.name + " " + variant.encoding);
        const Recording in = make_recording(2, 10000, variant.bits);
        write_recording(file("in"), in, variant.format);

        expect_success(run({"source.path=in", "quieter/gain.factor=1", "smoother/fir.taps=[1]",
                            "sink.path=" + variant.name, "sink.encoding=" + variant.encoding}));

        expect_equal(read_recording(file(variant.name)), in, 0);
        EXPECT_EQ(get_format(file(variant.name)), variant.format);
    }
}

TEST_F(SoundGraph, KeepsTheSoundThroughOggVorbis)
{
    constexpr double kTolerance = 0.35;  // the noise suffers, the tone must not
    const Recording in = make_recording(1, 70000);
    write_recording(file("in.wav"), in);
    const Arguments unchanged = {"quieter/gain.factor=1", "smoother/fir.taps=[1]"};
    const auto convert = [&](const std::string& from, const std::string& to) {
        Arguments settings = unchanged;
        settings.insert(settings.end(), {"source.path=" + from, "sink.path=" + to});
        expect_success(run(settings));
    };

    convert("in.wav", "out.oga");
    convert("out.oga", "back.wav");

    EXPECT_EQ(get_format(file("out.oga")), SF_FORMAT_OGG | SF_FORMAT_VORBIS);
    expect_equal(read_recording(file("back.wav")), in, kTolerance);
}

TEST_F(SoundGraph, WritesAnEmptyRecordingForAnEmptyOne)
{
    write_recording(file("in.wav"), make_recording(2, 0));

    expect_success(run({}));

    EXPECT_EQ(list(), (std::vector<std::string>{"in.wav", "out.flac"}));
}

TEST_F(SoundGraph, PrintsTheLevelsBehindEachStage)
{
    write_recording(file("in.wav"), {8000, 1, {0.5, -0.5, 0.5, -0.5}});

    const ProcessResult result = run({"smoother/fir.taps=[0.5]"});

    expect_success(result);
    EXPECT_EQ(result.out,
              "quieter/meter: peak 0.250000 (-12.04 dBFS), RMS 0.250000 (-12.04 dBFS)\n"
              "smoother/meter: peak 0.125000 (-18.06 dBFS), RMS 0.125000 (-18.06 dBFS)\n");
}

TEST_F(SoundGraph, TellsWhatItReadsAndWritesWhenAsked)
{
    write_recording(file("in.wav"), {8000, 1, {0.5}});

    const ProcessResult result = run({}, {"-v"});

    EXPECT_NE(result.err.find("quorval: source: in.wav has 1 channels, 8000 frames per second\n"),
              std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("quorval: sink: 1 frames written to out.flac\n"), std::string::npos)
        << result.err;
}

TEST_F(SoundGraph, CutsWhatIsTooLoudAndSaysSo)
{
    write_recording(file("in.wav"), {8000, 1, {0.5, -0.5, 0.75, -0.75, 0.25}});

    const ProcessResult result =
        run({"quieter/gain.factor=2", "smoother/fir.taps=[1]", "sink.path=out.wav"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "quorval: warning: sink: 2 samples were too loud and are clipped\n");
    const double most = 32767.0 / 32768.0;
    EXPECT_EQ(read_recording(file("out.wav")).samples,
              (std::vector<double>{most, -1, most, -1, 0.5}));
}

// What it leaves behind.

TEST_F(SoundGraph, ReplacesAnOldOutput)
{
    write_recording(file("in.wav"), make_recording(1, 100));
    write_file(file("out.flac"), "old");

    expect_success(run({}));

    EXPECT_EQ(read_recording(file("out.flac")).samples.size(), 100U);
    EXPECT_EQ(list(), (std::vector<std::string>{"in.wav", "out.flac"}));
}

TEST_F(SoundGraph, FailsOnAnInputThatCannotBeRead)
{
    fs::create_directory(file("directory"));
    write_file(file("text"), "This is no sound.\n");
    write_file(file("out.flac"), "old");
    const std::string head = "block 'source' failed in start: ";

    expect_failure({"source.path=missing"}, head + "missing: No such file or directory");
    expect_failure({"source.path=directory"}, head + "directory: not a regular file");
    expect_failure({"source.path=text"},
                   head + "text: cannot be read as a sound file: Format not recognised");
    EXPECT_EQ(read_file(file("out.flac")), "old");
}

TEST_F(SoundGraph, FailsOnADamagedInput)
{
    const std::vector<std::pair<std::string, int>> formats = {
        {"cut.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16},
        {"cut.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
        {"cut.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
    };
    write_file(file("out.flac"), "old");
    for (const auto& [name, format] : formats) {
        write_recording(file(name), make_recording(2, 20000), format);
        fs::resize_file(file(name), fs::file_size(file(name)) / 2);

        const ProcessResult result = run({"source.path=" + name}, {"-q"});

        EXPECT_EQ(result.status, 1) << name;
        EXPECT_NE(result.err.find(": " + name + ": damaged"), std::string::npos) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(read_file(file("out.flac")), "old") << name;
    }
    EXPECT_EQ(list(), (std::vector<std::string>{"cut.flac", "cut.ogg", "cut.wav", "out.flac"}));
}

TEST_F(SoundGraph, FailsOnSamplesThatAreNoNumbers)
{
    const double infinity = std::numeric_limits<double>::infinity();
    for (const double sample : {std::nan(""), infinity, -infinity}) {
        write_recording(file("in.wav"), {8000, 1, {0, sample, 0}}, kFloatWav);

        expect_failure({},
                       "block 'source' failed in run: in.wav: damaged, it holds samples that "
                       "are no numbers");
    }
}

TEST_F(SoundGraph, FailsOnAnOutputThatCannotBeWritten)
{
    write_recording(file("in.wav"), make_recording(1, 20000));
    fs::create_directory(file("directory.wav"));
    const std::string head = "block 'sink' failed in run: ";

    expect_failure({"sink.path=missing/out.wav"},
                   head + "missing/out.wav: cannot be written: No such file or directory");
    expect_failure({"sink.path=directory.wav"}, head + "directory.wav: not a regular file");
}

/// A recording of silence that lasts for days, in a file that takes no room.
void write_long_recording(const fs::path& path)
{
    constexpr std::uint32_t kDataSize = 2'000'000'000;
    const auto number = [](std::uint32_t value) {
        std::string bytes;
        for (int shift = 0; shift < 32; shift += 8) {
            bytes += static_cast<char>(value >> shift & 0xFF);
        }
        return bytes;
    };
    using namespace std::string_literals;
    const std::string header = "RIFF"s + number(kDataSize + 36) + "WAVEfmt "s + number(16) +
                               "\1\0\1\0"s + number(8000) + number(16000) + "\2\0\20\0"s + "data"s +
                               number(kDataSize);
    write_file(path, header);
    fs::resize_file(path, header.size() + kDataSize);
}

TEST_F(SoundGraph, WritesNothingWhenASignalCutsTheRecordingOff)
{
    write_long_recording(file("in.wav"));
    write_file(file("out.flac"), "old");

    Process process(run_command({"source.frames=1"}, {"-v"}));
    ASSERT_TRUE(process.wait_for("frames per second"));
    process.send(SIGTERM);
    const ProcessResult result = process.wait();

    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.err.find("quorval: warning: sink: the recording did not come to its end: "
                              "out.flac is not written\n"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(read_file(file("out.flac")), "old");
    EXPECT_EQ(list(), (std::vector<std::string>{"in.wav", "out.flac"}));
}

/// Keeps the graph from coming to its end.
constexpr const char* kEndless = R"(format = 1
[blocks.timer]
type = "basic:Timer"
config.period = 1000000.0
)";

TEST_F(SoundGraph, TakesLiveChangesFromItsFileAndRefusesBadOnes)
{
    write_recording(file("in.wav"), make_recording(1, 100));
    write_file(file("endless.toml"), kEndless);
    const std::string graph = read_file(file("loudness.toml"));
    const auto change = [&](const std::string& factor) {
        std::string changed = graph;
        changed.replace(changed.find("factor = 0.5"), 12, "factor = " + factor);
        write_file(file("loudness.toml"), changed);
    };

    Process process(run_command({}, {"-v", "endless.toml"}));
    ASSERT_TRUE(process.wait_for("frames per second"));
    change("0.25");
    process.send(SIGHUP);
    ASSERT_TRUE(process.wait_for("the changed files are applied\n"));
    change("1001.0");
    process.send(SIGHUP);
    ASSERT_TRUE(process.wait_for("'factor' has to be from -1000 to 1000, not 1001"));
    process.send(SIGTERM);
    const ProcessResult result = process.wait();

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(read_recording(file("out.flac")).samples.size(), 100U);
}

// What it remembers.

TEST_F(SoundGraph, RemembersTheHighestPeakAcrossRuns)
{
    const Arguments state = {"--state", "state"};
    write_recording(file("in.wav"), {8000, 1, {0.5, -0.5}});
    expect_success(run({"smoother/fir.taps=[1]"}, state));

    const ProcessResult second = run({"quieter/gain.factor=0.25", "smoother/fir.taps=[1]"}, state);

    expect_success(second);
    EXPECT_EQ(second.out,
              "smoother/meter: highest peak of earlier runs 0.250000 (-12.04 dBFS)\n"
              "quieter/meter: highest peak of earlier runs 0.250000 (-12.04 dBFS)\n"
              "quieter/meter: peak 0.125000 (-18.06 dBFS), RMS 0.125000 (-18.06 dBFS)\n"
              "quieter/meter: highest peak ever 0.250000 (-12.04 dBFS)\n"
              "smoother/meter: peak 0.125000 (-18.06 dBFS), RMS 0.125000 (-18.06 dBFS)\n"
              "smoother/meter: highest peak ever 0.250000 (-12.04 dBFS)\n");
}

TEST_F(SoundGraph, FailsOnADamagedStore)
{
    write_recording(file("in.wav"), make_recording(1, 100));
    fs::create_directories(file("state/quieter.meter"));
    write_file(file("state/quieter.meter/level"), "This is no store file.");

    const ProcessResult result = run({}, {"-q", "--state", "state"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err.find("quorval: error: block 'quieter/meter' failed in start: the state " +
                              file("state/quieter.meter/level").string() + " is damaged: "),
              0U)
        << result.err;
    EXPECT_FALSE(fs::exists(file("out.flac")));
}

TEST_F(SoundGraph, FailsWhenItsLevelsCannotBePrinted)
{
    write_recording(file("in.wav"), make_recording(1, 100));
    ProcessOptions options = run_command({}, {"-q"});
    options.out_file = "/dev/full";

    const ProcessResult result = quorval_test::run_process(options);

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "quorval: error: block 'quieter/meter' failed in stop: cannot write to standard "
              "output\n"
              "quorval: error: block 'smoother/meter' failed in stop: cannot write to standard "
              "output\n"
              "quorval: error: cannot write to standard output: Input/output error\n");
}

// What the command says of the files.

TEST_F(SoundGraph, HasNoMistake)
{
    const ProcessResult result =
        quorval_test::run_process(command({"check", "--strict", "loudness.toml"}));

    expect_success(result);
    EXPECT_EQ(result.out, "8 blocks, 7 connections: no problem found\n");
}

TEST_F(SoundGraph, HasNoMistakeOnTwoMachines)
{
    for (const auto& [machine, found] :
         {std::pair("studio", "2 blocks, 1 connections: no problem found\n"),
          std::pair("archive", "2 blocks, 0 connections: no problem found\n")}) {
        const ProcessResult result = quorval_test::run_process(
            command({"check", "--strict", "--machine", machine, "two-machines.toml"}));

        expect_success(result);
        EXPECT_EQ(result.out, found);
    }
}

TEST_F(SoundGraph, MakesTheSameOnTwoMachines)
{
    write_recording(file("in.wav"), make_recording(2, 100'000));
    quorval_test::Broker broker(work_.path());
    write_file(file("broker.toml"), "format = 1\n" + broker.link());
    const auto run_machine = [&](Arguments arguments) {
        arguments.insert(arguments.begin(), {"run", "-v"});
        arguments.insert(arguments.end(), {"two-machines.toml", "broker.toml"});
        return command(arguments);
    };

    Process archive(run_machine({"--machine", "archive"}));
    ASSERT_TRUE(archive.wait_for(" stands\n"));
    const ProcessResult studio = quorval_test::run_process(run_machine({"--machine", "studio"}));
    ASSERT_TRUE(archive.wait_for(" has come to its end\n"));
    archive.send(SIGTERM);
    const ProcessResult result = archive.wait();
    const ProcessResult local =
        quorval_test::run_process(run_machine({"--local", "--set", "sink.path=local.flac"}));

    EXPECT_EQ(studio.status, 0) << studio.err;
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(local.status, 0) << local.err;
    EXPECT_EQ(result.out, local.out);
    EXPECT_NE(result.out, "");
    EXPECT_EQ(read_file(file("out.flac")), read_file(file("local.flac")));
}

TEST_F(SoundGraph, FindsTheThreeMistakes)
{
    const ProcessResult result = quorval_test::run_process(command({"check", "mistakes.toml"}));

    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "mistakes.toml:5:5: error: block 'gain' has no output 'output'; it has out\n"
              "mistakes.toml:11:17: error: 'frames' has to be from 1 to 65536, not 0\n"
              "mistakes.toml:19:8: error: block type 'sound:LevelMeter' has no setting 'forgets'; "
              "did you mean 'forget'?\n");
}

}  // namespace
