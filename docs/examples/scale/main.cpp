#include <quorval/pluginloader.h>
#include <quorval/superblock.h>

#include <iostream>

using namespace Quorval;

struct Quorval::InitTools {};  // what an application offers to its plug-ins

int main()
{
    const InitTools tools{};
    const PluginLoader loader("scale.so", tools);  // from the directory $QUORVAL_PLUGIN_DIR

    Superblock graph("graph");
    Container& first = graph.add_block(loader.create("Scale", {{"factor", 2.0}}, "1_double"));
    Container& second = graph.add_block(loader.create("Scale", {{"factor", 10.0}}, "2_tenfold"));
    graph.add_connection(first, "out", second, "in");
    graph.add_inport("in", first, "in");
    graph.add_outport("out", second, "out");

    // The library describes the graph; the application moves the data and runs the blocks.
    OutPort<double> source("source", Datatype("double"));
    source.write(1.5);
    for (const auto& [block, inport] : graph.get_inport("in")) {
        inport.get_connectable()->update(source);
    }
    for (Block* block : graph.get_blocks()) {  // in the order of their names
        block->run();
        for (const auto& [from, outport, to, inport] : graph.get_connections()) {
            if (&from == block) {
                InPortProvider& target = to.get_inport(inport).front().second;
                target.get_connectable()->update(from.get_outport(outport).second);
            }
        }
    }
    std::cout << *static_cast<double*>(graph.get_outport("out").second.get_data()) << '\n';  // 30
}
