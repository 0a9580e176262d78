// What blocks that run side by side do to the world comes in the order of the blocks.
#pragma once

#include <functional>
#include <utility>
#include <vector>

namespace Quorval::runtime {

/// What a run did that is to be seen outside of its block, in order.
using Deeds = std::vector<std::function<void()>>;

/// Where the present thread puts deeds until their turn has come; null: they are done at once.
Deeds*& present_deeds();

/// Does it in the turn of the run that the present thread is in.
template <class Deed>
void do_in_turn(Deed&& deed)
{
    if (Deeds* deeds = present_deeds()) {
        deeds->emplace_back(std::forward<Deed>(deed));
    } else {
        deed();
    }
}

/// For its lifetime the deeds of the present thread wait.
class TurnScope {
public:
    /// @param deeds  must outlive the scope
    explicit TurnScope(Deeds& deeds) : before_(std::exchange(present_deeds(), &deeds)) {}
    TurnScope(const TurnScope&) = delete;
    TurnScope& operator=(const TurnScope&) = delete;
    ~TurnScope() { present_deeds() = before_; }

private:
    Deeds* before_;
};

}  // namespace Quorval::runtime
