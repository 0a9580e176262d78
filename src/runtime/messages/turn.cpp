#include "messages/turn.h"

#include <string>

namespace Quorval::runtime {

Deeds*& present_deeds()
{
    static thread_local Deeds* deeds = nullptr;
    return deeds;
}

/// Lets everything through to the sink behind it, which knows what it drops.
class MessagesInTurn::Sink : public LogInstance {
public:
    explicit Sink(std::unique_ptr<LogInstance> next)
        : LogInstance(LOGLEVEL_DEBUG), next_(std::move(next))
    {
    }

    void emit(loglevel level, const char* text, int length) override
    {
        if (present_deeds() == nullptr) {
            next_->output(level, text, length);
            return;
        }
        do_in_turn([this, level, kept = std::string(text, static_cast<std::size_t>(length))] {
            try {
                next_->output(level, kept.data(), static_cast<int>(kept.size()));
            } catch (...) {
                return;  // as everywhere: what a sink throws is lost
            }
        });
    }

    std::unique_ptr<LogInstance> take_next() { return std::move(next_); }

private:
    std::unique_ptr<LogInstance> next_;
};

MessagesInTurn::MessagesInTurn()
{
    auto sink = std::make_unique<Sink>(std::move(loginstance));
    sink_ = sink.get();
    loginstance = std::move(sink);
}

MessagesInTurn::~MessagesInTurn()
{
    loginstance = sink_->take_next();
}

}  // namespace Quorval::runtime
