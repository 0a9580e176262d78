// Ports that are made by the type of their values.
#include <quorval/settings.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

struct Sample {
    int rate = 0;
};

template <>
struct Quorval::PortType<Sample> {
    static constexpr const char* name() { return "sample"; }
};

namespace {

using Quorval::Block;
using quorval_test::expect_throw;

template <class T>
void expect_type(const std::string& name)
{
    Block block("b");
    Quorval::add_input<T>(block, "in");
    Quorval::add_output<T>(block, "out");

    EXPECT_EQ(block.get_inports_info().at("in").get_name(), name);
    EXPECT_EQ(block.get_outports_info().at("out").get_name(), name);
}

TEST(PortType, NamesTheTypeOfTheValues)
{
    static_assert(Quorval::PortType<double>::name()[0] == 'd');
    expect_type<bool>("bool");
    expect_type<std::int32_t>("int32");
    expect_type<std::int64_t>("int64");
    expect_type<float>("float");
    expect_type<double>("double");
    expect_type<std::string>("string");
    expect_type<std::vector<std::int32_t>>("int32-vector");
    expect_type<std::vector<std::int64_t>>("int64-vector");
    expect_type<std::vector<float>>("float-vector");
    expect_type<std::vector<double>>("double-vector");
    expect_type<Sample>("sample");
}

TEST(AddPort, ReturnsThePortThatTheBlockOwns)
{
    Block block("b");
    Quorval::OutPort<double>* const out = Quorval::add_output<double>(block, "out");
    Quorval::InPort<double>* const in = Quorval::add_input<double>(block, "in");

    out->write(2.5);
    in->update(*out);

    EXPECT_EQ(in->value(), 2.5);
    EXPECT_EQ(&block.get_outport("out").second, out);
    EXPECT_EQ(&block.get_inport("in").at(0).second, in);
}

TEST(AddPort, MakesAnInputThatKeepsItsTriggerOnRequest)
{
    Block block("b");
    Quorval::OutPort<double>* const out = Quorval::add_output<double>(block, "out");
    Quorval::InPort<double>* const in = Quorval::add_input<double>(block, "in", false);

    out->write(1);
    in->update(*out);
    block.reset_inports(false);

    EXPECT_TRUE(in->is_triggered());
}

TEST(AddPort, RefusesANameThatIsTaken)
{
    Block block("b");
    Quorval::add_input<double>(block, "in");

    expect_throw<std::runtime_error>([&] { Quorval::add_input<float>(block, "in"); },
                                     "Failed to add inport 'in', probably duplicate.");
}

}  // namespace
