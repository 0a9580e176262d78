// Types with settings of all kinds, one that declares that it has none, and one that declares
// nothing.
#include <quorval/block.h>
#include <quorval/pluginloader.h>
#include <quorval/settings.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Quorval;

struct AllSettings {
    int count = 1;
    bool flag = false;
    double factor = 1;
    double free = 1;
    std::string mode = "linear";
    std::string text;
    std::vector<int> levels = {1};
    std::vector<double> taps = {1};
    std::vector<std::string> names = {"a"};
    std::vector<bool> flags = {true};
    int order = 1;
    double cutoff = 1;
    int first = 0;
};

const Settings<AllSettings>& all_settings()
{
    static const auto settings =
        Settings<AllSettings>("Has a setting of each kind.")
            .add("count", &AllSettings::count, "a number")
            .add("flag", &AllSettings::flag, "yes or no")
            .add("factor", &AllSettings::factor, "a number in a range")
            .range(-1000, 1000)
            .add("free", &AllSettings::free, "any number")
            .add("mode", &AllSettings::mode, "one of a few")
            .choices({"linear", "dB"})
            .add("text", &AllSettings::text, "any text: größer")
            .add("levels", &AllSettings::levels, "numbers in a range")
            .range(0, 10)
            .length(1, 3)
            .add("taps", &AllSettings::taps, "numbers")
            .add("names", &AllSettings::names, "some of a few")
            .choices({"a", "b"})
            .add("flags", &AllSettings::flags, "yes or no")
            .length(0, 2)
            .add("filter.order", &AllSettings::order, "below a table")
            .add("filter.low.cutoff", &AllSettings::cutoff, "further below")
            .add("in.0.first", &AllSettings::first, "in a list of tables");
    return settings;
}

struct NeededSettings {
    int need = 0;
};

class All : public Block {
public:
    All(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        all_settings().read(config);
        add_input<double>(*this, "in");
        add_output<double>(*this, "out");
    }
};

class Needs : public Block {
public:
    Needs(std::string name, const BlockConfiguration& config) : Block(std::move(name), config) {}
};

struct NoSettings {};

class Modest : public Block {
public:
    Modest(std::string name, const BlockConfiguration& config) : Block(std::move(name), config) {}
};

}  // namespace

int lib_register_cpp(IRegistry& registry)
{
    register_block<All>(registry, "All", all_settings());
    register_block<Modest>(registry, "Modest", Settings<NoSettings>("Has no setting."));
    register_block<Needs>(
        registry, "Needs",
        Settings<NeededSettings>("Needs one.").add("need", &NeededSettings::need, "it").required());
    registry.register_block_create_fn(
        "Plain", [](std::string name, const BlockConfiguration&, const InitTools&) {
            return std::make_unique<Block>(std::move(name));
        });
    return 0;
}
