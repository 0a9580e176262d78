#include <quorval/runtime/diagnostic.h>
#include <quorval/runtime/graph.h>
#include "description/read.h"
#include "fuzz/input.h"
#include "graph/loaded_graph.h"
#include "runtime/fuzz/targets.h"
#include "runtime/support/graph_files.h"
#include "support/allocations.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace quorval_fuzz {

using Quorval::Diagnostic;
using Quorval::GraphError;
using Quorval::GraphOptions;

namespace {

/// Where open() notes its paths; null: nowhere.
std::vector<std::string>* opened_paths = nullptr;

}  // namespace

/// In place of that of the C library, for the runtime too.
extern "C" int open(const char* path, int flags, ...)
{
    if (opened_paths != nullptr) {
        opened_paths->emplace_back(path);
    }
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

namespace {

/// The pieces of an input, parted by a byte that no TOML holds.
std::vector<std::string> pieces_of(const std::string& input, char separator)
{
    std::vector<std::string> pieces(1);
    for (const char character : input) {
        if (character == separator) {
            pieces.emplace_back();
        } else {
            pieces.back() += character;
        }
    }
    return pieces;
}

/// Three files, each of which may include the others, and assignments, a line each.
class GraphInput {
public:
    explicit GraphInput(const std::string& input) : input_(input)
    {
        std::vector<std::string> pieces = pieces_of(input, '\x01');
        pieces.resize(4);
        for (std::size_t i = 0; i < 3; ++i) {
            const char* const names[] = {"g.toml", "a.toml", "b.toml"};
            files().write(names[i], pieces[i]);
            texts_[names[i]] = pieces[i];
        }
        options_ = files().options();
        options_.is_dry = true;
        options_.keeps_plugins = true;  // the fuzzer counts in them
        if (!pieces[3].empty()) {
            options_.assignments = pieces_of(pieces[3], '\n');
        }
    }

    const GraphOptions& options() const { return options_; }

    void check(const std::vector<Diagnostic>& diagnostics) const
    {
        std::vector<std::string> lines;
        for (const Diagnostic& diagnostic : diagnostics) {
            check_line(diagnostic);
            lines.push_back(to_string(diagnostic));
        }
        std::sort(lines.begin(), lines.end());
        require(std::adjacent_find(lines.begin(), lines.end()) == lines.end(), "no line twice");
    }

    /// What is opened elsewhere than among the files and the plug-ins is what the input names. With
    /// an escape in it that may be anything.
    void check_opened(const std::vector<std::string>& paths) const
    {
        for (const std::string& path : paths) {
            const bool is_below = path.find("/../") == std::string::npos &&
                                  (path.find(files().directory().path()) == 0 ||
                                   path.find(quorval_test::test_plugin_directory()) == 0);
            const std::string name = std::filesystem::path(path).filename();
            require(is_below || input_.find(name) != std::string::npos ||
                        input_.find('\\') != std::string::npos,
                    "a path that the input names");
        }
    }

private:
    static quorval_test::GraphFiles& files()
    {
        static quorval_test::GraphFiles files;
        return files;
    }

    void check_line(const Diagnostic& diagnostic) const
    {
        for (const char character : to_string(diagnostic)) {
            require(static_cast<unsigned char>(character) >= ' ' && character != '\x7f',
                    "one line of text");
        }
        if (diagnostic.line == 0) {
            require(diagnostic.file.find("--set ") == 0, "a place");
            return;
        }
        const auto text = texts_.find(files().strip(diagnostic.file));
        if (text != texts_.end()) {
            check_place(diagnostic, text->second);
        }
    }

    /// The place is one of the file, or behind a line of it: for the parser the end of the file
    /// lies behind the end of its last line.
    static void check_place(const Diagnostic& diagnostic, const std::string& text)
    {
        const std::vector<std::string> lines = pieces_of(text, '\n');
        require(diagnostic.line <= lines.size(), "a line of the file");
        require(diagnostic.column >= 1, "a column");
        require(diagnostic.column <= lines[diagnostic.line - 1].size() + 2, "a column of the line");
    }

    std::string input_;
    std::map<std::string, std::string> texts_;
    GraphOptions options_;
};

/// The most that reading may hold at once: the parser's tree, with a place for each value.
std::size_t most_memory(std::size_t input)
{
    return 256 * 1024 + 1024 * input;
}

}  // namespace

void fuzz_graph(const std::uint8_t* data, std::size_t size)
{
    const GraphInput input(std::string(reinterpret_cast<const char*>(data), size));
    const GraphOptions& options = input.options();
    bool is_form_right = true;
    const std::size_t peak = quorval_test::peak_of([&] {
        try {
            Quorval::runtime::read_graph(options.files, options.assignments);
        } catch (const std::invalid_argument&) {
            is_form_right = false;
        }
    });
    require(peak <= most_memory(size), "the memory that reading has held");

    std::vector<std::string> opened;
    opened_paths = &opened;
    try {
        input.check(Quorval::runtime::load_graph(options).warnings);
    } catch (const GraphError& error) {
        require(!error.diagnostics().empty(), "a reason");
        input.check(error.diagnostics());
    } catch (const std::invalid_argument& error) {
        const std::string text = error.what();
        require(!is_form_right || text.find("machine") != std::string::npos,
                "a reason that the command line gives");
    }
    opened_paths = nullptr;
    require(!is_form_right || !opened.empty(), "files that are opened");
    input.check_opened(opened);
}

}  // namespace quorval_fuzz
