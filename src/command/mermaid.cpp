// Pictures for Mermaid.
#include "hierarchy.h"
#include "picture.h"
#include "text.h"

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace {

/// A text in quotes, in which everything that Mermaid could take for a mark is named by its number.
std::string escape(const std::string& text)
{
    constexpr std::string_view kMarks = "\"#&<>`\\";
    std::string escaped;
    for (const char character : to_printable(text)) {
        if (kMarks.find(character) == std::string_view::npos) {
            escaped += character;
        } else {
            escaped += "#" + std::to_string(static_cast<int>(character)) + ";";
        }
    }
    return escaped;
}

std::string quote(const std::string& first, const std::string& second)
{
    return "\"" + escape(first) + "<br/>" + escape(second) + "\"";
}

/// Writes what a folder holds. Paths may hold words of the language, so blocks and superblocks are
/// numbered.
class Writer {
public:
    explicit Writer(const Picture& picture) : picture_(picture) {}

    void append(const Folder& folder, const std::string& indent)
    {
        for (const auto& [name, index] : folder.blocks) {
            const Quorval::BlockInfo& block = picture_.blocks[index];
            const std::string id = "b" + std::to_string(ids_.size());
            ids_[block.path] = id;
            text_ += indent + id + "[" + quote(name, block.type) + "]\n";
        }
        for (const auto& [name, inner] : folder.folders) {
            text_ += indent + "subgraph s" + std::to_string(folder_count_++) + "[\"" +
                     escape(name) + "\"]\n";
            append(inner, indent + "    ");
            text_ += indent + "end\n";
        }
    }

    void append_machine(const std::string& machine, const Folder& folder)
    {
        if (machine.empty()) {
            append(folder, "    ");
            return;
        }
        text_ += "    subgraph m" + std::to_string(machine_count_++) + "[\"" +
                 escape("machine " + machine) + "\"]\n";
        append(folder, "        ");
        text_ += "    end\n";
    }

    void append(const Quorval::ConnectionInfo& wire)
    {
        text_ += "    " + ids_[wire.from_path] + (wire.is_delayed ? " -.->|" : " -->|") +
                 quote(wire.output + " -> " + wire.input, wire.type) + "| " + ids_[wire.to_path] +
                 "\n";
    }

    const std::string& text() const { return text_; }

private:
    const Picture& picture_;
    std::string text_ = "flowchart LR\n";
    std::map<std::string, std::string> ids_;  // by path
    std::size_t folder_count_ = 0;
    std::size_t machine_count_ = 0;
};

}  // namespace

std::string to_mermaid(const Picture& picture)
{
    Writer writer(picture);
    for (const auto& [machine, folder] : sort_into_machines(picture.blocks)) {
        writer.append_machine(machine, folder);
    }
    for (const Quorval::ConnectionInfo& wire : picture.wires) {
        writer.append(wire);
    }
    return writer.text();
}
