// Tests of the blocks: each alone, driven by hand, with the code that runs it in a graph.
#include <quorval/runtime/testing.h>

#include <iostream>
#include <stdexcept>
#include <string>

namespace {

using Quorval::Harness;

int failures = 0;

template <class T>
void expect_equal(const char* test, const T& found, const T& expected)
{
    if (found != expected) {
        std::cerr << test << ": " << found << ", not " << expected << '\n';
        ++failures;
    }
}

/// What the block makes of a value.
double smooth(Harness& harness, double value)
{
    harness.feed("in", value);
    harness.step();
    return harness.output<double>("out");
}

void test_goes_a_part_of_the_way()
{
    Harness harness(PLUGIN_FILE, "Smooth", {{"weight", 0.5}});
    harness.start();

    expect_equal("first value", smooth(harness, 1), 0.5);
    expect_equal("second value", smooth(harness, 1), 0.75);
}

void test_takes_another_weight_while_it_runs()
{
    Harness harness(PLUGIN_FILE, "Smooth");
    harness.start();

    harness.reconfigure({{"weight", 1.0}});

    expect_equal("new weight", smooth(harness, 3), 3.0);
}

void test_refuses_a_weight_that_is_too_large()
{
    std::string text;
    try {
        Harness harness(PLUGIN_FILE, "Smooth", {{"weight", 2.0}});
    } catch (const std::invalid_argument& error) {
        text = error.what();
    }

    expect_equal<std::string>("refusal", text, "'weight' has to be from 0.001 to 1, not 2");
}

}  // namespace

int main()
{
    test_goes_a_part_of_the_way();
    test_takes_another_weight_while_it_runs();
    test_refuses_a_weight_that_is_too_large();
    return failures == 0 ? 0 : 1;
}
