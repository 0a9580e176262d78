#include <quorval/settings.h>

#include <cstdint>
#include <string>
#include <utility>

namespace {

using namespace Quorval;

struct EverySettings {
    int n = 1;
};

const Settings<EverySettings>& every_settings()
{
    static const auto settings = Settings<EverySettings>("Passes every n-th value on.")
                                     .add("n", &EverySettings::n, "how many values make one")
                                     .range(1, 1000)
                                     .live();
    return settings;
}

class Every : public Block {
public:
    Every(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(every_settings().read(config))
    {
    }

    bool run() override
    {
        if (++count_ >= settings_.n) {
            count_ = 0;
            out_->write(in_->value());
        }
        return true;
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = every_settings().apply(settings_, override);
    }

private:
    EverySettings settings_;
    int count_ = 0;
    InPort<std::int64_t>* in_ = add_input<std::int64_t>(*this, "in");
    OutPort<std::int64_t>* out_ = add_output<std::int64_t>(*this, "out");
};

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    register_block<Every>(registry, "Every", every_settings());
    return 0;
}
