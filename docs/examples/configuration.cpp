// The program of the page on configurations: does what the page says, and checks that it is so.
// Returns 1 when something is not.
#include <quorval/config.h>
#include <quorval/pstore.h>

#include <cmath>
#include <iomanip>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Quorval;

namespace {

bool all_is_true = true;

/// Remembers that something is not as the page says.
void check(bool is_true, const char* what)
{
    if (!is_true) {
        std::cerr << "not true: " << what << "\n";
        all_is_true = false;
    }
}

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): the message holds the text of the condition
#define CHECK(condition) check(condition, #condition)

/// Whether an action throws this exception with this text.
template <class Exception, class Action>
bool throws(const Action& action, const std::string& text)
{
    try {
        action();
        return false;
    } catch (const Exception& error) {
        return error.what() == text;
    }
}

void show_keys()
{
    BlockConfiguration config;
    config.set("gain", 0.5);
    config.set("ports.0.name", "left");
    config.set("ports.1.name", "right");
    config.set("ports.1.name", "centre");  // replaces the value, also one of another type

    CHECK(config.getString("ports.1.name") == "centre");
    CHECK(throws<std::runtime_error>(
        [&] { config.set("output gain", 1.0); },
        "Parameter name 'output gain' not valid (should be [a-z0-9_.-])."));
}

void show_types()
{
    BlockConfiguration config;
    config.set("channels", 2);
    config.set("muted", false);
    config.set("gain", 0.5);
    config.set("name", "left");
    config.set("taps", std::vector<int>{1, 2, 1});
    config.set("weights", std::vector<double>{0.25, 0.75});
    config.set("inputs", std::vector<std::string>{"a", "b"});
    config.set("enabled", std::vector<bool>{true, false});

    CHECK(config.getType("gain") == BlockConfiguration::Type::Double);
    CHECK(config.getTypeName("inputs") == "StringVector");
    CHECK(throws<std::invalid_argument>([&] { config.getType("volume"); },
                                        "No such parameter: volume"));
}

void show_reading()
{
    const BlockConfiguration config = {{"channels", 2}, {"gain", 0.1}, {"taps", {1, 2, 1}}};

    const int channels = config.getInt("channels");
    const double width = config.getDouble("width", 1.0);  // 1.0 when there is no such element

    CHECK(channels == 2);
    CHECK(width == 1.0);
    CHECK(throws<std::out_of_range>(
        [&] { config.getInt("width"); },
        "BlockConfiguration::getInt failed, the parameter 'width' does not exist"));
    CHECK(throws<std::runtime_error>(
        [&] { config.getInt("gain", 1); },
        "BlockConfiguration::getInt failed, the parameter 'gain' is type: double"));
}

void show_coercions()
{
    const BlockConfiguration config = {{"channels", 2}, {"gain", 0.1}, {"taps", {1, 2}}};

    CHECK(config.getDouble("channels") == 2.0);
    CHECK(config.getFloat("channels") == 2.0F);
    CHECK(config.getFloat("gain") == 0.1F);
    CHECK(config.getDoubleVector("taps") == (std::vector<double>{1.0, 2.0}));
    CHECK(config.getFloatVector("taps") == (std::vector<float>{1.0F, 2.0F}));
}

/// The keys that nothing has read, the last one first.
std::vector<std::string> unread_keys(BlockConfiguration config)
{
    std::vector<std::string> keys;
    while (!config.is_consumed()) {
        BlockConfiguration tried = config;
        std::string key;
        for (auto at = config.iterate(""); !tried.is_consumed(); at->advance()) {
            key = at->key();
            tried.set(key, true);
            tried.getBool(key);
        }
        config.set(key, true);
        config.getBool(key);
        keys.push_back(key);
    }
    return keys;
}

void show_marks()
{
    BlockConfiguration config = {{"gain", 0.5}, {"chanels", 2}};  // a misspelt key

    config.getDouble("gain");
    const int channels = config.getInt("channels", 1);  // there is none, so the default

    CHECK(channels == 1);
    CHECK(!config.is_consumed());  // nothing has read "chanels"
    CHECK(unread_keys(config) == std::vector<std::string>{"chanels"});

    config.delete_element("chanels");
    CHECK(config.is_consumed());

    config.set("gain", 0.25);  // a new value is unread
    CHECK(!config.is_consumed());
}

void show_deleting()
{
    BlockConfiguration config = {{"in", 1}, {"in.0.name", "a"}, {"inner", 2}, {"x.in", 3}};

    config.delete_element("in");

    // "x.in" stays: its third character, where "in" would end, is no full stop.
    CHECK(config == (BlockConfiguration{{"inner", 2}, {"x.in", 3}}));
}

void show_merging()
{
    const BlockConfiguration defaults = {{"gain", 1.0}, {"rate", 48000}};
    const BlockConfiguration given = {{"gain", 0.5}, {"name", "left"}};

    const BlockConfiguration config = defaults + given;  // the right side wins

    CHECK(config == (BlockConfiguration{{"gain", 0.5}, {"name", "left"}, {"rate", 48000}}));
    CHECK(config.diff(defaults) == given);  // what is new or changed
}

