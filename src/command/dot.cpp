// Pictures for Graphviz.
#include "hierarchy.h"
#include "picture.h"
#include "text.h"

#include <string>

namespace {

/// A text in quotes. A backslash would begin an escape sequence of a label.
std::string quote(const std::string& text)
{
    std::string quoted = "\"";
    for (const char character : to_printable(text)) {
        if (character == '"' || character == '\\') {
            quoted += '\\';
        }
        quoted += character;
    }
    return quoted + "\"";
}

/// Two lines in one label.
std::string quote(const std::string& first, const std::string& second)
{
    std::string quoted = quote(first);
    quoted.pop_back();
    return quoted + "\\n" + quote(second).substr(1);
}

void append(std::string& text, const Folder& folder, const Picture& picture,
            const std::string& indent)
{
    for (const auto& [name, index] : folder.blocks) {
        const Quorval::BlockInfo& block = picture.blocks[index];
        text += indent + quote(block.path) + " [label=" + quote(name, block.type) + "];\n";
    }
    for (const auto& [name, inner] : folder.folders) {
        text += indent + "subgraph " + quote("cluster_" + inner.path) + " {\n";
        text += indent + "    label=" + quote(name) + ";\n";
        append(text, inner, picture, indent + "    ");
        text += indent + "}\n";
    }
}

/// A machine is a cluster of its own. No path has a blank, so that its name is that of no block.
void append_machine(std::string& text, const std::string& machine, const Folder& folder,
                    const Picture& picture)
{
    if (machine.empty()) {
        append(text, folder, picture, "    ");
        return;
    }
    text += "    subgraph " + quote("cluster_machine " + machine) + " {\n";
    text += "        label=" + quote("machine " + machine) + ";\n";
    text += "        style=rounded;\n";
    append(text, folder, picture, "        ");
    text += "    }\n";
}

}  // namespace

std::string to_dot(const Picture& picture)
{
    std::string text = "digraph " + quote(picture.name) + " {\n";
    text += "    rankdir=LR;\n";
    text += "    node [shape=box];\n";
    for (const auto& [machine, folder] : sort_into_machines(picture.blocks)) {
        append_machine(text, machine, folder, picture);
    }
    for (const Quorval::ConnectionInfo& wire : picture.wires) {
        text += "    " + quote(wire.from_path) + " -> " + quote(wire.to_path) +
                " [label=" + quote(wire.output + " -> " + wire.input, wire.type) +
                (wire.is_delayed ? ", style=dashed" : "") + "];\n";
    }
    return text + "}\n";
}
