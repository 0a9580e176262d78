#include <quorval/runtime/graph.h>
#include <quorval/runtime/messages.h>

#include <iostream>

int main(int argc, char* argv[])
{
    const Quorval::Messages messages;  // warnings and errors, on standard error

    Quorval::GraphOptions options;
    options.files.assign(argv + 1, argv + argc);
    options.takes_signals = true;  // SIGINT and SIGTERM stop the graph
    try {
        Quorval::Graph graph(options);
        for (const Quorval::Diagnostic& warning : graph.warnings()) {
            std::cerr << to_string(warning) << '\n';
        }
        return graph.run() == Quorval::RunResult::Done ? 0 : 1;
    } catch (const Quorval::GraphError& error) {
        std::cerr << error.what() << '\n';
        return 3;
    }
}
