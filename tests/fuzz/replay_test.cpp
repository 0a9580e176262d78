// The targets for the core.
#include "fuzz/replay.h"

#include "fuzz/targets.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using quorval_fuzz::NamedTarget;
using quorval_fuzz::Replay;

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
        quorval_fuzz::run(quorval_fuzz::fuzz_config, random_history(random, numbers));
    }
}

INSTANTIATE_TEST_SUITE_P(Targets, Replay,
                         testing::Values(NamedTarget{"read", quorval_fuzz::fuzz_read},
                                         NamedTarget{"config", quorval_fuzz::fuzz_config},
                                         NamedTarget{"superblock", quorval_fuzz::fuzz_superblock}),
                         quorval_fuzz::name_of);

}  // namespace
