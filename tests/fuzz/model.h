// A configuration as one would write it down first: a map, and each operation a plain loop over it.
#pragma once

#include <quorval/config.h>

#include <ios>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace quorval_fuzz {

// In the order of BlockConfiguration::Type.
using ModelValue = std::variant<int, bool, double, std::string, std::vector<int>,
                                std::vector<double>, std::vector<std::string>, std::vector<bool>>;

struct ModelElement {
    ModelValue value;
    bool consumed = false;
};

using Model = std::map<std::string, ModelElement>;

const char* type_name(const ModelValue& value);

/// A value as a text from which it can be told from any other, NaN and all.
std::string show(const ModelValue& value);

/// The text of an invalid key, empty when the key is valid.
std::string refusal_of_key(const std::string& key);

bool is_equal(const ModelValue& a, const ModelValue& b);

/// What the text form of the configuration has to be, on a stream as it is by default or with the
/// format of another.
std::string print(const Model& model);
std::string print(const Model& model, const std::ios& format);

/// Whether all are consumed.
bool is_consumed(const Model& model);

/// Throws unless the configuration holds the same keys, types and values, and is consumed exactly
/// when the model is. Leaves the marks alone.
void check_same(const Quorval::BlockConfiguration& config, const Model& model);

/// As check_same(), and marks for themselves: each of a small one, some of a large one.
void check_same_marks(const Quorval::BlockConfiguration& config, const Model& model);

/// The binary form of a configuration, without a file.
std::string to_bytes(const Quorval::BlockConfiguration& config);

}  // namespace quorval_fuzz
