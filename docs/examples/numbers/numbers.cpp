#include <quorval/runtime/tools.h>
#include <quorval/settings.h>
using namespace Quorval;

struct Options {
    int last = 3;
};
const auto settings = Settings<Options>("Counts.").add("last", &Options::last, "the last number");

struct Count : Block {
    Count(const std::string& name, const BlockConfiguration& config)
        : Block(name, config), last(settings.read(config).last)
    {
    }
    void start() override { get_tools().request_run(); }
    bool run() override
    {
        out->write(out->value() + 1);
        get_tools().request_run();
        return out->value() < last;  // false: done
    }
    int last;
    OutPort<double>* out = add_output<double>(*this, "out");
};

int lib_register_cpp(IRegistry& registry)
{
    register_block<Count>(registry, "Count", settings);
    return 0;
}
