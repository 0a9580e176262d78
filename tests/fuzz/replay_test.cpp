// Runs what the fuzzer has found through its targets, in an ordinary build: the seeds, the inputs
// that reach new code, and all that ever failed. Random ones come on top.
#include "fuzz/targets.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using Target = void (*)(const std::uint8_t* data, std::size_t size);

struct NamedTarget {
    const char* name;
    Target target;
};

void run(Target target, const std::string& input)
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

/// The bytes of numbers at the edges, of which chance alone makes too few.
std::vector<std::string> edges()
{
    using Real = std::numeric_limits<double>;
    using Integer = std::numeric_limits<int>;
    std::vector<std::string> result;
    const auto add = [&result](auto number) {
        std::string bytes(sizeof number, '\0');
        std::memcpy(bytes.data(), &number, sizeof number);
        result.push_back(bytes);
    };
    for (const double number : {0.0, -0.0, 0.1, 1e300, Real::quiet_NaN(), Real::denorm_min()}) {
        add(number);
    }
    for (const int number : {0, 1, -1, 16777217, Integer::min(), Integer::max()}) {
        add(number);
    }
    return result;
}

std::string random_history(std::mt19937& random, const std::vector<std::string>& edges)
{
    // Some setters of ints, each a configuration, another, the operation, a key, the type and four
    // bytes: so many elements are looked up in another way than few.
    std::string history;
    for (char key = 0; key < 20; ++key) {
        history += std::string{0, 0, 0, key, 0, 0, 0, 0, key};
    }
    while (history.size() < 2'400) {
        if (random() % 8 == 0) {
            history += edges[random() % edges.size()];
        } else {
            history += static_cast<char>(random());
        }
    }
    return history;
}

TEST(RandomHistory, OfConfigurationsIsThatOfMaps)
{
    constexpr int kHistories = 5'000;
    const std::vector<std::string> numbers = edges();
    std::mt19937 random(1);
    for (int number = 0; number < kHistories; ++number) {
        SCOPED_TRACE(number);
        run(quorval_fuzz::fuzz_config, random_history(random, numbers));
    }
}

INSTANTIATE_TEST_SUITE_P(Targets, Replay,
                         testing::Values(NamedTarget{"read", quorval_fuzz::fuzz_read},
                                         NamedTarget{"config", quorval_fuzz::fuzz_config},
                                         NamedTarget{"superblock", quorval_fuzz::fuzz_superblock}),
                         [](const auto& target) { return std::string(target.param.name); });

}  // namespace
