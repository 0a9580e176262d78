// A plain plug-in. It uses what leaves a plug-in mapped for ever when it is built without
// -fno-gnu-unique: std::make_shared, std::regex and a local static of a template.
#include <quorval/pluginloader.h>

#include <memory>
#include <regex>
#include <string>

namespace {

template <class T>
T& counter()
{
    static T count{};
    return count;
}

class Gain : public Quorval::Block {
public:
    Gain(std::string name, const Quorval::BlockConfiguration& config)
        : Block(std::move(name), config),
          factor_(std::make_shared<double>(config.getDouble("gain")))
    {
        ++counter<int>();
        add_inport(std::make_unique<Quorval::InPort<double>>("in", Quorval::Datatype("double")));
        auto out = std::make_unique<Quorval::OutPort<double>>("out", Quorval::Datatype("double"));
        out_ = out.get();
        add_outport(std::move(out));
    }

    bool run() override
    {
        out_->write(*factor_ * counter<int>());
        return std::regex_match(get_name(), std::regex("[a-z]+"));
    }

private:
    std::shared_ptr<double> factor_;
    Quorval::OutPort<double>* out_;
};

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    registry.register_block_create_fn(
        "Gain",
        [](std::string name, const Quorval::BlockConfiguration& config,
           const Quorval::InitTools&) -> std::unique_ptr<Quorval::Container> {
            return std::make_unique<Gain>(std::move(name), config);
        });
    return 0;
}
