// The host of the sound example, run as its users run it.
#include "examples/recording.h"
#include "support/support.h"

#include <fcntl.h>
#include <pty.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

using quorval_test::get_format;
using quorval_test::make_recording;
using quorval_test::read_file;
using quorval_test::read_recording;
using quorval_test::Recording;
using quorval_test::write_file;
using quorval_test::write_recording;
using Arguments = std::vector<std::string>;

constexpr int kFloatWav = SF_FORMAT_WAV | SF_FORMAT_FLOAT;

struct Result {
    int status;  // of the exit; 128 and the number of the signal when one ended it
    std::string out;
    std::string err;
};

void check(int error, const char* what)
{
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), what);
    }
}

/// The standard streams and the directory of a child process.
class ChildSetup {
public:
    ChildSetup() { check(posix_spawn_file_actions_init(&actions_), "init"); }
    ChildSetup(const ChildSetup&) = delete;
    ChildSetup& operator=(const ChildSetup&) = delete;
    ~ChildSetup() { posix_spawn_file_actions_destroy(&actions_); }

    void open(int fd, const std::string& file, int flags)
    {
        check(posix_spawn_file_actions_addopen(&actions_, fd, file.c_str(), flags, 0600), "open");
    }
    void dup(int from, int to)
    {
        check(posix_spawn_file_actions_adddup2(&actions_, from, to), "dup");
    }
    void change_directory(const std::string& directory)
    {
        check(posix_spawn_file_actions_addchdir_np(&actions_, directory.c_str()), "chdir");
    }

    int run(const std::string& program, const Arguments& arguments) const
    {
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        pid_t child = 0;
        check(::posix_spawn(&child, program.c_str(), &actions_, nullptr, argv.data(), environ),
              program.c_str());
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {}
        constexpr int kSignalled = 128;
        return WIFEXITED(status) ? WEXITSTATUS(status) : kSignalled + WTERMSIG(status);
    }

private:
    posix_spawn_file_actions_t actions_{};
};

class SoundHost : public testing::Test {
protected:
    fs::path file(const std::string& name) const { return work_.path() / name; }

    Result run_program(const std::string& program, const Arguments& arguments) const
    {
        const fs::path out = streams_.path() / "out";
        const fs::path err = streams_.path() / "err";
        ChildSetup child;
        child.change_directory(work_.path());
        child.open(STDIN_FILENO, stdin_, O_RDONLY);
        child.open(STDOUT_FILENO, out, O_WRONLY | O_CREAT | O_TRUNC);
        child.open(STDERR_FILENO, err, O_WRONLY | O_CREAT | O_TRUNC);
        const int status = child.run(program, arguments);
        return {status, read_file(out), read_file(err)};
    }
    /// In the working directory, with the lines as standard input.
    Result run(const Arguments& arguments) const
    {
        return run_program(QUORVAL_SOUND_HOST, arguments);
    }
    /// In a shell, which finds the host in $HOST.
    Result run_shell(const std::string& script) const
    {
        const quorval_test::ScopedEnvironment host("HOST", QUORVAL_SOUND_HOST);
        return run_program("/bin/sh", {"-c", script});
    }
    void set_input(const std::string& lines)
    {
        stdin_ = (streams_.path() / "in").string();
        write_file(stdin_, lines);
    }

