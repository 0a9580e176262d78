// A graph as the files and assignments describe it, checked for its form alone. Plain records: no
// plug-in has been looked for, no port has been looked up.
#pragma once

#include "description/problem.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Quorval::runtime {

/// A value that a configuration can hold.
using Value = std::variant<int, bool, double, std::string, std::vector<int>, std::vector<double>,
                           std::vector<std::string>, std::vector<bool>>;

/// One element of a block's configuration.
struct Setting {
    std::string key;  ///< the full dotted key
    Value value;
    bool is_wrong = false;           ///< the value means nothing: it is wrong, which is reported
    Place key_place;                 ///< of the last component of the key
    Place value_place;               ///< of the value
    std::vector<Place> item_places;  ///< of the items of a list that stands in a file
    bool is_saved = false;           ///< it was kept from a change in an earlier run
};

/// What becomes of the graph when a block fails.
enum class OnError { Stop, Skip };

/// How a value travels to another machine.
enum class Delivery { Latest, All };

/// A member of a graph or of a kind of superblock.
struct MemberDescription {
    std::string name;
    Place name_place;
    std::string type;  ///< "PLUGIN:TYPE" or the name of a kind of superblock
    Place type_place;
    bool has_type = false;         ///< it can be used; what is wrong otherwise is reported
    bool misses_type = false;      ///< nothing was written that could be meant as its type
    std::vector<Setting> config;   ///< by key, each once
    bool is_config_wrong = false;  ///< as a whole, which is reported
    std::optional<OnError> on_error;
    std::string machine;  ///< that it runs on; of a member of the graph, empty where none is given
    Place machine_place;  ///< line 0: none is given
    bool misses_machine = false;  ///< nothing was written that could be meant as its machine
};

constexpr std::uint32_t kNoMember = 0xFFFFFFFF;

/// One end of a connection, or the inner end of an exposed port.
struct EndDescription {
    std::string block;  ///< empty: the end is wrong, which is reported
    std::string port;
    Place place;
    std::uint32_t member = kNoMember;  ///< where the block stands in the list; see find_ends()
};

struct ConnectionDescription {
    EndDescription from;
    EndDescription to;
    Place place;             ///< of the entry in the list
    std::uint32_t rank = 0;  ///< of its file in the order of merging
    bool is_delayed = false;
    bool is_delay_wrong = false;  ///< which is reported: it may be meant as delayed
    Delivery delivery = Delivery::Latest;
};

/// A port of a superblock, and the ports of members behind it; an output has one.
struct ExposedDescription {
    std::string name;
    Place name_place;
    std::vector<EndDescription> ends;
    bool is_broken = false;  ///< ends are missing because they are wrong, which is reported
};

/// The inside of the graph, or of a kind of superblock.
struct CompositeDescription {
    std::vector<MemberDescription> members;          ///< by name, in the order of bytes
    std::vector<ConnectionDescription> connections;  ///< in the order in which they are written
    std::vector<ExposedDescription> inports;         ///< by name, likewise
    std::vector<ExposedDescription> outports;
    bool is_broken = false;  ///< parts of it are missing because they are wrong, which is reported
    bool misses_connections = false;  ///< likewise

    /// Where a member stands in the list, or the length of the list when there is none of the name.
    std::size_t find_member(std::string_view name) const;

    /// Looks up the members at all ends.
    void find_ends();
};

constexpr std::size_t kDefaultQueue = 10'000;
constexpr std::size_t kDefaultLimit = 16'777'216;

/// How values travel between machines.
struct LinkDescription {
    Place place;            ///< of the name of the table; line 0: there is none
    bool is_wrong = false;  ///< parts of it are missing because they are wrong, which is reported
    std::string host;       ///< of the broker; empty: none is given
    int port = 0;
    bool is_encrypted = false;
    std::string broker;  ///< as it was written, for messages
    // Files; empty: none.
    std::string ca;
    std::string cert;
    std::string key;
    std::string user;
    std::string password_file;
    std::vector<std::string> wrong_keys;  ///< whose values are missing because they are wrong
    std::size_t queue = kDefaultQueue;  ///< values that wait, for each output that is sent as "all"
    std::size_t limit = kDefaultLimit;  ///< bytes of one value
};

/// `PATH.KEY=VALUE`, taken apart.
struct Assignment {
    std::string path;
    Setting setting;
};

struct GraphDescription {
    std::string name;
    OnError on_error = OnError::Stop;
    CompositeDescription graph;
    std::map<std::string, CompositeDescription> kinds;  ///< of superblocks, by name
    bool has_broken_kinds = false;  ///< they are missing because they are wrong, which is reported
    std::vector<Assignment> assignments;
    std::vector<std::string> machines;  ///< names, in the order of bytes; none: there is but one
    bool has_broken_machines = false;   ///< some are missing because they are wrong, likewise
    LinkDescription link;
};

/// What the places of a description refer to.
struct Source {
    std::string name;  ///< a file as it was given, `--set PATH.KEY`, or the file of what was saved
    std::string text;  ///< of a file, to show the line of a problem
    bool is_assignment = false;  ///< or values that were saved: places in it have no lines
};

}  // namespace Quorval::runtime
