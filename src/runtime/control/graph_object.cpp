#include "control/graph_object.h"

#include "control/texts.h"
#include "control/write.h"
#include "description/settings.h"
#include "graph/values.h"
#include "schedule/wave.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <utility>

// The tables of sd-bus are arrays as in C.
// NOLINTBEGIN(cppcoreguidelines-avoid-c-arrays,modernize-avoid-c-arrays)

namespace Quorval::runtime {

namespace {

/// A call that is answered with an error.
class CallError : public std::runtime_error {
public:
    CallError(const char* name, const std::string& text) : std::runtime_error(text), name_(name) {}
    const char* name() const { return name_; }

private:
    const char* name_;
};

[[noreturn]] void throw_unknown_block(const std::string& path)
{
    throw CallError(kUnknownBlock, "there is no block '" + path + "'");
}

[[noreturn]] void throw_no_key(const std::string& text)
{
    throw CallError(kInvalidValue, "'" + text + "' is not of the form PATH.KEY");
}

[[noreturn]] void throw_invalid(const std::string& text)
{
    throw CallError(kInvalidValue, text);
}

[[noreturn]] void throw_refused(const std::string& text)
{
    throw CallError(kRefused, text);
}

[[noreturn]] void throw_not_allowed()
{
    throw_refused("only root and the user who runs the graph may do this");
}

void check(int result)
{
    if (result < 0) {
        throw std::runtime_error(text_of_errno(result));
    }
}

/// `PATH.KEY` and a value, taken apart.
std::vector<Assignment> read_change(const std::string& target, const std::string& value)
{
    if (target.find('=') != std::string::npos) {
        throw_no_key(target);
    }
    Problems problems;
    std::vector<Assignment> assignments;
    try {
        assignments = read_assignment(target + "=" + value, 0, problems);
    } catch (const std::invalid_argument&) {
        throw_no_key(target);
    }
    if (problems.has_errors()) {
        throw_invalid(problems.sorted().front().text);
    }
    return assignments;
}

/// The pairs of a message.
std::vector<std::pair<std::string, std::string>> read_pairs(sd_bus_message* message)
{
    std::vector<std::pair<std::string, std::string>> pairs;
    check(sd_bus_message_enter_container(message, 'a', "{ss}"));
    const char* key = nullptr;
    const char* value = nullptr;
    int result = 0;
    while ((result = sd_bus_message_read(message, "{ss}", &key, &value)) > 0) {
        pairs.emplace_back(key, value);
    }
    check(result);
    check(sd_bus_message_exit_container(message));
    return pairs;
}

/// Sends a signal, unless it is not to be had.
template <class Append>
void emit(sd_bus* bus, const char* name, const Append& append)
{
    sd_bus_message* made = nullptr;
    if (bus == nullptr || sd_bus_message_new_signal(bus, &made, kPath, kInterface, name) < 0) {
        return;
    }
    const MessageHandle message(made);
    if (append(made) >= 0) {
        sd_bus_send(bus, made, nullptr);
    }
}

}  // namespace

/// What sd-bus calls. No exception leaves it.
struct GraphObject::Methods {
    template <class Work>
    static int contain(sd_bus_error* error, const Work& work)
    {
        try {
            return work();
        } catch (const CallError& failure) {
            return sd_bus_error_set(error, failure.name(), to_utf8(failure.what()).c_str());
        } catch (...) {
            return sd_bus_error_set(error, kRefused, to_utf8(text_of_present_exception()).c_str());
        }
    }

    static GraphObject& self(void* object) { return *static_cast<GraphObject*>(object); }

    static int describe(sd_bus_message* message, void* object, sd_bus_error* error)
    {
        return contain(error, [&] {
            const std::string text = runtime::describe(self(object).run_);
            return sd_bus_reply_method_return(message, "s", text.c_str());
        });
    }

    static int configure(sd_bus_message* message, void* object, sd_bus_error* error)
    {
        return contain(error, [&] { return self(object).configure(message); });
    }

    static int get(sd_bus_message* message, void* object, sd_bus_error* error)
    {
        return contain(error, [&] { return self(object).get(message); });
    }

    static int save(sd_bus_message* message, void* object, sd_bus_error* error)
    {
        return contain(error, [&] { return self(object).save(message); });
    }

    static int statistics(sd_bus_message* message, void* object, sd_bus_error* error)
    {
        return contain(error, [&] { return self(object).statistics(message); });
    }

    static int link_statistics(sd_bus_message* message, void* object, sd_bus_error* error)
    {
        return contain(error, [&] { return self(object).link_statistics(message); });
    }

