// A block that changes the file of its own graph and has it read again.
#include <quorval/block.h>
#include <quorval/pluginloader.h>
#include <quorval/runtime/tools.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;

/// Runs `count` times; where it has a `file`, which its graph includes, writes another `step` into
/// it each time, and has the graph take that over.
class Cycle : public Block {
public:
    Cycle(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config),
          count_(config.getInt("count")),
          file_(config.getString("file", ""))
    {
        config.getInt("step", 0);
    }

    void start() override { get_tools().request_run(); }

    bool run() override
    {
        ++runs_;
        if (!file_.empty()) {
            std::ofstream(file_) << "format = 1\nblocks.a.config.step = " << runs_ << "\n";
            static_cast<void>(::raise(SIGHUP));
        }
        get_tools().request_run();
        return runs_ < count_;
    }

    void reconfigure(const BlockConfiguration& merged,
                     const BlockConfiguration& /*override*/) override
    {
        if (merged.getInt("step") != runs_) {
            throw std::runtime_error("not the value that was written");
        }
        ++changes_;
    }

    void stop() override
    {
        if (!file_.empty() && changes_ < count_ - 1) {
            throw std::runtime_error("not all values were taken over");
        }
    }

private:
    int count_;
    std::string file_;
    int runs_ = 0;
    int changes_ = 0;
};

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    registry.register_block_create_fn(
        "Cycle", [](std::string name, const BlockConfiguration& config, const Quorval::InitTools&) {
            return std::make_unique<Cycle>(std::move(name), config);
        });
    return 0;
}
