// Scale: multiplies numbers, or lists of them.
#include <quorval/settings.h>
#include "blocks.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace basic {

using Quorval::BlockConfiguration;

namespace {

struct ScaleSettings {
    double factor = 1;
    std::string type = "double";
};

const Quorval::Settings<ScaleSettings>& scale_settings()
{
    static const auto kSettings =
        Quorval::Settings<ScaleSettings>("Multiplies.")
            .add("factor", &ScaleSettings::factor, "what values are multiplied by")
            .live()
            .add("type", &ScaleSettings::type, "of the values")
            .choices({"double", "double-vector"});
    return kSettings;
}

void multiply(double& value, double factor)
{
    value *= factor;
}

void multiply(std::vector<double>& values, double factor)
{
    for (double& value : values) {
        value *= factor;
    }
}

class Scale : public Quorval::Block {
public:
    Scale(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(scale_settings().read(config))
    {
        if (settings_.type == "double") {
            add_ports<double>();
        } else {
            add_ports<std::vector<double>>();
        }
    }

    bool run() override
    {
        scale_();
        return true;
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = scale_settings().apply(settings_, override);
    }

private:
    template <class T>
    void add_ports()
    {
        scale_ = [this, in = Quorval::add_input<T>(*this, "in"),
                  out = Quorval::add_output<T>(*this, "out")] {
            out->value() = in->value();
            multiply(out->value(), settings_.factor);
            out->trigger();
        };
    }

    ScaleSettings settings_;
    std::function<void()> scale_;  // the work, which knows the type of the values
};

}  // namespace

void register_scale(Quorval::IRegistry& registry)
{
    Quorval::register_block<Scale>(registry, "Scale", scale_settings());
}

}  // namespace basic