void show_merging_lists()
{
    BlockConfiguration config = {{"in", {{{"name", "a"}}, {{"name", "b"}}}}};

    config += {{"in", {{{"name", "c"}}}}};

    CHECK(config.getString("in.0.name") == "c");
    CHECK(config.getString("in.1.name") == "b");  // the tail of the longer list stays
}

void show_rebasing()
{
    BlockConfiguration config = {{"gain", 0.5}, {"in.0.name", "a"}};

    config.rebase("mixer");

    CHECK(config == (BlockConfiguration{{"mixer.gain", 0.5}, {"mixer.in.0.name", "a"}}));
    CHECK(config.getSubtree("mixer").getDouble("gain") == 0.5);
}

void show_literals()
{
    const BlockConfiguration config = {
        {"name", "mixer"},
        {"gain", 0.5},
        {"taps", {1, 2, 1}},              // an IntVector, as {1} would be
        {"labels", {"left", "right"}},    // a StringVector
        {"none", std::vector<double>{}},  // empty vectors name their type
        {"limits", {{"low", -1.0}, {"high", 1.0}}},
        {"in", {{{"name", "a"}, {"muted", true}}, {{"name", "b"}}}},
    };

    CHECK(config.getDouble("limits.high") == 1.0);
    CHECK(config.getString("in.1.name") == "b");
}

void show_lists_in_lists()
{
    const BlockConfiguration config = {
        {"rows", {{{"cells", {{{"value", 1}}, {{"value", 2}}}}}, {{"cells", {{{"value", 3}}}}}}}};

    int sum = 0;
    for (const auto& row : config.iterate_subtree("rows")) {
        for (const auto& cell : row.iterate_subtree("cells")) {
            sum += cell.getInt("value");
        }
    }

    CHECK(sum == 6);
    CHECK(config.is_consumed());
}

void show_walking_children()
{
    const BlockConfiguration config = {{"in", {{{"name", "a"}, {"gain", 0.5}}, {{"name", "b"}}}}};

    std::vector<std::string> names;
    double sum = 0.0;
    for (const auto& input : config.iterate_subtree("in")) {
        names.push_back(input.key() + ":" + input.getString("name"));
        sum += input.getDouble("gain", 1.0);
    }

    CHECK(names == (std::vector<std::string>{"0:a", "1:b"}));
    CHECK(sum == 1.5);
}

void show_parts_of_a_child()
{
    const BlockConfiguration config = {{"ports.10.name", "left"}};

    for (const auto& port : config.iterate_subtree("ports")) {
        CHECK(port.full_key() == "ports.10");
        CHECK(port.prefix() == "ports.");
        CHECK(port.key() == "10");
        CHECK(port.index() == 10);
        CHECK(port.path("name") == "ports.10.name");
        CHECK(port.getSubtree("").getString("name") == "left");
    }
}

void show_walking_elements()
{
    const BlockConfiguration config = {{"gain.left", 0.5}, {"gain.right", 0.25}, {"name", "mixer"}};

    double sum = 0.0;
    for (const auto at = config.iterate("gain."); !at->is_end(); at->advance()) {
        sum += at->getDouble();
    }

    CHECK(sum == 0.75);
    CHECK(!config.is_consumed());  // nothing has read "name"
}

void show_text()
{
    const BlockConfiguration config = {{"flags", {true, false}}, {"gain", 1.0 / 3.0}, {"id", 3}};

    std::cout << config;
    std::cout << std::boolalpha << std::setprecision(3) << config;
}

void show_store(const std::string& directory)
{
    const BlockConfiguration config = {{"gain", 0.1}, {"in", {{{"name", "a"}}}}};
    config.getDouble("gain");

    PStore store(directory);  // absolute, with a "/" at its end
    store.store("state", config);
    const BlockConfiguration loaded = store.load("state");

    CHECK(loaded == config);  // all bits of 0.1 too
    loaded.getString("in.0.name");
    CHECK(!loaded.is_consumed());  // the marks are not stored: "gain" is unread
}

void show_comparing()
{
    const double nan = std::nan("");

    CHECK((BlockConfiguration{{"x", 1}} != BlockConfiguration{{"x", 1.0}}));
    CHECK((BlockConfiguration{{"x", nan}} != BlockConfiguration{{"x", nan}}));
    CHECK((BlockConfiguration{{"x", 0.0}} == BlockConfiguration{{"x", -0.0}}));
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: configuration DIRECTORY/\n";
        return 2;
    }
    show_keys();
    show_types();
    show_reading();
    show_coercions();
    show_marks();
    show_deleting();
    show_comparing();
    show_merging();
    show_merging_lists();
    show_rebasing();
    show_literals();
    show_lists_in_lists();
    show_walking_children();
    show_parts_of_a_child();
    show_walking_elements();
    show_text();
    show_store(argv[1]);
    return all_is_true ? 0 : 1;
}
