// A plug-in whose classes carry virtual operations and members of their own, directly behind what
// they inherit: the place that the base classes would take if they grew.
#include <quorval/pluginloader.h>
#include <quorval/superblock.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace {

constexpr std::uint64_t kPattern = 0x5afec0de5afec0deU;

/// Members that show whether anybody else wrote to them.
struct Canaries {
    std::array<std::uint64_t, 64> words;

    Canaries() { words.fill(kPattern); }
    bool intact() const
    {
        for (const std::uint64_t word : words) {
            if (word != kPattern) {
                return false;
            }
        }
        return true;
    }
};

class WidePort : public Quorval::InPortInternal {
public:
    explicit WidePort(const std::string& name)
        : InPortInternal(name, Quorval::Datatype("int32"), true)
    {
    }

    virtual bool first_addition() const { return canaries_.intact(); }
    virtual int second_addition() const { return 2; }

private:
    Canaries canaries_;
};

class WideBlock : public Quorval::Block {
public:
    WideBlock(std::string name, const Quorval::BlockConfiguration& config)
        : Block(std::move(name), config)
    {
        auto port = std::make_unique<WidePort>("in");
        port_ = port.get();
        add_inport(std::move(port));
        make_eventport("tick");
    }

    virtual int first_addition() { return 1; }
    virtual int second_addition() { return 2; }
    virtual int third_addition() { return 3; }
    virtual int fourth_addition() { return 4; }

    Quorval::BlockConfiguration setup(const Quorval::BlockConfiguration&) override
    {
        Quorval::BlockConfiguration answer;
        answer.set("offset", static_cast<int>(reinterpret_cast<const char*>(&canaries_) -
                                              reinterpret_cast<const char*>(this)));
        return answer;
    }

    // An application that knows nothing of the additions calls this by its old place.
    bool run() override
    {
        return canaries_.intact() && port_->first_addition() && port_->second_addition() == 2 &&
               first_addition() + second_addition() + third_addition() + fourth_addition() == 10;
    }

private:
    Canaries canaries_;
    WidePort* port_;
};

class WideSuperblock : public Quorval::Superblock {
public:
    explicit WideSuperblock(std::string name) : Superblock(std::move(name)) {}

    virtual int addition() { return 1; }

    Quorval::BlockConfiguration setup(const Quorval::BlockConfiguration&) override
    {
        Quorval::BlockConfiguration answer;
        answer.set("intact", canaries_.intact() && addition() == 1);
        return answer;
    }

private:
    Canaries canaries_;
};

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    registry.register_block_create_fn(
        "Wide",
        [](std::string name, const Quorval::BlockConfiguration& config,
           const Quorval::InitTools&) -> std::unique_ptr<Quorval::Container> {
            return std::make_unique<WideBlock>(std::move(name), config);
        });
    registry.register_block_create_fn(
        "WideSuper",
        [](std::string name, const Quorval::BlockConfiguration&,
           const Quorval::InitTools&) -> std::unique_ptr<Quorval::Container> {
            return std::make_unique<WideSuperblock>(std::move(name));
        });
    return 0;
}
