#include "options.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <iostream>

namespace host {

namespace {

constexpr const char* kDescription =
    "Sends a recording through a graph of blocks: a gain, a filter, and a level meter before and\n"
    "after both. Shows how an application loads a plug-in, builds a graph and runs it.";

constexpr const char* kFooter = R"(FILES
  IN and OUT are sound files: WAV, FLAC or Ogg Vorbis. The ending of OUT says which: .wav, .flac,
  .ogg or .oga. OUT is replaced when all went well, and left alone otherwise.

LIVE CHANGES
  Lines on standard input change the running blocks:
      <block>.<key> <value>
  A value is a number, true or false, a list of numbers such as {0.5, 0.5}, or a word.
      gain.factor     the factor that all samples are multiplied by
      fir.taps        the taps of the filter
      source.frames   how many frames are read at once
      before.forget   true drops the remembered peak; after.forget likewise
  What is wrong is told in one line and changes nothing.

EXIT STATUS
  0  the whole recording is written
  1  the run failed, or a signal ended it; OUT is as it was
  2  the command line is wrong

ENVIRONMENT
  QUORVAL_PLUGIN_DIR  the directory of sound.so; by default that of the program or of the
                      installation

EXAMPLE
  quorval-sound --gain 0.5 --taps 0.25,0.5,0.25 --store ~/.cache/levels in.wav out.flac
)";

constexpr const char* kVersion = "quorval-sound " QUORVAL_SOUND_VERSION;
constexpr int kWrongUse = 2;
constexpr int kMostFrames = 65536;

void declare(CLI::App& app, Options& options)
{
    app.footer(kFooter);
    app.set_version_flag("--version", kVersion, "Print the version and exit");
    app.add_option("IN", options.in, "The recording to read")->required();
    app.add_option("OUT", options.out, "The file to write")->required();
    app.add_option("-g,--gain", options.gain, "The factor that all samples are multiplied by")
        ->capture_default_str();
    app.add_option("-t,--taps", options.taps, "The taps of the filter, with commas in between")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->capture_default_str();
    app.add_option("-e,--encoding", options.encoding,
                   "How samples are stored: pcm16, pcm24 or, in .wav alone, float")
        ->capture_default_str();
    app.add_option("-s,--store", options.store,
                   "The directory in which the meters remember their highest peaks");
    app.add_option("-b,--block-size", options.frames_per_block, "How many frames are read at once")
        ->check(CLI::Range(1, kMostFrames))
        ->capture_default_str();
    app.add_flag("-v,--verbose", options.verbose,
                 "Print the configuration, the blocks, the connections and the log");
}

/// A store wants an absolute path with a "/" at its end.
std::string to_store_path(const std::string& directory)
{
    return directory.empty() ? "" : (std::filesystem::absolute(directory) / "").string();
}

}  // namespace

std::optional<Options> parse_options(int argc, char** argv, int& status)
{
    CLI::App app(kDescription, "quorval-sound");
    Options options;
    declare(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& request) {  // help or version
        status = app.exit(request);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        std::cerr << "quorval-sound: " << error.what() << " (see quorval-sound --help)"
                  << std::endl;
        status = kWrongUse;
        return std::nullopt;
    }
    options.store = to_store_path(options.store);
    return options;
}

}  // namespace host
