// Changes of a running graph over a message bus, against a service by hand; and the start of the
// command.

#include <quorval/runtime/graph.h>
#include "harness.h"
#include "processes.h"
#include "running.h"

#include <systemd/sd-bus.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace quorval_bench {

namespace {

constexpr std::size_t kCalls = 50;
constexpr const char* kServiceName = "org.quorval.graph.idle";
constexpr const char* kObject = "/org/quorval/graph";
constexpr const char* kInterface = "org.quorval.Graph1";

/// A bus of one's own.
class PrivateBus {
public:
    PrivateBus()
    {
        std::array<char, 256> line = {};
        if (::read(pipe_.read_end(), line.data(), line.size() - 1) <= 0) {
            throw std::runtime_error("dbus-daemon does not start");
        }
        address_ = line.data();
        address_.erase(address_.find('\n'));
    }

    const std::string& address() const { return address_; }

private:
    Pipe pipe_;
    Child daemon_{[this] {
        const std::string print = "--print-address=" + std::to_string(pipe_.write_end());
        ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile",
                 print.c_str(), nullptr);
    }};
    std::string address_;
};

struct BusCloser {
    void operator()(sd_bus* bus) const { ::sd_bus_flush_close_unref(bus); }
};
using BusHandle = std::unique_ptr<sd_bus, BusCloser>;

void check(int result)
{
    if (result < 0) {
        throw std::runtime_error("the bus fails with " + std::to_string(-result));
    }
}

BusHandle connect(const std::string& address)
{
    sd_bus* bus = nullptr;
    check(::sd_bus_new(&bus));
    BusHandle handle(bus);
    check(::sd_bus_set_address(bus, address.c_str()));
    check(::sd_bus_set_bus_client(bus, 1));
    check(::sd_bus_start(bus));
    return handle;
}

/// A graph on the bus, whose block takes changes.
void serve_graph(const std::string& address)
{
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    const std::string file = scratch_directory() + "idle.toml";
    std::ofstream(file) << "format = 1\nblocks.a.type = \"bench-chain:Idle\"\n";
    Quorval::GraphOptions options = chain_options(file);
    options.bus = Quorval::Bus::User;
    Quorval::Graph(options).run();
}

int take_call(sd_bus_message* message, void* /*context*/, sd_bus_error* /*error*/)
{
    return ::sd_bus_message_skip(message, "a{ss}") < 0 ? -1
                                                       : ::sd_bus_reply_method_return(message, "");
}

/// A service that answers and does nothing else.
void serve_by_hand(const std::string& address)
{
    static const std::array<sd_bus_vtable, 3> kTable = {
        sd_bus_vtable(SD_BUS_VTABLE_START(0)),
        sd_bus_vtable(
            SD_BUS_METHOD("Configure", "a{ss}", "", take_call, SD_BUS_VTABLE_UNPRIVILEGED)),
        sd_bus_vtable(SD_BUS_VTABLE_END)};
    const BusHandle bus = connect(address);
    check(::sd_bus_add_object_vtable(bus.get(), nullptr, kObject, kInterface, kTable.data(),
                                     nullptr));
    check(::sd_bus_request_name(bus.get(), kServiceName, 0));
    while (::sd_bus_process(bus.get(), nullptr) >= 0) {
        ::sd_bus_wait(bus.get(), UINT64_MAX);
    }
}

/// A service and its caller.
class Service {
public:
    explicit Service(void (*serve)(const std::string&))
        : child_([this, serve] { serve(bus_.address()); }), caller_(connect(bus_.address()))
    {
        while (!call(0)) {
            ::usleep(1000);
        }
    }

    bool call(int value)
    {
        const std::string text = std::to_string(value);
        const int result =
            ::sd_bus_call_method(caller_.get(), kServiceName, kObject, kInterface, "Configure",
                                 nullptr, nullptr, "a{ss}", 1, "a.value", text.c_str());
        is_right_ = result >= 0;
        return is_right_;
    }

    void call_many()
    {
        bool are_right = true;
        for (std::size_t count = 0; count < kCalls; ++count) {
            are_right = call(++value_) && are_right;
        }
        is_right_ = are_right;
    }

    bool is_right() const { return is_right_; }

private:
    PrivateBus bus_;
    Child child_;
    BusHandle caller_;
    int value_ = 0;
    bool is_right_ = false;
};

void add_configure()
{
    const auto add = [](const std::string& side, void (*serve)(const std::string&)) {
        add_time("bus_configure/" + side, kCalls, [serve] {
            auto service = std::make_shared<Service>(serve);
            return Side{[service] { service->call_many(); },
                        [service] { return service->is_right(); }, [] {}, wall_seconds};
        });
    };
    add("quorval", serve_graph);
    add("by_hand", serve_by_hand);
}

