#include "quorval/runtime/testing.h"

#include <quorval/log.h>
#include <quorval/pstore.h>
#include <quorval/runtime/tools.h>
#include "loop/descriptor_ports.h"
#include "loop/poller.h"
#include "messages/context.h"
#include "plugins/plugin.h"
#include "plugins/search.h"
#include "schedule/network.h"
#include "schedule/wave.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <system_error>

namespace Quorval {

namespace {

using runtime::ContextScope;
using runtime::DescriptorPorts;
using runtime::Network;
using runtime::Plugin;
using runtime::Poller;
using runtime::Wave;

constexpr std::uint32_t kBlock = 0;  // the only one of its network
constexpr std::chrono::nanoseconds kNever{-1};

class TemporaryDirectory {
public:
    TemporaryDirectory()
    {
        std::string path = std::filesystem::temp_directory_path() / "quorval-XXXXXX";
        if (::mkdtemp(path.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "cannot make " + path);
        }
        path_ = path;
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    /// As a store wants it: with a "/" at its end.
    std::string store_path() const { return path_ + "/"; }

private:
    std::string path_;
};

class Recorder : public LogInstance {
public:
    explicit Recorder(std::vector<std::string>& messages)
        : LogInstance(LOGLEVEL_DEBUG), messages_(messages)
    {
    }

    void emit(loglevel /*level*/, const char* text, int /*length*/) override
    {
        messages_.emplace_back(text);
    }

private:
    std::vector<std::string>& messages_;
};

/// What came of the operations of the block.
struct Record {
    std::vector<std::string> messages;
    bool has_thrown = false;
};

/// An operation of the block: messages are kept, and know whose they are.
class Operation {
public:
    Operation(const std::string& path, const char* name, Record& record)
        : context_(path.c_str(), name),
          sink_(std::exchange(loginstance, std::make_unique<Recorder>(record.messages))),
          record_(record)
    {
    }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
    ~Operation()
    {
        loginstance = std::move(sink_);
        record_.has_thrown = record_.has_thrown || std::uncaught_exceptions() > exceptions_;
    }

private:
    ContextScope context_;
    std::unique_ptr<LogInstance> sink_;
    Record& record_;
    int exceptions_ = std::uncaught_exceptions();  // on their way when it began
};

/// The services of the block, and what it asked of them.
class Tools final : public RuntimeTools {
public:
    Tools(std::string path, std::chrono::nanoseconds now) : path_(std::move(path)), now_(now) {}

    const std::string& path() const override { return path_; }
    std::chrono::nanoseconds now() const override { return now_; }
    void request_run() override { is_asked_ = true; }
    void run_at(std::chrono::nanoseconds time) override { time_ = time; }
    void progress(std::uint64_t done, std::uint64_t total) override { progress_ = {done, total}; }
    void stop(const std::string& reason) override { stop_reasons_.push_back(reason); }
    sd_event* loop() override { return nullptr; }
    sd_bus* bus() override { return nullptr; }

    void advance(std::chrono::nanoseconds duration) { now_ += duration; }

    /// Whether the block is due, which uses that up.
    bool take_request()
    {
        const bool is_time = time_ >= std::chrono::nanoseconds::zero() && now_ >= time_;
        if (is_time) {
            time_ = kNever;
        }
        return is_asked_.exchange(false) || is_time;
    }

    const std::vector<std::string>& stop_reasons() const { return stop_reasons_; }
    std::pair<std::uint64_t, std::uint64_t> last_progress() const { return progress_; }

private:
    std::string path_;
    std::chrono::nanoseconds now_;
    std::chrono::nanoseconds time_ = kNever;
    std::atomic<bool> is_asked_{false};
    std::pair<std::uint64_t, std::uint64_t> progress_;
    std::vector<std::string> stop_reasons_;
};

/// Keeps what the block throws in a wave, to throw it again behind it.
class Events final : public runtime::IWaveEvents {
public:
    void block_failed(std::uint32_t /*block*/, const std::string& /*text*/) override
    {
        failure_ = std::current_exception();
    }
    void block_is_done(std::uint32_t /*block*/) override {}

