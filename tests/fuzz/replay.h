// Runs what the fuzzer has found through its targets, in an ordinary build: the seeds, the inputs
// that reach new code, and all that ever failed. Random ones come on top. A program that includes
// this says which targets it has.
#pragma once

#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace quorval_fuzz {

using Target = void (*)(const std::uint8_t* data, std::size_t size);

struct NamedTarget {
    const char* name;
    Target target;
};

inline void run(Target target, const std::string& input)
{
    try {
        target(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
    }
}

class Replay : public testing::TestWithParam<NamedTarget> {
protected:
    /// The files of a directory whose names begin with `prefix`.
    static std::vector<std::filesystem::path> files_in(const std::string& directory,
                                                       const std::string& prefix = "")
    {
        std::vector<std::filesystem::path> files;
        for (const auto& entry :
             std::filesystem::directory_iterator(std::string(QUORVAL_FUZZ_DIR) + "/" + directory)) {
            if (entry.path().filename().string().compare(0, prefix.size(), prefix) == 0) {
                files.push_back(entry.path());
            }
        }
        std::sort(files.begin(), files.end());
        return files;
    }

    static std::vector<std::filesystem::path> corpus()
    {
        return files_in(std::string("corpus/") + GetParam().name);
    }
};

TEST_P(Replay, KeepsTheInvariantsForTheCorpusAndAllThatEverFailed)
{
    auto files = corpus();
    ASSERT_GT(files.size(), 10U);
    const auto kept = files_in("kept", std::string(GetParam().name) + "-");
    files.insert(files.end(), kept.begin(), kept.end());

    for (const auto& file : files) {
        SCOPED_TRACE(file);
        run(GetParam().target, quorval_test::read_file(file));
    }
}

TEST_P(Replay, KeepsTheInvariantsForCutAndChangedInputs)
{
    std::mt19937 random(1);
    for (const auto& file : corpus()) {
        SCOPED_TRACE(file);
        const std::string whole = quorval_test::read_file(file);
        for (int round = 0; round < 8 && !whole.empty(); ++round) {
            std::string changed = whole.substr(0, whole.size() - random() % whole.size());
            for (int change = 0; change < round; ++change) {
                changed[random() % changed.size()] = static_cast<char>(random());
            }
            run(GetParam().target, changed);
        }
    }
}

/// The name of a target for INSTANTIATE_TEST_SUITE_P.
inline std::string name_of(const testing::TestParamInfo<NamedTarget>& target)
{
    return target.param.name;
}

}  // namespace quorval_fuzz
