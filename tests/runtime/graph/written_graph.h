// Graph files that know where each of their parts stands.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace quorval_test {

/// "LINE:COLUMN", from 1; empty where nothing was written.
using Spot = std::string;

/// A value, or a table or list of parts.
struct Part {
    enum class Kind { Value, Table, List };

    /// The last part of that key; null where there is none.
    Part* find(const std::string& name);
    const Part* find(const std::string& name) const;

    std::string key;    // in a list the number of the item, from 0
    std::string value;  // as it stands in the file; of a value alone
    Kind kind = Kind::Table;
    std::vector<Part> parts;
    Spot key_spot;  // where it is written first
    Spot value_spot;
    std::string written_key;  // with the keys that stand in front of it on its line
};

/// How tables are written: `a.b = 1`, `[a]` or `a = { b = 1 }`.
enum class Style { Dotted, Headers, Inline };

/// A graph of one file or of several. A part is named by "FILE:KEY.KEY"; the items of a list have
/// numbers as keys, and "FILE:" is the whole file.
class WrittenGraph {
public:
    /// @param text  lines "KEY.KEY = VALUE", in order; "--- FILE" begins a file
    explicit WrittenGraph(const std::string& text);

    /// A part that is there.
    /// @throws std::out_of_range  it is not: its name
    Part& at(const std::string& name);
    const Part& at(const std::string& name) const;

    /// All parts of these keys, which each file may have; their names.
    std::vector<std::string> all(const std::string& keys) const;

    /// Names of all parts below one.
    std::vector<std::string> below(const std::string& name) const;

    void set(const std::string& name, const std::string& value);
    void drop(const std::string& name);
    void rename(const std::string& name, const std::string& key);

    /// Puts a part into a table or list: at its beginning, or behind the part `after`.
    void insert(const std::string& table, Part part, const std::string& after = {});

    /// The files as texts. Parts have their spots from then on.
    std::vector<std::pair<std::string, std::string>> write(Style style);

private:
    std::vector<std::pair<std::string, Part>> files_;
};

/// "KEYS.KEY" or "FILE:KEY".
std::string join(const std::string& keys, const std::string& key);

}  // namespace quorval_test
