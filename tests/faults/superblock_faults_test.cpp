#include <quorval/block.h>
#include <quorval/pstore.h>
#include <quorval/superblock.h>
#include "faults/faults.h"

#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace quorval_test;
using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Container;
using Quorval::Datatype;
using Quorval::InPortInternal;
using Quorval::OutPortInternal;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;

using Member = UniqueDlPtr<Container>;

const char* const kType = "a-type-name-of-more-than-a-few-characters";
const char* const kIn = "an-input-with-a-long-port-name";
const char* const kOut = "an-output-with-a-long-port-name";
const char* const kFd = "a-descriptor-port-with-a-long-name";

Member make_block(const std::string& name)
{
    auto block = std::make_unique<Block>(name);
    block->add_inport(std::make_unique<InPortInternal>(kIn, Datatype(kType), true));
    block->add_outport(std::make_unique<OutPortInternal>(kOut, Datatype(kType)));
    block->make_fdport(kFd, 0, {true, false});
    return Member(nullptr, std::move(block));
}

/// A superblock with members and a superblock inside, and a member that is not in it yet.
struct Graph {
    Superblock outer{"the-outer-superblock-with-a-long-name"};
    Member candidate = make_block("a-candidate-with-a-long-block-name");
    std::tuple<Member, BlockConfiguration> created{make_block("a-created-one-with-a-long-name"),
                                                   make_sample()};
    Member rival = make_block("the-first-block-with-a-long-name");
    Container* first = nullptr;
    Container* second = nullptr;
    Container* inner = nullptr;
};

std::unique_ptr<Graph> prepare_graph()
{
    auto graph = std::make_unique<Graph>();
    auto inner = std::make_unique<Superblock>("the-inner-superblock-with-a-long-name");
    Container& a = inner->add_block(make_block("an-inner-block-with-a-long-name"));
    Container& b = inner->add_block(make_block("another-inner-block-with-a-long-name"));
    inner->add_connection(a, kOut, b, kIn);
    inner->add_inport("an-inner-input-with-a-long-name", a, kIn);
    inner->add_inport("an-inner-input-with-a-long-name", b, kIn);
    inner->add_outport("an-inner-output-with-a-long-name", b, kOut);
    graph->first = &graph->outer.add_block(make_block("the-first-block-with-a-long-name"));
    graph->second = &graph->outer.add_block(make_block("the-second-block-with-a-long-name"));
    graph->inner = &graph->outer.add_block(Member(nullptr, std::move(inner)));
    graph->outer.add_inport("an-outer-input-with-a-long-name", *graph->first, kIn);
    graph->outer.add_outport("an-outer-output-with-a-long-name", *graph->second, kOut);
    graph->outer.add_connection(*graph->first, kOut, *graph->second, kIn);
    return graph;
}

std::string describe_graph(Graph& graph)
{
    std::ostringstream text;
    Superblock& outer = graph.outer;
    text << outer.get_name() << '|' << outer.pstore().get_path();
    for (const Block* block : outer.get_blocks()) {
        text << '|' << block->get_name();
    }
    for (const auto& [from, out, to, in] : outer.get_connections()) {
        text << '|' << from.get_name() << '.' << out << '>' << to.get_name() << '.' << in;
    }
    const auto inputs = outer.get_inports_info();
    for (const auto& [name, type] : std::map<std::string, Datatype>(inputs.begin(), inputs.end())) {
        text << '|' << name << ':' << type.get_name() << outer.get_inport(name).size();
    }
    const auto outputs = outer.get_outports_info();
    for (const auto& [name, type] :
         std::map<std::string, Datatype>(outputs.begin(), outputs.end())) {
        text << '|' << name << ':' << type.get_name();
    }
    text << '|' << outer.get_fdports_info().size();
    text << '|' << static_cast<bool>(graph.candidate)
         << static_cast<bool>(std::get<0>(graph.created)) << static_cast<bool>(graph.rival);
    return text.str();
}

struct Operation {
    const char* name;
    void (*act)(Graph& graph);
};

void expect_clean_failures(const std::vector<Operation>& operations)
{
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        EXPECT_GT(fail_each_allocation(prepare_graph, operation.act, describe_graph), 0U);
        if (testing::Test::HasFailure()) {
            return;
        }
    }
}

TEST(SuperblockOutOfMemory, IsNotMadeWhenItsConstructionFails)
{
    EXPECT_GT(fail_each_allocation([] { Superblock("a-superblock-with-a-long-name"); }), 0U);
    const BlockConfiguration config{{"pstore_path", "/a/store/path/that/is/long/"}};
    EXPECT_GT(fail_each_allocation([&config] { Superblock("a-superblock", config); }), 0U);
    const BlockConfiguration wrong{{"pstore_path", 5}};
    EXPECT_GT(fail_each_allocation([&wrong] {
                  refuse<std::runtime_error>([&] { Superblock("a-superblock", wrong); });
              }),
              0U);
}

