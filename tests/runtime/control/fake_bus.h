// A message bus of a test, which answers what a real one would not.
#pragma once

#include "loop/descriptor.h"
#include "support/support.h"

#include <systemd/sd-bus.h>

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quorval_test {

/// The user's bus of this process. Has one client at a time, and works on a thread of its own.
class FakeBus {
public:
    /// Does something with a message, as the functions of sd-bus do. A negative errno ends the
    /// connection.
    using Answer = std::function<int(sd_bus_message*)>;

    /// A call to the client by somebody on the bus.
    struct Call {
        std::string sender;  ///< ":1.17" belongs to the user with the number 17
        std::string path;
        std::string interface;
        std::string name;
        Answer append = [](sd_bus_message*) { return 0; };  ///< the arguments
    };

    FakeBus();
    FakeBus(const FakeBus&) = delete;
    FakeBus& operator=(const FakeBus&) = delete;
    ~FakeBus();

    /// How calls of this name are answered from here on, or who is told of such signals. Other
    /// calls are unknown.
    void on(const std::string& name, Answer answer);

    /// Before the first client: what it is called with when it has its name, one after the other.
    /// @param end  called behind the last one, on the thread of the bus
    void will_call(std::vector<Call> calls, std::function<void()> end);

    /// Ends it.
    /// @return  what its calls were answered with: values, or "<name>: <text>" of an error
    std::vector<std::string> stop();

private:
    void run();
    bool wait_for(int fd) const;
    void serve(int client);
    Answer find_answer(sd_bus_message* message);
    void call_next(sd_bus* bus);
    static int on_message(sd_bus_message* message, void* self, sd_bus_error* error);
    static int on_answer(sd_bus_message* message, void* self, sd_bus_error* error);

    TemporaryDirectory directory_;
    ScopedEnvironment address_;
    Quorval::runtime::Descriptor listener_;
    Quorval::runtime::Descriptor end_;
    std::mutex mutex_;  // of what the test says
    std::map<std::string, Answer> answers_;
    std::vector<Call> calls_;
    std::function<void()> at_end_;
    std::size_t called_ = 0;
    std::vector<std::string> results_;
    std::thread thread_;
};

/// Answers with an error.
FakeBus::Answer refuse(const std::string& name, const std::string& text);

/// The values of a message up to its end, or that of the container: texts and numbers, containers
/// in parentheses.
std::string read_values(sd_bus_message* message);

/// A text that is not UTF-8, which not every bus keeps back.
void append_broken_text(sd_bus_message* message);

/// Bytes that this process has from malloc(); 0 where a sanitizer stands in for it, which tells of
/// leaks itself.
std::size_t used_memory();

/// Answers with a number.
FakeBus::Answer give(unsigned number);

}  // namespace quorval_test
