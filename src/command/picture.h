// A graph as a picture.
#pragma once

#include <quorval/runtime/graph.h>

#include <string>
#include <vector>

/// What a picture shows.
struct Picture {
    std::string name;                            ///< of the graph
    std::vector<Quorval::BlockInfo> blocks;      ///< in the order in which they run
    std::vector<Quorval::ConnectionInfo> wires;  ///< in the order in which they are taken over
};

/// For Graphviz: machines and superblocks are clusters, delayed connections dashed.
std::string to_dot(const Picture& picture);

/// For Mermaid: machines and superblocks are subgraphs, delayed connections dotted.
std::string to_mermaid(const Picture& picture);

/// `{"format": 1, "name", "blocks", "connections"}`.
std::string to_json(const Picture& picture);