    static int stop(sd_bus_message* message, void* object, sd_bus_error* error)
    {
        return contain(error, [&] { return self(object).stop(message); });
    }

    static int name(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/,
                    const char* /*property*/, sd_bus_message* reply, void* object,
                    sd_bus_error* /*error*/)
    {
        return sd_bus_message_append(reply, "s", self(object).run_.graph.name.c_str());
    }

    static int state(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/,
                     const char* /*property*/, sd_bus_message* reply, void* object,
                     sd_bus_error* /*error*/)
    {
        return sd_bus_message_append(reply, "s",
                                     self(object).is_stopping_ ? "stopping" : "running");
    }

    static int waves(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/,
                     const char* /*property*/, sd_bus_message* reply, void* object,
                     sd_bus_error* /*error*/)
    {
        return sd_bus_message_append(reply, "t", self(object).run_.life.wave().waves());
    }

    static const sd_bus_vtable table[];
    static const sd_bus_vtable link_table[];
};

// Callers that change something are looked at in the functions, so that a refusal has its text.
const sd_bus_vtable GraphObject::Methods::table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("Describe", "", "", "s", SD_BUS_PARAM(json), describe,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Configure", "a{ss}", SD_BUS_PARAM(values), "", "", configure,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Get", "s", SD_BUS_PARAM(path), "s", SD_BUS_PARAM(toml), get,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Save", "", "", save, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Statistics", "", "", "a(sttttt)", SD_BUS_PARAM(blocks), statistics,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Stop", "", "", stop, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("Name", "s", name, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("State", "s", state, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("Waves", "t", waves, 0, 0),
    // cppcheck-suppress unknownMacro
    SD_BUS_SIGNAL_WITH_NAMES("BlockFailed", "ss", SD_BUS_PARAM(path) SD_BUS_PARAM(text), 0),
    SD_BUS_SIGNAL_WITH_NAMES("Configured", "a{ss}", SD_BUS_PARAM(values), 0), SD_BUS_VTABLE_END};

const sd_bus_vtable GraphObject::Methods::link_table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("Statistics", "", "", "a(sbtttttt)", SD_BUS_PARAM(links),
                             link_statistics, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

GraphObject::GraphObject(Run& run, Statistics statistics)
    : run_(run), statistics_(std::move(statistics))
{
    for (std::uint32_t block = 0; block < run.graph.network.nodes.size(); ++block) {
        blocks_[run.graph.network.nodes[block].path] = block;
    }
}

void GraphObject::publish(sd_bus* bus, std::vector<SlotHandle>& slots)
{
    callers_.clear();  // another connection has other names
    const auto add = [&](const char* interface, const sd_bus_vtable* table) {
        sd_bus_slot* slot = nullptr;
        check(sd_bus_add_object_vtable(bus, &slot, kPath, interface, table, this));
        slots.emplace_back(slot);
    };
    add(kInterface, Methods::table);
    if (!run_.link_statistics().empty()) {
        add(kLinkInterface, Methods::link_table);
    }
}

int GraphObject::configure(sd_bus_message* message)
{
    if (!may_change(message)) {
        throw_not_allowed();
    }
    const std::vector<Change> changes = read_changes(message);
    const std::string text = run_.overrides.change(changes);
    if (run_.life.has_work()) {
        run_.loop.hold();
    }
    if (!text.empty()) {
        throw_refused(text);
    }
    // First, because the caller waits for it, and the bus takes one message after the other.
    const int result = sd_bus_reply_method_return(message, "");
    tell_changes(sd_bus_message_get_bus(message), changes);
    return result;
}

/// What a call wants to be changed, block by block in the order in which they run.
std::vector<Change> GraphObject::read_changes(sd_bus_message* message) const
{
    std::map<std::uint32_t, BlockConfiguration> values;
    for (const auto& [target, value] : read_pairs(message)) {
        for (const Assignment& one : read_change(target, value)) {
            set_value(values[find_block(one.path)], one.setting.key, one.setting.value);
        }
    }
    std::vector<Change> changes;
    changes.reserve(values.size());
    for (auto& [block, config] : values) {
        changes.push_back({block, std::move(config)});
    }
    return changes;
}

std::uint32_t GraphObject::find_block(const std::string& path) const
{
    const auto found = blocks_.find(path);
    if (found == blocks_.end()) {
        throw_unknown_block(path);
    }
    return found->second;
}

int GraphObject::get(sd_bus_message* message) const
{
    const char* path = nullptr;
    check(sd_bus_message_read(message, "s", &path));
    return sd_bus_reply_method_return(message, "s", show_config(run_, find_block(path)).c_str());
}

int GraphObject::save(sd_bus_message* message)
{
    if (!may_change(message)) {
        throw_not_allowed();
    }
    if (run_.graph.state_directory.empty()) {
        throw_refused("the graph has no state directory");
    }
    run_.overrides.save(run_.graph.state_directory);
    return sd_bus_reply_method_return(message, "");
}

int GraphObject::statistics(sd_bus_message* message) const
{
    sd_bus_message* made = nullptr;
    check(sd_bus_message_new_method_return(message, &made));
    const MessageHandle reply(made);
    check(sd_bus_message_open_container(made, 'a', "(sttttt)"));
    for (const BlockStatistics& one : statistics_()) {
        check(sd_bus_message_append(made, "(sttttt)", one.path.c_str(), one.runs, one.failures,
                                    static_cast<std::uint64_t>(one.total.count()),
                                    static_cast<std::uint64_t>(one.longest.count()),
                                    static_cast<std::uint64_t>(one.percentile_99.count())));
    }
    check(sd_bus_message_close_container(made));
    return sd_bus_send(nullptr, made, nullptr);
}

int GraphObject::link_statistics(sd_bus_message* message) const
{
    sd_bus_message* made = nullptr;
    check(sd_bus_message_new_method_return(message, &made));
    const MessageHandle reply(made);
    check(sd_bus_message_open_container(made, 'a', "(sbtttttt)"));
    for (const LinkStatistics& one : run_.link_statistics()) {
        check(sd_bus_message_append(made, "(sbtttttt)", one.output.c_str(),
                                    static_cast<int>(one.comes_in), one.values, one.bytes, one.lost,
                                    one.gaps, one.duplicates, one.longest_queue));
    }
    check(sd_bus_message_close_container(made));
    return sd_bus_send(nullptr, made, nullptr);
}

int GraphObject::stop(sd_bus_message* message)
{
    if (!may_change(message)) {
        throw_not_allowed();
    }
    run_.life.request_stop();
    is_stopping_ = true;
    sd_bus_emit_properties_changed(sd_bus_message_get_bus(message), kPath, kInterface, "State",
                                   nullptr);
    return sd_bus_reply_method_return(message, "");
}

/// Whether the caller is root or the user of this process. Asks the bus once for each caller.
bool GraphObject::may_change(sd_bus_message* message)
{
    constexpr std::size_t kMostCallers = 256;
    const char* sender = sd_bus_message_get_sender(message);
    const std::string caller = sender != nullptr ? sender : "";
    const auto known = callers_.find(caller);
    if (known != callers_.end()) {
        return known->second;
    }
    const std::optional<uid_t> user = ask_for_user(message);
    if (!user) {
        return false;
    }
    if (callers_.size() >= kMostCallers) {
        callers_.clear();
    }
    return callers_[caller] = *user == 0 || *user == ::geteuid();
}

std::optional<uid_t> GraphObject::ask_for_user(sd_bus_message* message)
{
    sd_bus_creds* found = nullptr;
    int result = -EINTR;
    while (result == -EINTR) {
        result = sd_bus_query_sender_creds(message, SD_BUS_CREDS_EUID, &found);
    }
    if (result < 0) {
        return std::nullopt;
    }
    const CredsHandle creds(found);
    uid_t user = 0;
    return sd_bus_creds_get_euid(found, &user) < 0 ? std::nullopt : std::optional<uid_t>(user);
}

void GraphObject::tell_failure(sd_bus* bus, const std::string& path, const std::string& text)
{
    emit(bus, "BlockFailed", [&](sd_bus_message* message) {
        return sd_bus_message_append(message, "ss", path.c_str(), to_utf8(text).c_str());
    });
}

void GraphObject::tell_changes(sd_bus* bus, const std::vector<Change>& changes) const
{
    if (changes.empty()) {
        return;
    }
    emit(bus, "Configured", [&](sd_bus_message* message) {
        int result = sd_bus_message_open_container(message, 'a', "{ss}");
        for (const Change& change : changes) {
            const std::string start = run_.graph.network.nodes[change.block].path + ".";
            for (const std::string& key : keys_of(change.values)) {
                result = std::min(
                    result, sd_bus_message_append(message, "{ss}", (start + key).c_str(),
                                                  to_toml(get_value(change.values, key)).c_str()));
            }
        }
        return std::min(result, sd_bus_message_close_container(message));
    });
}

}  // namespace Quorval::runtime

// NOLINTEND(cppcoreguidelines-avoid-c-arrays,modernize-avoid-c-arrays)
