#include "runtime/support/graph_files.h"

#include <filesystem>

namespace quorval_test {

using Quorval::Diagnostic;
using Quorval::GraphError;
using Quorval::GraphOptions;

void GraphFiles::write(const std::string& name, const std::string& text)
{
    const std::filesystem::path file = directory_.path() / name;
    std::filesystem::create_directories(file.parent_path());
    write_file(file, text);
}

std::string GraphFiles::path(const std::string& name) const
{
    return directory_.path() / name;
}

GraphOptions GraphFiles::options(const std::vector<std::string>& names) const
{
    GraphOptions options;
    for (const std::string& name : names) {
        options.files.push_back(path(name));
    }
    options.plugin_path = {test_plugin_directory()};
    return options;
}

std::vector<std::string> GraphFiles::findings(const GraphOptions& options) const
{
    std::vector<Diagnostic> diagnostics;
    try {
        diagnostics = Quorval::runtime::load_graph(options).warnings;
    } catch (const GraphError& error) {
        diagnostics = error.diagnostics();
    }
    std::vector<std::string> lines;
    for (const Diagnostic& diagnostic : diagnostics) {
        lines.push_back(strip(to_string(diagnostic)));
    }
    return lines;
}

std::vector<std::string> GraphFiles::findings(const std::vector<std::string>& names) const
{
    return findings(options(names));
}

std::vector<std::string> GraphFiles::findings_for(const std::string& text)
{
    write("g.toml", "format = 1\n" + text);
    return findings();
}

Quorval::runtime::LoadedGraph GraphFiles::load(const std::string& text)
{
    write("g.toml", "format = 1\n" + text);
    return Quorval::runtime::load_graph(options());
}

std::string GraphFiles::strip(std::string text) const
{
    const std::string prefix = directory_.path().string() + "/";
    for (std::size_t at = text.find(prefix); at != std::string::npos; at = text.find(prefix, at)) {
        text.erase(at, prefix.size());
    }
    return text;
}

std::string test_plugin_directory()
{
    return QUORVAL_TEST_PLUGIN_DIR;
}

}  // namespace quorval_test
