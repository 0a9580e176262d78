// Blocks of two machines that exchange numbers, with all of them kept and with the latest one.
#include <quorval/block.h>
#include <quorval/pluginloader.h>
#include <quorval/runtime/tools.h>
#include <quorval/settings.h>

#include <unistd.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::InPort;
using Quorval::OutPort;

/// Reads numbers from the descriptor `orders`. For each it gives all numbers up to it, one in a
/// wave, and writes it to the descriptor `answers` when it has come back both ways.
class Ask : public Block {
public:
    Ask(const std::string& name, const BlockConfiguration& config)
        : Block(name, config),
          orders_(config.getInt("orders")),
          answers_(config.getInt("answers")),
          port_(make_fdport("orders", orders_, {true, false}))
    {
    }

    bool run() override
    {
        note(*all_in_, all_);
        note(*latest_in_, latest_);
        if (answered_ < wanted_ && all_ == wanted_ && latest_ == wanted_) {
            answer();
        }
        if (given_ == wanted_ && port_->is_triggered() &&
            ::read(orders_, &wanted_, sizeof wanted_) != sizeof wanted_) {
            return false;
        }
        if (given_ < wanted_) {
            ++given_;
            all_out_->write(given_);
            latest_out_->write(given_);
            get_tools().request_run();
        }
        return true;
    }

private:
    static void note(InPort<std::int64_t>& input, std::int64_t& number)
    {
        if (input.is_triggered()) {
            number = input.value();
        }
    }

    void answer()
    {
        answered_ = wanted_;
        if (::write(answers_, &answered_, sizeof answered_) != sizeof answered_) {
            throw std::runtime_error("nobody takes the answer");
        }
    }

    int orders_;
    int answers_;
    Quorval::FdPort* port_;  // owned by the block, like those below
    std::int64_t wanted_ = 0;
    std::int64_t given_ = 0;
    std::int64_t answered_ = 0;
    std::int64_t all_ = 0;  // that is back
    std::int64_t latest_ = 0;
    InPort<std::int64_t>* all_in_ = Quorval::add_input<std::int64_t>(*this, "all_in");
    InPort<std::int64_t>* latest_in_ = Quorval::add_input<std::int64_t>(*this, "latest_in");
    OutPort<std::int64_t>* all_out_ = Quorval::add_output<std::int64_t>(*this, "all_out");
    OutPort<std::int64_t>* latest_out_ = Quorval::add_output<std::int64_t>(*this, "latest_out");
};

/// Gives what it gets.
class Echo : public Block {
public:
    Echo(const std::string& name, const BlockConfiguration& config) : Block(name, config) {}

    bool run() override
    {
        out_->write(in_->value());
        return true;
    }

private:
    InPort<std::int64_t>* in_ = Quorval::add_input<std::int64_t>(*this, "in");
    OutPort<std::int64_t>* out_ = Quorval::add_output<std::int64_t>(*this, "out");
};

template <class BlockType>
std::unique_ptr<Quorval::Container> create(const std::string& name,
                                           const BlockConfiguration& config,
                                           const Quorval::InitTools& /*tools*/)
{
    return std::make_unique<BlockType>(name, config);
}

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    registry.register_block_create_fn("Ask", create<Ask>);
    registry.register_block_create_fn("Echo", create<Echo>);
    return 0;
}
