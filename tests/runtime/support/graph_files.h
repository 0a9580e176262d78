// Graph files of a test, and what comes of loading them.
#pragma once

#include <quorval/runtime/graph.h>
#include "description/read.h"
#include "graph/loaded_graph.h"
#include "support/support.h"

#include <string>
#include <vector>

namespace quorval_test {

/// Files in a directory of their own, named in messages without it.
class GraphFiles {
public:
    /// Writes a file.
    /// @param name  below the directory
    void write(const std::string& name, const std::string& text);

    /// The file as the loader gets it.
    std::string path(const std::string& name) const;
    const TemporaryDirectory& directory() const { return directory_; }

    /// For loading files with the plug-ins of the tests.
    Quorval::GraphOptions options(const std::vector<std::string>& names = {"g.toml"}) const;

    /// The findings of loading, a line each; the errors, or the warnings where there is none.
    std::vector<std::string> findings(const Quorval::GraphOptions& options) const;
    std::vector<std::string> findings(const std::vector<std::string>& names = {"g.toml"}) const;

    /// The findings for one file `g.toml`, in front of whose text stands a line "format = 1".
    std::vector<std::string> findings_for(const std::string& text);

    /// One loaded graph.
    Quorval::runtime::LoadedGraph load(const std::string& text);

    /// A text without the name of the directory.
    std::string strip(std::string text) const;

private:
    TemporaryDirectory directory_;
};

/// Where the plug-ins of the tests lie.
std::string test_plugin_directory();

}  // namespace quorval_test