TEST(SuperblockOutOfMemory, KeepsTheMemberWithTheCallerWhenItCannotBeAdded)
{
    expect_clean_failures({
        {"a member", [](Graph& graph) { graph.outer.add_block(std::move(graph.candidate)); }},
        {"a created member", [](Graph& graph) { graph.outer.add_block(std::move(graph.created)); }},
        {"a member whose name is taken",
         [](Graph& graph) {
             if (graph.rival) {
                 refuse<std::runtime_error>([&] { graph.outer.add_block(std::move(graph.rival)); });
             }
         }},
        {"no member",
         [](Graph& graph) {
             refuse<std::runtime_error>([&] { graph.outer.add_block(Member()); });
         }},
    });
}

TEST(SuperblockOutOfMemory, StaysAsItWasWhenPortsCannotBeConnectedOrExposed)
{
    expect_clean_failures({
        {"a connection",
         [](Graph& graph) { graph.outer.add_connection(*graph.second, kOut, *graph.first, kIn); }},
        {"a connection to two inputs",
         [](Graph& graph) {
             graph.outer.add_connection(*graph.second, kOut, *graph.inner,
                                        "an-inner-input-with-a-long-name");
         }},
        {"a connection from a missing output",
         [](Graph& graph) {
             refuse<std::runtime_error>(
                 [&] { graph.outer.add_connection(*graph.second, "none", *graph.first, kIn); });
         }},
        {"a connection to a missing input",
         [](Graph& graph) {
             refuse<std::runtime_error>(
                 [&] { graph.outer.add_connection(*graph.second, kOut, *graph.first, "none"); });
         }},
        {"a new input",
         [](Graph& graph) {
             graph.outer.add_inport("a-new-input-with-a-long-name", *graph.second, kIn);
         }},
        {"a further input under a name in use",
         [](Graph& graph) {
             graph.outer.add_inport("an-outer-input-with-a-long-name", *graph.inner,
                                    "an-inner-input-with-a-long-name");
         }},
        {"an input without a name",
         [](Graph& graph) {
             refuse<std::runtime_error>([&] { graph.outer.add_inport("", *graph.first, kIn); });
         }},
        {"a missing input",
         [](Graph& graph) {
             refuse<std::out_of_range>([&] { graph.outer.add_inport("a", *graph.first, "none"); });
         }},
        {"a new output",
         [](Graph& graph) {
             graph.outer.add_outport("a-new-output-with-a-long-name", *graph.inner,
                                     "an-inner-output-with-a-long-name");
         }},
        {"an output whose name is taken",
         [](Graph& graph) {
             refuse<std::runtime_error>([&] {
                 graph.outer.add_outport("an-outer-output-with-a-long-name", *graph.first, kOut);
             });
         }},
        {"a missing output",
         [](Graph& graph) {
             refuse<std::out_of_range>([&] { graph.outer.add_outport("a", *graph.first, "none"); });
         }},
        {"an output without a name",
         [](Graph& graph) {
             refuse<std::runtime_error>([&] { graph.outer.add_outport("", *graph.first, kOut); });
         }},
    });
}

TEST(SuperblockOutOfMemory, StaysAsItWasWhenALookUpFails)
{
    expect_clean_failures({
        {"get_inport",
         [](Graph& graph) { graph.outer.get_inport("an-outer-input-with-a-long-name"); }},
        {"get_inport of a missing one",
         [](Graph& graph) { refuse<std::out_of_range>([&] { graph.outer.get_inport("none"); }); }},
        {"get_outport of a missing one",
         [](Graph& graph) { refuse<std::out_of_range>([&] { graph.outer.get_outport("none"); }); }},
        {"get_blocks", [](Graph& graph) { graph.outer.get_blocks(); }},
        {"get_connections", [](Graph& graph) { graph.outer.get_connections(); }},
        {"get_inports_info", [](Graph& graph) { graph.outer.get_inports_info(); }},
        {"get_outports_info", [](Graph& graph) { graph.outer.get_outports_info(); }},
        {"get_fdports_info", [](Graph& graph) { graph.outer.get_fdports_info(); }},
        {"get_block of a missing one",
         [](Graph& graph) {
             refuse<std::invalid_argument>([&] { graph.outer.get_block("none"); });
         }},
        {"setup", [](Graph& graph) { graph.outer.setup(BlockConfiguration()); }},
        {"set_name", [](Graph& graph) { graph.outer.set_name("a-new-name-that-is-not-short"); }},
        {"pstore", [](Graph& graph) { graph.outer.pstore().set_path("/a/long/store/path/"); }},
    });
}

TEST(SuperblockOutOfMemory, NeverFailsWhereNothingHasToBeAllocated)
{
    static const std::string output = "an-outer-output-with-a-long-name";
    static const std::string member = "the-first-block-with-a-long-name";
    const std::vector<Operation> operations = {
        {"get_outport", [](Graph& graph) { graph.outer.get_outport(output); }},
        {"get_block", [](Graph& graph) { graph.outer.get_block(member); }},
        {"get_name", [](Graph& graph) { graph.outer.get_name(); }},
    };

    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        EXPECT_EQ(fail_each_allocation(prepare_graph, operation.act, describe_graph), 0U);
    }
}

}  // namespace
