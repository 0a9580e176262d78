// Whether an event loop goes on before the work that is there is done.
#pragma once

#include "control/handles.h"
#include "run/life.h"

#include <systemd/sd-event.h>

namespace quorval_test {

/// Dispatched whenever nothing else of the event loop is ready.
class WorkWatch {
public:
    /// @param life  must outlive the object
    WorkWatch(sd_event* event, const Quorval::runtime::Life& life) : life_(life)
    {
        sd_event_source* source = nullptr;
        sd_event_add_defer(event, &source, look, this);
        source_.reset(source);
        sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IDLE);
        sd_event_source_set_enabled(source, SD_EVENT_ON);
    }
    WorkWatch(const WorkWatch&) = delete;
    WorkWatch& operator=(const WorkWatch&) = delete;
    ~WorkWatch() = default;

    bool has_seen_work() const { return has_seen_work_; }

private:
    static int look(sd_event_source* /*source*/, void* self)
    {
        auto& watch = *static_cast<WorkWatch*>(self);
        watch.has_seen_work_ = watch.has_seen_work_ || watch.life_.has_work();
        return 0;
    }

    const Quorval::runtime::Life& life_;
    Quorval::runtime::SourceHandle source_;
    bool has_seen_work_ = false;
};

}  // namespace quorval_test
