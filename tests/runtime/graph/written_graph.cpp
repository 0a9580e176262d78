#include "runtime/graph/written_graph.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace quorval_test {

namespace {

bool is_number(const std::string& key)
{
    return key.find_first_not_of("0123456789") == std::string::npos;
}

std::vector<std::string> split(const std::string& keys)
{
    std::vector<std::string> result;
    std::istringstream stream(keys);
    for (std::string key; std::getline(stream, key, '.');) {
        result.push_back(key);
    }
    return result;
}

/// The part of these keys below another one; null where there is none.
Part* descend(Part& root, const std::string& keys)
{
    Part* part = &root;
    for (const std::string& key : split(keys)) {
        part = part != nullptr ? part->find(key) : nullptr;
    }
    return part;
}

Part& make(Part& root, const std::string& keys)
{
    Part* part = &root;
    for (const std::string& key : split(keys)) {
        part->kind = is_number(key) ? Part::Kind::List : Part::Kind::Table;
        if (part->find(key) == nullptr) {
            part->parts.push_back({key, {}, Part::Kind::Table, {}, {}, {}, {}});
        }
        part = part->find(key);
    }
    return *part;
}

/// "KEYS" without the last key, and that one.
std::pair<std::string, std::string> split_last(const std::string& name)
{
    const std::size_t at = name.find_last_of(".:");
    const std::string before = name.substr(0, name[at] == ':' ? at + 1 : at);
    return {before, name.substr(at + 1)};
}

class Writer {
public:
    explicit Writer(Style style) : style_(style) {}

    std::string write(Part& root)
    {
        if (style_ == Style::Headers) {
            write_with_headers(root);
        } else {
            write_lines(root, {});
        }
        return text_;
    }

private:
    void put(const std::string& text)
    {
        for (const char c : text) {
            text_ += c;
            column_ = c == '\n' ? 1 : column_ + 1;
            line_ += c == '\n' ? 1 : 0;
        }
    }

    void mark(Spot& spot) const
    {
        if (spot.empty()) {
            spot = std::to_string(line_) + ":" + std::to_string(column_);
        }
    }

    void put_key(Part& part)
    {
        mark(part.key_spot);
        const bool is_bare = part.key.find_first_of(" .%") == std::string::npos;
        put(is_bare ? part.key : "\"" + part.key + "\"");
    }

    void put_keys(const std::vector<Part*>& keys)
    {
        std::string all;
        for (std::size_t i = 0; i < keys.size(); ++i) {
            put(i > 0 ? "." : "");
            put_key(*keys[i]);
            all += (i > 0 ? "." : "") + keys[i]->key;
        }
        keys.back()->written_key = all;
    }

    void put_value(Part& part)
    {
        mark(part.value_spot);
        const bool is_list = part.kind == Part::Kind::List;
        if (part.kind == Part::Kind::Value) {
            put(part.value);
            return;
        }
        put(is_list ? "[" : "{");
        for (std::size_t i = 0; i < part.parts.size(); ++i) {
            put(i > 0 ? ", " : " ");
            if (!is_list) {
                put_keys({&part.parts[i]});
                put(" = ");
            }
            put_value(part.parts[i]);
        }
        put(is_list ? " ]" : " }");
    }

    void put_line(const std::vector<Part*>& keys)
    {
        put_keys(keys);
        put(" = ");
        put_value(*keys.back());
        put("\n");
    }

    /// A line for each value below a table.
    void write_lines(Part& table, std::vector<Part*> keys)
    {
        for (Part& part : table.parts) {
            keys.push_back(&part);
            const bool is_whole = part.kind != Part::Kind::Table || part.parts.empty();
            if (is_whole || style_ == Style::Inline) {
                put_line(keys);
            } else {
                write_lines(part, keys);
            }
            keys.pop_back();
        }
    }

    void put_header(const std::vector<Part*>& keys)
    {
        put("\n[");
        put_keys(keys);
        put("]\n");
    }

    /// The values of a file, then its tables, two levels deep.
    void write_with_headers(Part& root)
    {
        for (Part& part : root.parts) {
            if (part.kind != Part::Kind::Table) {
                put_line({&part});
            }
        }
        for (Part& table : root.parts) {
            if (table.kind == Part::Kind::Table) {
                write_table(table);
            }
        }
    }

