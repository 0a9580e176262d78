// What sd_journal_sendv() adds would be the place of its call here, and not that of the message.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include <quorval/runtime/messages.h>
#include "messages/context.h"
#include "messages/lines.h"
#include "messages/turn.h"

#include <systemd/sd-journal.h>

#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

namespace Quorval {

namespace {

using runtime::context;
using runtime::do_in_turn;
using runtime::loading_graph;
using runtime::present_deeds;
using runtime::to_entry;
using runtime::to_lines;

/// Whether standard error leads to the journal: the service manager says which file that is.
bool is_journal()
{
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    return stream != nullptr && ::fstat(STDERR_FILENO, &status) == 0 &&
           stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

/// In one piece, where the system lets it; what cannot be written is lost.
void write_all(const std::string& text)
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            return;
        }
        done += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
}

/// As syslog(3) counts.
int priority_of(loglevel level)
{
    return level <= LOGLEVEL_WARNING ? level + 1 : level + 2;
}

/// Of its messages those of blocks that run side by side wait for their turn. Nothing else brings
/// them into order: threads that log at any time must find one sink all the while.
class Sink : public LogInstance {
public:
    explicit Sink(loglevel threshold) : LogInstance(threshold), is_journal_(is_journal())
    {
        if (is_journal_) {
            // Sends nothing, but loads the library: threads may log while another one loads a
            // plug-in, and must not wait for it.
            sd_journal_sendv(nullptr, 0);
        }
    }

    void emit(loglevel level, const char* text, int length) override
    {
        const std::string_view message(text, static_cast<std::size_t>(length));
        if (present_deeds() != nullptr) {
            do_in_turn([this, level, kept = std::string(message)] { show_late(level, kept); });
        } else if (!is_journal_ || !send(level, context().path, message)) {
            write_all(to_lines(level, context().path, message));
        }
    }

    void set_graph(const std::string& name)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        graph_ = name;
    }

private:
    void show_late(loglevel level, const std::string& text)
    {
        try {
            emit(level, text.data(), static_cast<int>(text.size()));
        } catch (...) {
            return;  // as everywhere: a message that cannot be shown is lost
        }
    }

    /// @return false: the journal does not take it. It has standard error, too, as lines alone.
    bool send(loglevel level, const char* path, std::string_view text)
    {
        std::vector<std::string> fields = {"MESSAGE=" + to_entry(path, text),
                                           "PRIORITY=" + std::to_string(priority_of(level))};
        if (const std::string graph = present_graph(); !graph.empty()) {
            fields.push_back("QUORVAL_GRAPH=" + graph);
        }
        if (path != nullptr) {
            fields.push_back(std::string("QUORVAL_BLOCK=") + path);
        }
        std::vector<iovec> vectors;
        vectors.reserve(fields.size());
        for (std::string& field : fields) {
            vectors.push_back({field.data(), field.size()});
        }
        return sd_journal_sendv(vectors.data(), static_cast<int>(vectors.size())) >= 0;
    }

    std::string present_graph()
    {
        if (loading_graph() != nullptr) {
            return loading_graph();
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        return graph_;
    }

    bool is_journal_;
    std::mutex mutex_;
    std::string graph_;
};

}  // namespace

struct Messages::Impl {
    Sink* sink;  // owned by loginstance
    std::unique_ptr<LogInstance> before;
};

Messages::Messages(loglevel threshold)
{
    auto sink = std::make_unique<Sink>(threshold);
    impl_ = std::unique_ptr<Impl>(new Impl{sink.get(), nullptr});
    impl_->before = std::exchange(loginstance, std::move(sink));
}

Messages::~Messages()
{
    loginstance = std::move(impl_->before);
}

void Messages::set_graph(const std::string& name)
{
    impl_->sink->set_graph(name);
}

}  // namespace Quorval
