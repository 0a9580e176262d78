// The interface of the page on the binary interface: old blocks do not have it, new ones do.
#include <quorval/block.h>

#include <iostream>
#include <memory>

using namespace Quorval;

namespace {

/// Blocks that can be paused.
class QUORVAL_EXPORT IPausable {
public:
    virtual void pause() = 0;

protected:
    ~IPausable() = default;
};

class NewBlock final : public Block, public IPausable {
public:
    using Block::Block;

    void pause() override { std::cout << get_name() << " pauses\n"; }
};

void pause(Block& block)
{
    if (auto* pausable = dynamic_cast<IPausable*>(&block)) {
        pausable->pause();
    } else {
        std::cout << block.get_name() << " runs on\n";
    }
}

}  // namespace

int main()
{
    Block old_block("old");
    NewBlock new_block("new");
    pause(old_block);
    pause(new_block);
}
