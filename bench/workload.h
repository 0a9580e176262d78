// The configurations that the benchmarks are run with, and their counterparts in other libraries.
#pragma once

#include <quorval/config.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace quorval_bench {

/// An int under a key of three levels.
struct Entry {
    std::string key;
    std::string group;  ///< the first component
    std::string part;   ///< the second
    std::string leaf;   ///< the third
    int value;
};

/// How long the components are: `n12.p3.v7`, which fits into the object of a string, or
/// `filter12.channel3.threshold7`, which does not.
enum class Keys { Short, Long };

/// `count` entries, in the order of their keys, with different values.
std::vector<Entry> make_entries(std::size_t count, Keys keys = Keys::Short);

/// The same in a random order, always the same one.
std::vector<Entry> shuffled(std::vector<Entry> entries);

/// A configuration of ints.
Quorval::BlockConfiguration make_config(const std::vector<Entry>& entries);

/// The sum of the values, for comparing results.
long sum_of(const std::vector<Entry>& entries);

/// What one would write without the library: the same eight types under full keys.
using PlainValue = std::variant<int, bool, double, std::string, std::vector<int>,
                                std::vector<double>, std::vector<std::string>, std::vector<bool>>;
using PlainMap = std::map<std::string, PlainValue>;

/// `count` elements of all eight types in turn; vectors have four items.
PlainMap make_mixed(std::size_t count);
/// The same with the four types that are no vectors.
PlainMap make_mixed_scalars(std::size_t count);

Quorval::BlockConfiguration make_config(const PlainMap& elements);

/// Calls that cannot be inlined and do next to nothing: what calls alone take.
class Calls {
public:
    Calls() = default;
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;
    virtual ~Calls();

    void count();
    virtual void step();
    virtual bool is_over();
    virtual int get();

private:
    int left_ = 0;
};

std::unique_ptr<Calls> make_calls();

}  // namespace quorval_bench
