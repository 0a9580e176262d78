#include "control/control.h"

#include <quorval/log.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Quorval::runtime {

namespace {

RunResult report(RunResult result, const std::string& text)
{
    if (result != RunResult::Done) {
        logger(LOGLEVEL_ERROR, "%s", text.c_str());
    }
    return result;
}

}  // namespace

RunResult Control::open(Run& run)
{
    run_ = &run;
    graph_.emplace(run, [this, &run] { return statistics_(run); });
    objects_.emplace(run.graph.network, run.life, run.loop);
    const std::string problem = objects_->find_problem();
    if (!problem.empty()) {
        return report(RunResult::WrongObjects, problem);
    }
    connection_.emplace(kind_, bus_name_of(run.graph.name), [this](sd_bus* bus) {
        std::vector<SlotHandle> slots;
        graph_->publish(bus, slots);
        objects_->publish(bus, slots);
        return slots;
    });
    try {
        const std::string failure = connection_->open();
        if (!failure.empty()) {
            return report(RunResult::Failed, failure);
        }
    } catch (const RefusedObject& error) {
        return report(RunResult::WrongObjects, error.what());
    } catch (const std::runtime_error& error) {
        return report(RunResult::Failed, error.what());
    }
    run.life.failures().set_listener([this](const std::string& path, const std::string& text) {
        GraphObject::tell_failure(bus(), path, text);
    });
    run.overrides.set_listener(
        [this](const std::vector<Change>& changes) { graph_->tell_changes(bus(), changes); });
    return RunResult::Done;
}

void Control::begin()
{
    connection_->attach(run_->loop.event());
}

void Control::close() noexcept
{
    run_->life.failures().set_listener(nullptr);
    run_->overrides.set_listener(nullptr);
    connection_.reset();
    objects_.reset();
    graph_.reset();
}

}  // namespace Quorval::runtime
