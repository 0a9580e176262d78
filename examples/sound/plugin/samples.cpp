#include "samples.h"

#include <memory>
#include <utility>

namespace sound {

namespace {

Quorval::Datatype sample_block()
{
    return Quorval::Datatype("sample-block");
}

}  // namespace

Input& add_input(Quorval::Block& block, const std::string& name)
{
    auto port = std::make_unique<Input>(name, sample_block());
    Input& input = *port;
    block.add_inport(std::move(port));
    return input;
}

Output& add_output(Quorval::Block& block, const std::string& name)
{
    auto port = std::make_unique<Output>(name, sample_block());
    Output& output = *port;
    block.add_outport(std::move(port));
    return output;
}

}  // namespace sound