    void rethrow()
    {
        if (failure_ != nullptr) {
            std::rethrow_exception(std::exchange(failure_, nullptr));
        }
    }

private:
    std::exception_ptr failure_;
};

/// Of all plug-ins, some of which stay loaded.
const InitTools& init_tools()
{
    static const InitTools kTools{"test", false};
    return kTools;
}

std::string find_plugin(const std::string& plugin)
{
    if (plugin.find('/') != std::string::npos) {
        return plugin;
    }
    std::string searched;
    for (const std::string& directory : runtime::plugin_directories({})) {
        const std::filesystem::path file = std::filesystem::path(directory) / plugin;
        if (std::filesystem::exists(file)) {
            return file;
        }
        searched += (searched.empty() ? "" : ":") + directory;
    }
    throw std::runtime_error("there is no plug-in '" + plugin + "' in " + searched);
}

/// An exception may be of a class of the plug-in, and the harness that holds the plug-in is gone
/// before anybody looks at it.
void keep_loaded(std::unique_ptr<Plugin> plugin)
{
    static std::vector<std::unique_ptr<Plugin>> kept;
    kept.push_back(std::move(plugin));
}

[[noreturn]] void throw_wrong_type(const Port& port, const char* type)
{
    throw std::invalid_argument(port.get_name() + " has the type " +
                                port.get_datatype().get_name() + ", not " + type);
}

[[noreturn]] void throw_no_block()
{
    throw std::logic_error("there is no block: it could not be made again");
}

[[noreturn]] void throw_not_started()
{
    throw std::logic_error("the block is not started");
}

/// A block in a network of its own, ready to be started.
class Runner {
public:
    Runner(Block& block, const std::shared_ptr<Tools>& tools)
        : network_{{{tools->path(), &block, false}}, {}, {}, {}, {}},
          ports_(network_),
          wave_(network_, ports_, events_),
          tools_(tools)
    {
        block.set_tools(tools);
    }

    /// Takes up the descriptor ports, which are there once the block is started.
    void watch()
    {
        if (ports_.collect(kBlock)) {
            wave_.has_descriptors(kBlock);
        }
        ports_.watch(kBlock, poller_);
    }
    void unwatch() { ports_.unwatch(kBlock); }

    void visit() { wave_.visit(kBlock); }
    void look_at_outputs() { wave_.look_at_outputs(kBlock); }

    /// @param behind  called between the wave and the reset of the ports
    template <class Behind>
    bool run_wave(Behind behind)
    {
        for (const runtime::Ready& ready : poller_.wait(false)) {
            wave_.visit(ports_.make_ready(ready));
        }
        if (tools_->take_request()) {
            wave_.ask(kBlock);
        }
        ports_.begin_wave();
        const std::uint64_t runs = wave_.runs(kBlock);
        wave_.run();
        behind();
        wave_.reset();
        if (wave_.is_done(kBlock)) {
            unwatch();
        }
        events_.rethrow();
        return wave_.runs(kBlock) > runs;
    }

    bool is_done() const { return wave_.is_done(kBlock); }

private:
    Network network_;
    Poller poller_;
    DescriptorPorts ports_;
    Events events_;
    Wave wave_;
    std::shared_ptr<Tools> tools_;
};

}  // namespace

namespace {

/// A block, and what drives it. Destroyed from the last member to the first.
struct Subject {
    Subject(UniqueDlPtr<Container> made, std::chrono::nanoseconds now);
    Subject(const Subject&) = delete;
    Subject& operator=(const Subject&) = delete;
    ~Subject() { runner.unwatch(); }

    const std::string& path() const { return tools->path(); }

    UniqueDlPtr<Container> container;
    Block& block;
    std::shared_ptr<Tools> tools;
    Runner runner;  // watches the ports of the block
};

Block& get_plain_block(Container* container)
{
    if (container == nullptr) {
        throw std::invalid_argument("there is no block");
    }
    return runtime::to_block(*container);
}

Subject::Subject(UniqueDlPtr<Container> made, std::chrono::nanoseconds now)
    : container(std::move(made)),
      block(get_plain_block(container.get())),
      tools(std::make_shared<Tools>(block.get_name(), now)),
      runner(block, tools)
{
}

}  // namespace

/// Destroyed from the last member to the first: the block goes before its plug-in, and before what
/// it was fed.
struct Harness::Impl {
    TemporaryDirectory directory;
    std::unique_ptr<Plugin> plugin;  // none for a block that the test has made
    std::string type;
    BlockConfiguration config;
    BlockConfiguration overrides;  // all so far
    Record record;
    std::map<std::string, std::unique_ptr<OutPortInternal>> fed;
    std::set<std::string> triggered;    // outputs
    std::chrono::nanoseconds began{0};  // the time when the block was made
    std::unique_ptr<Subject> subject;   // none when the block could not be made again
    bool is_started = false;

    Impl() = default;
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl();