    static bool has_tables(const Part& part)
    {
        return std::any_of(part.parts.begin(), part.parts.end(),
                           [](const Part& inner) { return inner.kind == Part::Kind::Table; });
    }

    void write_table(Part& table)
    {
        if (!has_tables(table)) {
            put_header({&table});
        }
        for (Part& part : table.parts) {
            if (part.kind != Part::Kind::Table) {
                if (has_tables(table) && table.key_spot.empty()) {
                    put_header({&table});
                }
                put_line({&part});
            }
        }
        for (Part& part : table.parts) {
            if (part.kind == Part::Kind::Table) {
                put_header({&table, &part});
                write_lines(part, {});
            }
        }
    }

    Style style_;
    std::string text_;
    unsigned line_ = 1;
    unsigned column_ = 1;
};

void forget_spots(Part& part)
{
    part.key_spot.clear();
    part.value_spot.clear();
    for (Part& inner : part.parts) {
        forget_spots(inner);
    }
}

void collect(const Part& part, const std::string& name, std::vector<std::string>& names)
{
    for (const Part& inner : part.parts) {
        const std::string inner_name = join(name, inner.key);
        names.push_back(inner_name);
        collect(inner, inner_name, names);
    }
}

}  // namespace

Part* Part::find(const std::string& name)
{
    const auto at = std::find_if(parts.rbegin(), parts.rend(),
                                 [&](const Part& part) { return part.key == name; });
    return at != parts.rend() ? &*at : nullptr;
}

const Part* Part::find(const std::string& name) const
{
    return const_cast<Part*>(this)->find(name);
}

WrittenGraph::WrittenGraph(const std::string& text)
{
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line.rfind("--- ", 0) == 0) {
            files_.emplace_back(line.substr(4), Part());
        } else if (!line.empty()) {
            const std::size_t equals = line.find(" = ");
            Part& part = make(files_.back().second, line.substr(0, equals));
            part.value = line.substr(equals + 3);
            part.kind = part.value == "{}" ? Part::Kind::Table : Part::Kind::Value;
        }
    }
}

Part& WrittenGraph::at(const std::string& name)
{
    const std::size_t colon = name.find(':');
    for (auto& [file, root] : files_) {
        if (file == name.substr(0, colon)) {
            if (Part* part = descend(root, name.substr(colon + 1))) {
                return *part;
            }
        }
    }
    throw std::out_of_range(name);
}

const Part& WrittenGraph::at(const std::string& name) const
{
    return const_cast<WrittenGraph*>(this)->at(name);
}

std::vector<std::string> WrittenGraph::all(const std::string& keys) const
{
    std::vector<std::string> names;
    for (const auto& [file, root] : files_) {
        if (descend(const_cast<Part&>(root), keys) != nullptr) {
            names.push_back(file + ":" + keys);
        }
    }
    return names;
}

std::vector<std::string> WrittenGraph::below(const std::string& name) const
{
    std::vector<std::string> names;
    collect(at(name), name, names);
    return names;
}

void WrittenGraph::set(const std::string& name, const std::string& value)
{
    Part& part = at(name);
    part = {part.key, value, Part::Kind::Value, {}, {}, {}, {}};
}

void WrittenGraph::drop(const std::string& name)
{
    const auto [table, key] = split_last(name);
    std::vector<Part>& parts = at(table).parts;
    parts.erase(std::find_if(parts.begin(), parts.end(),
                             [key = key](const Part& part) { return part.key == key; }));
}

void WrittenGraph::rename(const std::string& name, const std::string& key)
{
    at(name).key = key;
}

void WrittenGraph::insert(const std::string& table, Part part, const std::string& after)
{
    std::vector<Part>& parts = at(table).parts;
    const auto behind = std::find_if(parts.begin(), parts.end(),
                                     [&](const Part& other) { return other.key == after; });
    parts.insert(behind != parts.end() ? behind + 1 : parts.begin(), std::move(part));
}

std::vector<std::pair<std::string, std::string>> WrittenGraph::write(Style style)
{
    std::vector<std::pair<std::string, std::string>> texts;
    for (auto& [file, root] : files_) {
        forget_spots(root);
        texts.emplace_back(file, Writer(style).write(root));
    }
    return texts;
}

std::string join(const std::string& keys, const std::string& key)
{
    return keys.empty() || keys.back() == ':' ? keys + key : keys + "." + key;
}

}  // namespace quorval_test
