// A link and a broker that does what the test wants, by a clock that the test moves.
#pragma once

#include <quorval/runtime/tools.h>
#include "link/link.h"
#include "runtime/link/server.h"
#include "runtime/support/fakes.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace quorval_test {

/// The machine "edge" of the graph "g", with the output "count.out" that "hub" reads.
class LinkAndServer : public testing::Test {
protected:
    LinkAndServer()
    {
        network_.nodes.push_back({"count", &block_});
        network_.exits.push_back({0, "out", &output_, true});
    }

    /// Has it read "far.out" too. All values have to arrive.
    void add_entry()
    {
        network_.entries.push_back(
            {"far", "out",
             std::make_shared<Quorval::runtime::RemoteOutput>("out", Quorval::Datatype("string")),
             true});
    }

    /// A value of "far.out".
    static std::string value(std::uint64_t number, std::size_t bytes = 1, int quality = 0)
    {
        return Server::message("quorval/g/value/far/out", "string", 1, number,
                               std::string(bytes, 'x'), quality);
    }

    void make(const std::string& host = "127.0.0.1")
    {
        present = std::chrono::seconds(100);
        description_.host = host;
        description_.broker = server_.url();
        description_.port =
            std::stoi(description_.broker.substr(description_.broker.rfind(':') + 1));
        link_ = std::make_unique<Quorval::runtime::Link>(
            Quorval::runtime::Link::Setting{description_, "g", "edge", {"edge", "hub"}}, network_,
            plugins_, poller_, [] { return present; });
        log_.clear();
    }

    void wait() { link_->take(poller_.wait(link_->next_time() > present)); }

    /// Has the link work until something has come of it.
    void turn_until(const std::function<bool()>& is_over)
    {
        while (!is_over()) {
            link_->prepare();
            if (!is_over()) {
                wait();
            }
        }
    }

    /// Likewise, while the broker does its part.
    void work(const std::function<void()>& broker, const std::function<bool()>& is_over)
    {
        std::thread thread(broker);
        turn_until(is_over);
        thread.join();
    }

    void work_until_said(std::size_t messages, const std::function<void()>& broker)
    {
        work(broker, [&] { return log_.texts().size() >= messages; });
    }

    std::string standing() const
    {
        return "the link over the broker " + description_.broker + " stands";
    }

    /// Until the link stands.
    /// @param questions  that it asks the broker
    void stand(int questions = 2)
    {
        work_until_said(1, [=] { server_.serve(questions); });
        EXPECT_THAT(log_.texts(), testing::ElementsAre(standing()));
        log_.clear();
    }

    void give(const std::string& value)
    {
        output_.write(value);
        static_cast<Quorval::runtime::ITriggerWatcher&>(*link_).has_value(0);
    }

    std::string away(const std::string& why) const
    {
        return "the broker " + description_.broker + " is away: " + why + "; values wait for it";
    }

    static inline Quorval::runtime::Link::Time present;
    LogRecorder log_{LOGLEVEL_INFO};
    Server server_;
    Quorval::runtime::LinkDescription description_;
    FakeBlock block_{"count"};
    Quorval::OutPort<std::string> output_{"out", Quorval::Datatype("string")};
    Quorval::runtime::Network network_;
    Quorval::InitTools tools_;
    Quorval::runtime::PluginSet plugins_{{}, tools_};
    Quorval::runtime::Poller poller_;
    std::unique_ptr<Quorval::runtime::Link> link_;
};

}  // namespace quorval_test