    Subject& get() const;
    void create();
    void note_outputs();
};

Harness::Impl::~Impl()
{
    if (record.has_thrown && plugin != nullptr) {
        keep_loaded(std::move(plugin));
    }
}

Subject& Harness::Impl::get() const
{
    if (subject == nullptr) {
        throw_no_block();
    }
    return *subject;
}

void Harness::Impl::create()
{
    const Operation operation(type, "setup", record);
    subject = std::make_unique<Subject>(plugin->create(type, type, config), began);
}

void Harness::Impl::note_outputs()
{
    triggered.clear();
    const Block& block = get().block;
    for (const auto& [name, datatype] : block.get_outports_info()) {
        if (block.get_outport(name).second.is_triggered()) {
            triggered.insert(name);
        }
    }
}

Harness::Harness(const std::string& plugin, const std::string& type,
                 const BlockConfiguration& config)
    : impl_(std::make_unique<Impl>())
{
    impl_->plugin = std::make_unique<Plugin>(find_plugin(plugin), init_tools());
    if (!impl_->plugin->has_type(type)) {
        throw std::runtime_error("plug-in '" + plugin + "' has no block type '" + type + "'");
    }
    impl_->type = type;
    impl_->config = BlockConfiguration{{"pstore_path", impl_->directory.store_path()}} + config;
    impl_->create();
}

Harness::Harness(std::unique_ptr<Block> block) : impl_(std::make_unique<Impl>())
{
    impl_->subject =
        std::make_unique<Subject>(UniqueDlPtr<Container>(nullptr, std::move(block)), impl_->began);
    PStore& store = impl_->get().block.pstore();
    if (store.get_path().empty()) {
        store.set_path(impl_->directory.store_path());
    }
}

Harness::~Harness() = default;

void Harness::start()
{
    Subject& subject = impl_->get();
    if (impl_->is_started) {
        throw std::logic_error("the block is started already");
    }
    {
        const Operation operation(subject.path(), "start", impl_->record);
        subject.block.start();
    }
    impl_->is_started = true;
    subject.runner.watch();
    subject.runner.look_at_outputs();
    impl_->note_outputs();
}

void Harness::stop()
{
    Subject& subject = impl_->get();
    if (!impl_->is_started) {
        throw_not_started();
    }
    impl_->is_started = false;
    subject.runner.unwatch();
    const Operation operation(subject.path(), "stop", impl_->record);
    subject.block.stop();
}

void Harness::restart()
{
    if (impl_->plugin == nullptr) {
        throw std::logic_error("a block that was handed over cannot be made again");
    }
    if (impl_->is_started) {
        stop();
    }
    if (impl_->subject != nullptr) {
        impl_->began = impl_->subject->tools->now();
    }
    impl_->subject.reset();
    impl_->fed.clear();
    impl_->triggered.clear();
    impl_->overrides = {};
    impl_->create();
}

bool Harness::step()
{
    Subject& subject = impl_->get();
    if (!impl_->is_started) {
        throw_not_started();
    }
    const Operation operation(subject.path(), "run", impl_->record);
    return subject.runner.run_wave([this] { impl_->note_outputs(); });
}

bool Harness::is_triggered(const std::string& port) const
{
    impl_->get().block.get_outport(port);
    return impl_->triggered.count(port) > 0;
}

void Harness::make_ready(const std::string& port)
{
    for (FdPort* candidate : impl_->get().block.get_fdports()) {
        if (candidate->get_name() != port) {
            continue;
        }
        if (auto* const event_port = runtime::as_event_port(*candidate)) {
            event_port->fire();
        } else {
            const FDEvent::EventMask mask = candidate->get_eventmask();
            candidate->trigger(mask.readable, mask.writable);
            impl_->get().runner.visit();
        }
        return;
    }
    throw std::out_of_range("the block has no descriptor port '" + port + "'");
}

void Harness::advance(std::chrono::nanoseconds duration)
{
    impl_->get().tools->advance(duration);
}

void Harness::reconfigure(const BlockConfiguration& override)
{
    Subject& subject = impl_->get();
    const Operation operation(subject.path(), "reconfigure", impl_->record);
    const BlockConfiguration overrides = impl_->overrides + override;
    impl_->get().block.override_config(overrides);
    impl_->overrides = overrides;
    impl_->get().runner.look_at_outputs();
    impl_->note_outputs();
}

bool Harness::is_done() const
{
    return impl_->get().runner.is_done();
}

const std::vector<std::string>& Harness::stop_reasons() const
{
    return impl_->get().tools->stop_reasons();
}

std::pair<std::uint64_t, std::uint64_t> Harness::progress() const
{
    return impl_->get().tools->last_progress();
}

const std::vector<std::string>& Harness::messages() const
{
    return impl_->record.messages;
}

Block& Harness::block()
{
    return impl_->get().block;
}

void Harness::feed_port(const std::string& port, std::unique_ptr<OutPortInternal> output)
{
    InPortInternal& input = *impl_->get().block.get_inport(port).front().second.get_connectable();
    const Datatype& type = output->get_datatype();
    if (!input.get_datatype().is_assignable_from(type)) {
        throw_wrong_type(input, type.get_name().c_str());
    }
    input.update(*output);
    impl_->get().runner.visit();
    impl_->fed[port] = std::move(output);
}

const void* Harness::get_output(const std::string& port, const char* type) const
{
    OutPortInternal& output = impl_->get().block.get_outport(port).second;
    if (output.get_datatype() != Datatype(type)) {
        throw_wrong_type(output, type);
    }
    if (output.get_data() == nullptr) {
        throw std::runtime_error(port + " has no value");
    }
    return output.get_data();
}

}  // namespace Quorval