/// The command, up to its notice that it is ready.
class Start {
public:
    Start()
    {
        address_.sun_family = AF_UNIX;
        path_.copy(&address_.sun_path[0], sizeof address_.sun_path - 1);
        ::unlink(path_.c_str());
        if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address_), sizeof address_) != 0) {
            throw std::runtime_error("no socket");
        }
        ::setenv("NOTIFY_SOCKET", path_.c_str(), 1);
        std::ofstream(file_) << "format = 1\nblocks.a.type = \"bench-chain:Idle\"\n";
    }
    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;
    ~Start()
    {
        ::close(socket_);
        ::unlink(path_.c_str());
    }

    void run()
    {
        child_ = std::make_unique<Child>([this] {
            ::execl(QUORVAL_BENCH_COMMAND, "quorval", "run", "--plugin-path",
                    QUORVAL_BENCH_PLUGIN_DIR, file_.c_str(), nullptr);
        });
        std::array<char, 4096> notice = {};
        notice_.clear();
        while (notice_.find("READY=1") == std::string::npos) {
            const ssize_t size = ::read(socket_, notice.data(), notice.size());
            notice_.assign(notice.data(), static_cast<std::size_t>(size < 0 ? 0 : size));
        }
    }

    void end() { child_.reset(); }
    pid_t id() const { return child_->id(); }
    bool is_right() const { return !notice_.empty(); }

    /// The most that the process held.
    double peak() const
    {
        std::ifstream status("/proc/" + std::to_string(child_->id()) + "/status");
        for (std::string word; status >> word;) {
            if (word == "VmHWM:") {
                double kilobytes = 0;
                status >> kilobytes;
                return 1024 * kilobytes;
            }
        }
        return -1;
    }

private:
    std::string path_ = scratch_directory() + "notice";
    std::string file_ = scratch_directory() + "idle.toml";
    sockaddr_un address_ = {};
    int socket_ = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    std::string notice_;
    std::unique_ptr<Child> child_;
};

/// The files that a process has mapped.
std::set<std::string> mapped_files(pid_t process)
{
    std::set<std::string> files;
    std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
    for (std::string line; std::getline(maps, line);) {
        const std::size_t path = line.find('/');
        if (path != std::string::npos) {
            files.insert(line.substr(path));
        }
    }
    return files;
}

/// Takes a file out of the page cache, but for what a process has mapped.
/// @return how many of its pages stayed
std::size_t forget(const std::string& file)
{
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ::fdatasync(fd);  // what is to be written cannot be forgotten
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    const auto size = static_cast<std::size_t>(::lseek(fd, 0, SEEK_END));
    void* pages = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    std::vector<unsigned char> is_there(size / static_cast<std::size_t>(::getpagesize()) + 1);
    if (pages == MAP_FAILED || ::mincore(pages, size, is_there.data()) != 0) {
        throw std::runtime_error("the pages of " + file + " cannot be counted");
    }
    ::munmap(pages, size);
    return static_cast<std::size_t>(std::count_if(
        is_there.begin(), is_there.end(), [](unsigned char page) { return (page & 1U) != 0; }));
}

/// The command, when its files and those of its libraries are on the disk alone. What other
/// processes use too, such as libc, is in memory as on any machine that runs.
class ColdStart {
public:
    ColdStart()
    {
        start_.run();
        files_ = mapped_files(start_.id());
    }

    void prepare()
    {
        start_.end();
        for (const std::string& file : files_) {
            forget(file);
        }
        is_cold_ = forget(QUORVAL_BENCH_COMMAND) == 0;
    }
    void run() { start_.run(); }
    bool is_right() const { return is_cold_ && start_.is_right(); }

private:
    Start start_;
    std::set<std::string> files_;
    bool is_cold_ = false;
};

void add_cold_start()
{
    add_time("start_cold/quorval", 1, [] {
        auto start = std::make_shared<ColdStart>();
        return Side{[start] { start->run(); }, [start] { return start->is_right(); },
                    [start] { start->prepare(); }, wall_seconds};
    });
    add_time("start_cold/warm", 1, [] {
        auto start = std::make_shared<Start>();
        return Side{[start] { start->run(); }, [start] { return start->is_right(); },
                    [start] {
                        start->run();
                        start->end();
                    },
                    wall_seconds};
    });
    add_known_seconds("start_cold/goal", 0.020);
}

void add_start()
{
    add_time("start/quorval", 1, [] {
        auto start = std::make_shared<Start>();
        return Side{[start] { start->run(); }, [start] { return start->is_right(); },
                    [start] { start->end(); }, wall_seconds};
    });
    add_time("start/true", 1, [] {
        auto status = std::make_shared<int>(-1);
        return Side{[status] { *status = std::system("true"); },  // NOLINT: no other does so little
                    [status] { return *status == 0; }, [] {}, wall_seconds};
    });
    add_bytes("peak_start/quorval", [] {
        Start start;
        start.run();
        return start.peak();
    });
    add_known_bytes("peak_start/goal", 8e6);
}

const bool is_registered = [] {
    add_configure();
    add_start();
    add_cold_start();
    return true;
}();

}  // namespace

}  // namespace quorval_bench
