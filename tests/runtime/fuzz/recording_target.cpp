#include <quorval/runtime/recording.h>
#include "fuzz/input.h"
#include "record/reader.h"
#include "runtime/fuzz/targets.h"
#include "support/support.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace quorval_fuzz {

using Quorval::RecordingError;
using Quorval::runtime::RecordedValue;
using Quorval::runtime::RecordedWave;
using Quorval::runtime::RecordingReader;

namespace {

/// A refusal is one line.
void require_line(const std::string& text)
{
    for (const char character : text) {
        require(static_cast<unsigned char>(character) >= ' ', "a refusal on one line");
    }
}

/// Reads all waves; returns how many values they have.
std::uint64_t read_waves(RecordingReader& reader)
{
    std::uint64_t values = 0;
    std::int64_t time = std::numeric_limits<std::int64_t>::min();
    RecordedWave wave;
    for (std::uint64_t last = 0; reader.read(wave); last = wave.number) {
        require(wave.number > last, "waves in order");
        require(wave.time >= time, "times in order");
        require(reader.last_wave() == wave.number, "the number of the last wave");
        for (const RecordedValue& value : wave.values) {
            require(value.output < reader.header().outputs.size(), "the output of a value");
        }
        time = wave.time;
        values += wave.values.size();
    }
    return values;
}

}  // namespace

void fuzz_recording(const std::uint8_t* data, std::size_t size)
{
    static const quorval_test::TemporaryDirectory directory;
    static const std::string file = directory.path() / "recording";
    quorval_test::write_file(file, std::string(reinterpret_cast<const char*>(data), size));

    std::optional<std::uint64_t> values;
    try {
        RecordingReader reader(file);
        values = read_waves(reader);
    } catch (const RecordingError& error) {
        require_line(error.what());
    }

    std::optional<std::uint64_t> counted;
    try {
        counted = 0;
        for (const auto& output : Quorval::read_recording(file).outputs) {
            *counted += output.values;
        }
    } catch (const RecordingError& error) {
        require_line(error.what());
        counted.reset();
    }
    require(counted == values, "the number of values");
}

}  // namespace quorval_fuzz
