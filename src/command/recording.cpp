// quorval recording: looks at recordings.
#include <quorval/runtime/recording.h>
#include "command.h"
#include "command_line.h"
#include "output.h"
#include "text.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

namespace {

using Quorval::RecordingInfo;

std::string to_utc(std::chrono::system_clock::time_point time)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    std::array<char, 64> text{};
    static_cast<void>(std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts));
    return text.data();
}

std::string to_seconds(std::chrono::nanoseconds duration)
{
    std::array<char, 64> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%.3f s",
                                    std::chrono::duration<double>(duration).count()));
    return text.data();
}

std::string describe(const RecordingInfo& info)
{
    std::string text = "graph: " + to_printable(info.graph) + "\n";
    text += "begin: " + to_utc(info.begin) + "\n";
    text += "waves: " + std::to_string(info.waves) + " in " + to_seconds(info.duration) + "\n";
    if (info.missing_waves > 0) {
        text += "missing waves: " + std::to_string(info.missing_waves) + "\n";
    }
    text += std::string("whole: ") + (info.is_whole ? "yes" : "no, it was cut off") + "\n";
    for (const RecordingInfo::Output& output : info.outputs) {
        text += to_printable(output.path + "." + output.port + " (" + output.type + "): ") +
                std::to_string(output.values) + " values, " + std::to_string(output.bytes) +
                " bytes\n";
    }
    return text;
}

HelpText help_of_recording()
{
    return {"quorval recording show [OPTION...] RECORDING", "Says what a recording holds.",
            "Exit status:\n"
            "  0  done\n"
            "  1  output could not be written\n"
            "  2  wrong use of the command line\n"
            "  3  the file is no recording\n"
            "\n"
            "Example:\n"
            "  quorval recording show monday.rec"};
}

}  // namespace

int recording_command(const Arguments& arguments)
{
    CommandLine line(help_of_recording());
    const auto words = line.read(arguments);
    if (!words.has_value()) {
        return kDone;
    }
    if (words->empty()) {
        throw UsageError("an action is missing: show");
    }
    if (words->front() != "show") {
        throw_unknown("action", words->front(), {"show"});
    }
    if (words->size() < 2) {
        throw UsageError("a recording is missing");
    }
    refuse_more_than(2, *words);
    try {
        write_output(describe(Quorval::read_recording((*words)[1])));
        return kDone;
    } catch (const Quorval::RecordingError& error) {
        say_error(error.what());
        return kWrongGraph;
    }
}
