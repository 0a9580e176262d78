#include <quorval/runtime/recording.h>
#include "record/reader.h"

namespace Quorval {

RecordingError::RecordingError(const std::string& text) : std::runtime_error(text) {}

RecordingError::RecordingError(const RecordingError& other) = default;

RecordingError& RecordingError::operator=(const RecordingError& other) = default;

RecordingError::~RecordingError() = default;

RecordingInfo read_recording(const std::string& file)
{
    runtime::RecordingReader reader(file);
    const runtime::RecordingHeader& header = reader.header();
    RecordingInfo info;
    info.graph = header.graph;
    info.begin = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::nanoseconds(header.begin)));
    for (const runtime::RecordedOutput& output : header.outputs) {
        info.outputs.push_back({output.path, output.port, output.type, 0, 0});
    }
    runtime::RecordedWave wave;
    while (reader.read(wave)) {
        ++info.waves;
        info.duration = std::chrono::nanoseconds(wave.time - header.time);
        for (const runtime::RecordedValue& value : wave.values) {
            ++info.outputs[value.output].values;
            info.outputs[value.output].bytes += value.bytes.size();
        }
    }
    info.missing_waves = reader.last_wave() - info.waves;
    info.is_whole = reader.is_whole();
    return info;
}

}  // namespace Quorval