    /// The names in the working directory, hidden ones too.
    std::vector<std::string> list() const
    {
        std::vector<std::string> names;
        for (const fs::directory_entry& entry : fs::directory_iterator(work_.path())) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    /// A run that fails with one line on standard error and leaves the directory as it was.
    void expect_failure(const Arguments& arguments, int status, const std::string& text) const
    {
        const std::vector<std::string> before = list();
        const Result result = run(arguments);

        EXPECT_EQ(result.status, status) << text;
        EXPECT_EQ(result.err, "quorval-sound: " + text + "\n");
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(list(), before) << text;
    }

    static void expect_success(const Result& result)
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
    quorval_test::TemporaryDirectory streams_;
    quorval_test::ScopedEnvironment plugins_{"QUORVAL_PLUGIN_DIR", std::nullopt};
    std::string stdin_ = "/dev/null";
};

// What it makes of a recording.

TEST_F(SoundHost, CalculatesTheSamplesOfGainAndFilter)
{
    // One unit in the last place of the stored float numbers.
    constexpr double kTolerance = 6e-8;
    struct Variant {
        int channels;
        std::string block_size;
        std::string taps_text;
        std::vector<double> taps;
    };
    const std::vector<Variant> table = {
        {1, "4096", "1", {1}},
        {1, "1", "0.5,-0.25,0.125", {0.5, -0.25, 0.125}},
        {2, "1", "0.5,-0.25,0.125", {0.5, -0.25, 0.125}},
        {2, "7", "-0.25,0.5,0,0,0.25", {-0.25, 0.5, 0, 0, 0.25}},
        {2, "999", "0,0,1", {0, 0, 1}},
        {2, "1000", "0.75,0.25", {0.75, 0.25}},
        {5, "4096", "0.1,0.2,0.3,0.4", {0.1, 0.2, 0.3, 0.4}},
        {1, "65536", "0", {0}},
    };

    for (const Variant& variant : table) {
        SCOPED_TRACE(variant.block_size + " frames, taps " + variant.taps_text);
        const Recording in = make_recording(variant.channels, 1000);
        write_recording(file("in.wav"), in, kFloatWav);

        expect_success(run({"in.wav", "out.wav", "--encoding", "float", "--gain", "-0.375",
                            "--taps", variant.taps_text, "--block-size", variant.block_size}));

        expect_equal(read_recording(file("out.wav")),
                     quorval_test::filter(in, -0.375, variant.taps), kTolerance);
    }
}

TEST_F(SoundHost, BringsEverySampleBackThroughLosslessFormats)
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

        expect_success(run({"in", variant.name, "--encoding", variant.encoding}));

        expect_equal(read_recording(file(variant.name)), in, 0);
        EXPECT_EQ(get_format(file(variant.name)), variant.format);
    }
}

TEST_F(SoundHost, KeepsTheSoundThroughOggVorbis)
{
    constexpr double kTolerance = 0.35;  // the noise suffers, the tone must not
    const Recording in = make_recording(1, 70000);
    write_recording(file("in.wav"), in);

    for (const char* name : {"out.ogg", "out.oga"}) {
        SCOPED_TRACE(name);
        expect_success(run({"in.wav", name, "--block-size", "65536"}));
        expect_success(run({name, "back.wav"}));

        EXPECT_EQ(get_format(file(name)), SF_FORMAT_OGG | SF_FORMAT_VORBIS);
        expect_equal(read_recording(file("back.wav")), in, kTolerance);
    }
}

TEST_F(SoundHost, WritesAnEmptyRecordingForAnEmptyOne)
{
    write_recording(file("in.wav"), make_recording(2, 0));

    expect_success(run({"in.wav", "out.flac"}));

    EXPECT_EQ(list(), (std::vector<std::string>{"in.wav", "out.flac"}));
}

TEST_F(SoundHost, CutsWhatIsTooLoudAndSaysSo)
{
    write_recording(file("in.wav"), {8000, 1, {0.5, -0.5, 0.75, -0.75, 0.25}});

    const Result result = run({"in.wav", "out.wav", "--gain", "2"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err,
              "quorval-sound: warning: sink: 2 samples were too loud and are clipped\n");
    const double most = 32767.0 / 32768.0;
    EXPECT_EQ(read_recording(file("out.wav")).samples,
              (std::vector<double>{most, -1, most, -1, 0.5}));
}

TEST_F(SoundHost, ReportsTheLevelsBeforeAndAfter)
{
    write_recording(file("in.wav"), {8000, 1, {0.5, -0.5, 0.5, -0.5}});

    const Result result = run({"in.wav", "out.wav", "--gain", "0.5"});

    expect_success(result);
    EXPECT_EQ(result.out,
              "before: peak 0.500000 (-6.02 dBFS), RMS 0.500000 (-6.02 dBFS)\n"
              "after: peak 0.250000 (-12.04 dBFS), RMS 0.250000 (-12.04 dBFS)\n"
              "sink: 4 frames written to out.wav\n");
}

TEST_F(SoundHost, PrintsConfigurationBlocksAndConnectionsWhenAsked)
{
    write_recording(file("in.wav"), {8000, 1, {0.5}});

    const Result result =
        run({"in.wav", "out.wav", "-v", "-g", "0.5", "-t", "0.25,0.75", "-e", "pcm24"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.substr(0, result.out.find("before: peak")),
              "BlockConfiguration:\n"
              "fir.taps (DoubleVector) = {0.25, 0.75}\n"
              "gain.factor (double) = 0.5\n"
              "sink.encoding (string) = pcm24\n"
              "sink.path (string) = out.wav\n"
              "source.path (string) = in.wav\n"
              "Blocks:\nafter\nbefore\nfir\ngain\nsink\nsource\n"
              "Connections:\n"
              "gain.out -> fir.in (sample-block)\n"
              "fir.out -> after.in (sample-block)\n"
              "source.out -> before.in (sample-block)\n"
              "source.out -> gain.in (sample-block)\n"
              "fir.out -> sink.in (sample-block)\n"
              "Descriptor ports:\n"
              "graph::next (extfd)\n");
    EXPECT_EQ(result.err, "quorval-sound: DlLoader: Loaded library '" QUORVAL_SOUND_PLUGIN_DIR
                          "/" QUORVAL_SOUND_PLUGIN
                          "'.\n"
                          "quorval-sound: source: in.wav has 1 channels, 8000 frames per second\n"
                          "quorval-sound: DlLoader: Unloaded library '" QUORVAL_SOUND_PLUGIN_DIR
                          "/" QUORVAL_SOUND_PLUGIN "'.\n");
}

// What it leaves behind.

TEST_F(SoundHost, ReplacesAnOldOutput)
{
    const Recording in = make_recording(1, 100);
    write_recording(file("in.wav"), in);
    write_file(file("out.wav"), "old");

    expect_success(run({"in.wav", "out.wav"}));

    expect_equal(read_recording(file("out.wav")), in, 0);
    EXPECT_EQ(list(), (std::vector<std::string>{"in.wav", "out.wav"}));
}

TEST_F(SoundHost, LetsTheMaskOfTheUserDecideAboutTheMode)
{
    write_recording(file("in.wav"), make_recording(1, 100));

    run_shell("umask 027; exec \"$HOST\" in.wav out.wav");

    EXPECT_EQ(fs::status(file("out.wav")).permissions(), fs::perms(0640));
}

TEST_F(SoundHost, ReplacesWhatASymbolicLinkLeadsTo)
{
    const Recording in = make_recording(1, 100);
    write_recording(file("in.wav"), in);
    fs::create_directory(file("there"));
    write_file(file("there/target.wav"), "old");
    fs::create_symlink("there/target.wav", file("link.wav"));

    expect_success(run({"in.wav", "link.wav"}));

    EXPECT_TRUE(fs::is_symlink(file("link.wav")));
    expect_equal(read_recording(file("there/target.wav")), in, 0);
}

TEST_F(SoundHost, FailsOnAnInputThatCannotBeRead)
{
    fs::create_directory(file("directory"));
    ASSERT_EQ(::mkfifo(file("pipe").c_str(), 0600), 0);
    write_file(file("text"), "This is no sound.\n");
    write_file(file("empty"), "");
    write_file(file("out.wav"), "old");

    expect_failure({"missing", "out.wav"}, 1, "missing: No such file or directory");
    expect_failure({"text/in", "out.wav"}, 1, "text/in: Not a directory");
    expect_failure({"directory", "out.wav"}, 1, "directory: not a regular file");
    expect_failure({"pipe", "out.wav"}, 1, "pipe: not a regular file");
    expect_failure({"text", "out.wav"}, 1,
                   "text: cannot be read as a sound file: Format not recognised");
    expect_failure({"empty", "out.wav"}, 1,
                   "empty: cannot be read as a sound file: Format not recognised");
    EXPECT_EQ(read_file(file("out.wav")), "old");
}

TEST_F(SoundHost, FailsOnADamagedInput)
{
    const std::vector<std::pair<std::string, int>> formats = {
        {"cut.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16},
        {"cut.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
        {"cut.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
    };
    for (const auto& [name, format] : formats) {
        write_recording(file(name), make_recording(2, 20000), format);
        fs::resize_file(file(name), fs::file_size(file(name)) / 2);
        write_file(file("out.wav"), "old");

        const Result result = run({name, "out.wav"});

        EXPECT_EQ(result.status, 1) << name;
        EXPECT_EQ(result.err.find("quorval-sound: " + name + ": damaged"), 0U) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(result.out, "") << name;
        EXPECT_EQ(read_file(file("out.wav")), "old") << name;
    }
    EXPECT_EQ(list(), (std::vector<std::string>{"cut.flac", "cut.ogg", "cut.wav", "out.wav"}));
}

TEST_F(SoundHost, FailsOnBytesThatAreOverwritten)
{
    for (const int format : {SF_FORMAT_FLAC | SF_FORMAT_PCM_16, SF_FORMAT_OGG | SF_FORMAT_VORBIS}) {
        write_recording(file("bad"), make_recording(2, 20000), format);
        std::string content = read_file(file("bad"));
        content.replace(content.size() / 2, 20, std::string(20, '\x55'));
        write_file(file("bad"), content);

        const Result result = run({"bad", "out.wav"});

        EXPECT_EQ(result.status, 1) << format;
        EXPECT_EQ(result.err.find("quorval-sound: bad: damaged"), 0U) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(list(), std::vector<std::string>{"bad"}) << format;
    }
}

TEST_F(SoundHost, FailsOnSamplesThatAreNoNumbers)
{
    const double infinity = std::numeric_limits<double>::infinity();
    for (const double sample : {std::nan(""), infinity, -infinity}) {
        write_recording(file("in.wav"), {8000, 1, {0, sample, 0}}, kFloatWav);

        expect_failure({"in.wav", "out.wav"}, 1,
                       "in.wav: damaged, it holds samples that are no numbers");
    }
}

TEST_F(SoundHost, FailsOnAnOutputThatCannotBeWritten)
{
    write_recording(file("in.wav"), make_recording(1, 20000));
    fs::create_directory(file("directory.wav"));
    ASSERT_EQ(::mkfifo(file("pipe.wav").c_str(), 0600), 0);

    expect_failure({"in.wav", "missing/out.wav"}, 1,
                   "missing/out.wav: cannot be written: No such file or directory");
    expect_failure({"in.wav", "in.wav/out.wav"}, 1,
                   "in.wav/out.wav: cannot be written: Not a directory");
    expect_failure({"in.wav", "directory.wav"}, 1,
                   file("directory.wav").string() + ": not a regular file");
    expect_failure({"in.wav", "pipe.wav"}, 1, file("pipe.wav").string() + ": not a regular file");
}

TEST_F(SoundHost, LeavesNothingBehindWhenTheOutputGetsTooBig)
{
    write_recording(file("in.wav"), make_recording(1, 20000));

    for (const char* name : {"out.wav", "out.flac", "out.ogg"}) {
        const Result result = run_shell("ulimit -f 8; exec \"$HOST\" in.wav " + std::string(name));

        EXPECT_EQ(result.status, 1) << name;
        EXPECT_EQ(result.err.find("quorval-sound: " + std::string(name) + ": cannot be written: "),
                  0U)
            << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(list(), std::vector<std::string>{"in.wav"}) << name;
    }
}

TEST_F(SoundHost, EndsCleanlyOnASignal)
{
    write_recording(file("in.wav"), make_recording(1, 20000));
    write_file(file("out.wav"), "old");

    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigset_t before;
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, signal);
        // Blocked, so that it still waits when the host starts to look at its signals.
        pthread_sigmask(SIG_BLOCK, &signals, &before);
        const Result result =
            run_shell("kill -" + std::to_string(signal) + " $$; exec \"$HOST\" in.wav out.wav");
        pthread_sigmask(SIG_SETMASK, &before, nullptr);

        EXPECT_EQ(result.status, 1) << signal;
        EXPECT_EQ(result.err, "quorval-sound: interrupted, out.wav is not written\n") << signal;
        EXPECT_EQ(read_file(file("out.wav")), "old") << signal;
        EXPECT_EQ(list(), (std::vector<std::string>{"in.wav", "out.wav"})) << signal;
    }
}

// How it is called.

TEST_F(SoundHost, RefusesTheSameFileAsInputAndOutput)
{
    const Recording in = make_recording(1, 100);
    write_recording(file("in.wav"), in);
    fs::create_hard_link(file("in.wav"), file("hard.wav"));
    fs::create_symlink("in.wav", file("link.wav"));

    for (const char* out : {"in.wav", "./in.wav", "hard.wav", "link.wav"}) {
        SCOPED_TRACE(out);
        expect_failure({"in.wav", out}, 2, "IN and OUT are the same file: in.wav");
    }
    expect_equal(read_recording(file("in.wav")), in, 0);
}

TEST_F(SoundHost, RefusesAWrongCommandLine)
{
    write_recording(file("in.wav"), make_recording(1, 100));
    const std::string number = " is refused, allowed is a number from -1000 to 1000";
    const std::string encodings = " is refused, allowed is one of pcm16 pcm24 float";
    const std::string help = " (see quorval-sound --help)";
    const std::vector<std::pair<Arguments, std::string>> table = {
        {{}, "IN is required" + help},
        {{"in.wav"}, "OUT is required" + help},
        {{"in.wav", "out.wav", "more"}, "The following argument was not expected: more" + help},
        {{"in.wav", "out.wav", "--mad"}, "The following argument was not expected: --mad" + help},
        {{"in.wav", "out.wav", "--gain", "loud"}, "Could not convert: --gain = loud" + help},
        {{"in.wav", "out.wav", "--gain", "1001"}, "gain: factor (double) = 1001" + number},
        {{"in.wav", "out.wav", "--gain", "-1001"}, "gain: factor (double) = -1001" + number},
        {{"in.wav", "out.wav", "--gain", "nan"}, "gain: factor (double) = nan" + number},
        {{"in.wav", "out.wav", "--taps", "1,inf"},
         "fir: taps (DoubleVector) = {1, inf} is refused, allowed is a list of 1 to 1024 finite "
         "numbers"},
        {{"in.wav", "out.wav", "--taps", "1,x"}, "Could not convert: --taps = 1,x" + help},
        {{"in.wav", "out.wav", "--block-size", "0"},
         "--block-size: Value 0 not in range 1 to 65536" + help},
        {{"in.wav", "out.wav", "--block-size", "65537"},
         "--block-size: Value 65537 not in range 1 to 65536" + help},
        {{"in.wav", "out.mp3"},
         "sink: path (string) = out.mp3 is refused, allowed is a name that ends in .wav, .flac, "
         ".ogg or .oga"},
        {{"in.wav", "out.wav", "--encoding", "pcm8"}, "sink: encoding (string) = pcm8" + encodings},
        {{"in.wav", "out.flac", "--encoding", "float"},
         "sink: encoding (string) = float is refused, allowed is one of pcm16 pcm24 in a .flac "
         "file"},
    };

    for (const auto& [arguments, text] : table) {
        expect_failure(arguments, 2, text);
    }
}

TEST_F(SoundHost, ExplainsItself)
{
    const Result result = run({"--help"});

    expect_success(result);
    for (const char* text :
         {"Usage: quorval-sound [OPTIONS] IN OUT", "--gain", "--taps", "--encoding", "--store",
          "--block-size", "--verbose", "--version", "FILES", "LIVE CHANGES", "EXIT STATUS",
          "ENVIRONMENT", "QUORVAL_PLUGIN_DIR", "EXAMPLE"}) {
        EXPECT_NE(result.out.find(text), std::string::npos) << text;
    }
}

TEST_F(SoundHost, TellsItsVersion)
{
    const Result result = run({"--version"});

    expect_success(result);
    EXPECT_EQ(result.out, "quorval-sound " QUORVAL_SOUND_VERSION "\n");
}

TEST_F(SoundHost, TakesThePluginFromTheDirectoryInTheEnvironment)
{
    write_recording(file("in.wav"), make_recording(1, 100));
    const fs::path elsewhere = streams_.path() / "plugins";
    fs::create_directory(elsewhere);
    const quorval_test::ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", elsewhere.string());

    const std::string plugin = (elsewhere / QUORVAL_SOUND_PLUGIN).string();
    expect_failure({"in.wav", "out.wav"}, 1,
                   plugin + ": cannot open shared object file: No such file or directory");
    fs::copy_file(fs::path(QUORVAL_SOUND_PLUGIN_DIR) / QUORVAL_SOUND_PLUGIN, plugin);

    expect_success(run({"in.wav", "out.wav"}));
}

TEST_F(SoundHost, FindsThePluginOfItsInstallation)
{
    write_recording(file("in.wav"), make_recording(1, 100));
    const fs::path bin = streams_.path() / "bin";
    const fs::path plugins = (bin / QUORVAL_SOUND_INSTALLED_DIR).lexically_normal();
    fs::create_directories(bin);
    fs::create_directories(plugins);
    fs::copy_file(QUORVAL_SOUND_HOST, bin / "quorval-sound");
    fs::copy_file(fs::path(QUORVAL_SOUND_PLUGIN_DIR) / QUORVAL_SOUND_PLUGIN,
                  plugins / QUORVAL_SOUND_PLUGIN);

    const Result result = run_program(bin / "quorval-sound", {"in.wav", "out.wav", "--verbose"});

    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.err.find("Loaded library '" + (plugins / QUORVAL_SOUND_PLUGIN).string() + "'"),
              std::string::npos)
        << result.err;
}

TEST_F(SoundHost, RunsWithoutStandardStreams)
{
    const Recording in = make_recording(1, 10000);
    write_recording(file("in.wav"), in);

    const Result result = run_shell("exec \"$HOST\" in.wav out.wav --store levels <&- >&- 2>&-");

    EXPECT_EQ(result.status, 0);
    expect_equal(read_recording(file("out.wav")), in, 0);
}

TEST_F(SoundHost, FailsWhenItsReportsCannotBeWritten)
{
    write_recording(file("in.wav"), make_recording(1, 100));

    const Result result = run_shell("exec \"$HOST\" in.wav out.wav >/dev/full");

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "quorval-sound: cannot write to standard output\n");
}

TEST_F(SoundHost, ShowsItsProgressOnATerminalAlone)
{
    write_recording(file("in.wav"), make_recording(1, 100));
    int terminal = -1;
    int slave = -1;
    ASSERT_EQ(::openpty(&terminal, &slave, nullptr, nullptr, nullptr), 0);
    ChildSetup child;
    child.change_directory(work_.path());
    child.open(STDIN_FILENO, "/dev/null", O_RDONLY);
    child.open(STDOUT_FILENO, "/dev/null", O_WRONLY);
    child.dup(slave, STDERR_FILENO);

    EXPECT_EQ(child.run(QUORVAL_SOUND_HOST, {"in.wav", "out.wav", "--block-size", "50"}), 0);

    std::string shown(1000, '\0');
    const ssize_t length = ::read(terminal, shown.data(), shown.size());
    shown.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    EXPECT_EQ(shown, "\r50 % done\r100 % done\r\033[K");
    ::close(terminal);
    ::close(slave);
}

// Live changes.

TEST_F(SoundHost, TakesLiveChangesFromAFile)
{
    const Recording in = make_recording(1, 1000);
    write_recording(file("in.wav"), in, kFloatWav);
    set_input("gain.factor 0.25\nfir.taps {0.5, 0.5}\nsource.frames 10");

    expect_success(run({"in.wav", "out.wav", "-e", "float"}));

    expect_equal(read_recording(file("out.wav")), quorval_test::filter(in, 0.25, {0.5, 0.5}), 1e-7);
}

TEST_F(SoundHost, TakesLiveChangesFromAPipe)
{
    const Recording in = make_recording(1, 1000);
    write_recording(file("in.wav"), in, kFloatWav);
    write_file(file("lines"), "gain.factor -2\ngain.factor 0.25\n");

    // Opened for both directions, so that the lines are in the pipe before the host starts.
    expect_success(
        run_shell("mkfifo p; exec 3<>p; cat lines >&3; rm p lines; "
                  "exec \"$HOST\" in.wav out.wav -e float <&3"));

    expect_equal(read_recording(file("out.wav")), quorval_test::filter(in, 0.25, {1}), 1e-7);
}

TEST_F(SoundHost, ComplainsOnceAboutABadLineAndChangesNothing)
{
    const Recording in = make_recording(1, 1000);
    write_recording(file("in.wav"), in);
    const std::string no_change = " is refused, allowed is no change while the graph runs";
    const std::vector<std::pair<std::string, std::string>> table = {
        {"nonsense", "expected <block>.<key> <value>"},
        {"gain.factor", "expected <block>.<key> <value>"},
        {"noise.factor 1", "no such block, there are source before gain fir after sink"},
        {"effects.factor 1", "no such block, there are source before gain fir after sink"},
        {"gain.factor loud",
         "gain: factor (string) = loud is refused, allowed is a number from -1000 to 1000"},
        {"gain.factor 1e9",
         "gain: factor (double) = 1e+09 is refused, allowed is a number from -1000 to 1000"},
        {"gain.fac/tor 1", "Parameter name 'fac/tor' not valid (should be [a-z0-9_.-])."},
        {"fir.taps 0.5",
         "fir: taps (double) = 0.5 is refused, allowed is a list of 1 to 1024 finite numbers"},
        {"fir.taps {}",
         "fir: taps (DoubleVector) = {} is refused, allowed is a list of 1 to 1024 finite numbers"},
        {"fir.taps {a}", "expected numbers in {}"},
        {"source.frames 0",
         "source: frames (int) = 0 is refused, allowed is a whole number from 1 to 65536"},
        {"source.frames 0.5",
         "source: frames (double) = 0.5 is refused, allowed is a whole number from 1 to 65536"},
        {"source.path x", "source: path (string) = x" + no_change},
        {"sink.path x", "sink: path (string) = x" + no_change},
        {"sink.encoding float", "sink: encoding (string) = float" + no_change},
        {"after.forget 1", "after: forget (int) = 1 is refused, allowed is true or false"},
    };

    for (const auto& [line, text] : table) {
        set_input(line + "\n\n");
        const Result result = run({"in.wav", "out.wav"});

        EXPECT_EQ(result.status, 0) << line;
        EXPECT_EQ(result.err, "quorval-sound: cannot apply '" + line + "': " + text + "\n");
        expect_equal(read_recording(file("out.wav")), in, 0);
    }
}

TEST_F(SoundHost, WarnsAboutAnUnknownKey)
{
    const Recording in = make_recording(1, 1000);
    write_recording(file("in.wav"), in);

    for (const std::string block : {"source", "before", "gain", "fir", "after", "sink"}) {
        set_input(block + ".fator 0.5");
        const Result result = run({"in.wav", "out.wav", "--store", "levels"});

        EXPECT_EQ(result.status, 0) << block;
        EXPECT_EQ(result.err, "quorval-sound: warning: Block " + block +
                                  " possibly did not consume all of (Re-)Configuration\n");
        expect_equal(read_recording(file("out.wav")), in, 0);
    }
}

TEST_F(SoundHost, GoesOnWhenStandardInputCannotBeRead)
{
    const Recording in = make_recording(1, 1000);
    write_recording(file("in.wav"), in);
    stdin_ = "/";

    const Result result = run({"in.wav", "out.wav"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "quorval-sound: warning: cannot read standard input: Is a directory\n");
    expect_equal(read_recording(file("out.wav")), in, 0);
}

// What the meters remember.

TEST_F(SoundHost, RemembersTheHighestPeakAcrossRuns)
{
    write_recording(file("in.wav"), {8000, 1, {0.5}});
    const Arguments loud = {"in.wav", "out.wav", "--store", "new/levels"};
    const Arguments quiet = {"in.wav", "out.wav", "--store", "new/levels/", "--gain", "0.5"};

    const Result first = run(quiet);
    const Result second = run(loud);
    const Result third = run(quiet);

    EXPECT_EQ(first.out,
              "before: peak 0.500000 (-6.02 dBFS), RMS 0.500000 (-6.02 dBFS)\n"
              "before: highest peak ever 0.500000 (-6.02 dBFS)\n"
              "after: peak 0.250000 (-12.04 dBFS), RMS 0.250000 (-12.04 dBFS)\n"
              "after: highest peak ever 0.250000 (-12.04 dBFS)\n"
              "sink: 1 frames written to out.wav\n");
    EXPECT_NE(second.out.find("after: highest peak of earlier runs 0.250000 (-12.04 dBFS)\n"),
              std::string::npos);
    EXPECT_NE(second.out.find("after: highest peak ever 0.500000 (-6.02 dBFS)\n"),
              std::string::npos);
    EXPECT_NE(third.out.find("after: highest peak of earlier runs 0.500000 (-6.02 dBFS)\n"),
              std::string::npos);
    EXPECT_NE(third.out.find("after: highest peak ever 0.500000 (-6.02 dBFS)\n"),
              std::string::npos);
}

TEST_F(SoundHost, ForgetsTheHighestPeakWhenTold)
{
    write_recording(file("in.wav"), {8000, 1, {0.5}});
    run({"in.wav", "out.wav", "--store", "levels"});
    set_input("after.forget true\n");

    const Result result = run({"in.wav", "out.wav", "--store", "levels", "--gain", "0.5"});

    expect_success(result);
    EXPECT_NE(result.out.find("before: highest peak ever 0.500000 (-6.02 dBFS)\n"),
              std::string::npos);
    EXPECT_NE(result.out.find("after: highest peak ever 0.250000 (-12.04 dBFS)\n"),
              std::string::npos);
}

TEST_F(SoundHost, ReportsSilenceAsNoLevelAtAll)
{
    write_recording(file("in.wav"), {8000, 1, {0, 0}});

    const Result result = run({"in.wav", "out.wav", "--store", "levels"});

    expect_success(result);
    EXPECT_NE(result.out.find("before: peak 0.000000 (-inf dBFS), RMS 0.000000 (-inf dBFS)\n"),
              std::string::npos);
}

TEST_F(SoundHost, FailsOnADamagedStore)
{
    write_recording(file("in.wav"), {8000, 1, {0.5}});
    run({"in.wav", "first.wav", "--store", "levels"});
    const fs::path store = file("levels/after/level");
    const std::string whole = read_file(store);
    write_file(store, whole.substr(0, whole.size() - 1));

    const Result result = run({"in.wav", "out.wav", "--store", "levels"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "quorval-sound: cannot read " + store.string() +
                              ": Failed to read 8 bytes from input stream! Read 7\n");
    EXPECT_EQ(list(), (std::vector<std::string>{"first.wav", "in.wav", "levels"}));
    EXPECT_EQ(read_file(store), whole.substr(0, whole.size() - 1));
}

TEST_F(SoundHost, FailsOnAStoreThatCannotBeMade)
{
    write_recording(file("in.wav"), {8000, 1, {0.5}});
    write_file(file("levels"), "a file");

    const Result result = run({"in.wav", "out.wav", "--store", "levels"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "quorval-sound: filesystem error: cannot create directories: File exists [" +
                  file("levels/").string() + "]\n");
    EXPECT_EQ(list(), (std::vector<std::string>{"in.wav", "levels"}));
}

TEST_F(SoundHost, WritesNoOutputWhenAMeterCannotStore)
{
    write_recording(file("in.wav"), {8000, 1, {0.5}});
    fs::create_directory(file("levels"));
    write_file(file("levels/after"), "a file");

    const Result result = run({"in.wav", "out.wav", "--store", "levels"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(list(), (std::vector<std::string>{"in.wav", "levels"}));
}

// The demonstration.

TEST_F(SoundHost, DemonstrationNeedsABuildDirectory)
{
    const Result without = run_program(QUORVAL_SOUND_DEMO, {});
    EXPECT_EQ(without.status, 2);
    EXPECT_EQ(without.out, "");
    EXPECT_EQ(without.err.find("Usage: demo.sh BUILD_DIR\n"), 0U);

    const Result wrong = run_program(QUORVAL_SOUND_DEMO, {"nowhere"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.err,
              "demo.sh: nowhere/examples/sound/quorval-sound is missing: build it first\n");
    EXPECT_TRUE(list().empty());
}

}  // namespace
