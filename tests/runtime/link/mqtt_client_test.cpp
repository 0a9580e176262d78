#include "link/mqtt_client.h"

#include "runtime/link/broker.h"
#include "runtime/link/certificate.h"
#include "runtime/link/server.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

using Quorval::runtime::LinkDescription;
using Quorval::runtime::MqttClient;
using Quorval::runtime::Stamp;
using quorval_test::Broker;
using quorval_test::expect_throw;
using quorval_test::make_certificate;
using quorval_test::NoDescriptors;
using quorval_test::NoStandardInput;
using quorval_test::Server;
using quorval_test::TemporaryDirectory;

namespace {

constexpr int kPatienceMilliseconds = 60'000;

std::time_t standing = 0;      // seconds; the clock stands there
bool waits_for_reset = false;  // a write of data over TLS, for the other end
int error_of_writes = 0;       // errno; 0: they succeed

}  // namespace

// What the program defines goes before what the C library has under the same name.
extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept
{
    if (standing != 0 && clock == CLOCK_MONOTONIC) {
        *time = {standing, 0};
        return 0;
    }
    return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
}

extern "C" ssize_t write(int fd, const void* bytes, size_t size)
{
    constexpr unsigned char kData = 0x17;  // the kind of a record, behind the handshake
    if (waits_for_reset && size > 1 && *static_cast<const unsigned char*>(bytes) == kData) {
        pollfd one = {fd, 0, 0};
        EXPECT_EQ(::poll(&one, 1, kPatienceMilliseconds), 1);
    }
    if (error_of_writes != 0 && size > 1) {
        errno = error_of_writes;
        return -1;
    }
    return ::syscall(SYS_write, fd, bytes, size);
}

namespace {

/// The clock of the library stands while this exists.
class StandingClock {
public:
    StandingClock() { set(1000); }
    StandingClock(const StandingClock&) = delete;
    StandingClock& operator=(const StandingClock&) = delete;
    ~StandingClock() { set(0); }

    static void set(std::time_t seconds) { standing = seconds; }
};

LinkDescription link_to(const std::string& url)
{
    LinkDescription link;
    link.host = "127.0.0.1";
    link.port = std::stoi(url.substr(url.rfind(':') + 1));
    return link;
}

LinkDescription encrypted_link_to(const std::string& url)
{
    LinkDescription link = link_to(url);
    link.is_encrypted = true;
    return link;
}

/// Waits for the next packet and reads it.
/// @return whether there may be more
bool read_one(MqttClient& client)
{
    pollfd one = {client.fd(), POLLIN, 0};
    EXPECT_EQ(::poll(&one, 1, kPatienceMilliseconds), 1);
    return client.read();
}

void write_all(MqttClient& client)
{
    while (client.wants_write()) {
        client.write();
    }
}

const MqttClient::Identity kHub = {"quorval-g-hub", "will", "offline", 1, false};

void ignore(const char* /*topic*/, const Stamp& /*stamp*/, std::string_view /*bytes*/) {}

/// Has the client connect to the server, which agrees unless something else is said.
void join(MqttClient& client, Server& server, const std::string& answer = std::string(3, '\0'))
{
    client.connect();
    write_all(client);
    server.answer_connect(answer);
    read_one(client);
}

TEST(MqttClient, ThrowsWhatItsReceiverThrewWhenTheLibraryHasReturned)
{
    Server server;
    std::vector<std::string> topics;
    MqttClient client(link_to(server.url()), kHub,
                      [&](const char* topic, const Stamp& /*stamp*/, std::string_view /*bytes*/) {
                          topics.emplace_back(topic);
                          if (topics.size() == 1) {
                              throw std::bad_alloc();
                          }
                      });
    join(client, server);
    ASSERT_TRUE(client.take_news().answer);

    server.send(Server::message("a", "int32", 1, 1, "") + Server::message("b", "int32", 1, 2, ""));
    EXPECT_THROW(read_one(client), std::bad_alloc);
    client.read();

    EXPECT_EQ(topics, (std::vector<std::string>{"a", "b"}));
}

/// Connects, and gives what it said.
std::string connect(const LinkDescription& link, const MqttClient::Identity& identity,
                    Server& server)
{
    MqttClient client(link, identity, ignore);
    client.connect();
    write_all(client);
    server.accept();
    return server.read(Server::kConnect);
}

TEST(MqttClient, SaysToTheBrokerWhatItIs)
{
    const TemporaryDirectory directory;
    Server server;
    LinkDescription link = link_to(server.url());
    const std::string kind = Server::text("MQTT") + "\x05";
    const std::string keep_alive("\0\x1E", 2);
    const std::string most = std::string("\x27\x01\x10\0\0", 5);  // 17 MiB
    const std::string for_ever = "\x11\xFF\xFF\xFF\xFF";
    const std::string start = "\x26" + Server::text("start") + Server::text("12");
    const std::string rest = Server::text("quorval-g-hub") + static_cast<char>(start.size()) +
                             start + Server::text("will") + Server::text("offline");

    std::string said = connect(link, {"quorval-g-hub", "will", "offline", 12, false}, server);
    EXPECT_EQ(said.substr(0, kind.size() + 3), kind + "\x2C" + keep_alive);
    EXPECT_NE(said.find(most), std::string::npos);
    EXPECT_EQ(said.find(for_ever), std::string::npos);
    EXPECT_EQ(said.substr(said.size() - rest.size()), rest);

    link.user = "me";
    link.password_file = directory.path() / "password";
    quorval_test::write_file(link.password_file, "secret\n");
    said = connect(link, {"quorval-g-hub", "will", "offline", 12, true}, server);
    const std::string all = rest + Server::text("me") + Server::text("secret");
    EXPECT_EQ(said.substr(0, kind.size() + 3), kind + "\xEC" + keep_alive);
    EXPECT_NE(said.find(for_ever), std::string::npos);
    EXPECT_EQ(said.substr(said.size() - all.size()), all);

    link.password_file.clear();
    said = connect(link, {"quorval-g-hub", "will", "offline", 12, true}, server);
    EXPECT_EQ(said.substr(0, kind.size() + 3), kind + "\xAC" + keep_alive);
}

/// What it publishes and asks for, as the broker gets it.
TEST(MqttClient, PublishesAndSubscribes)
{
    Server server;
    MqttClient client(link_to(server.url()), kHub, ignore);
    join(client, server);
    const std::string start = "\x26" + Server::text("start") + Server::text("5");
    const std::string whole = start + "\x26" + Server::text("type") + Server::text("int32") +
                              "\x26" + Server::text("number") + Server::text("7");
    std::string why;

    for (const bool is_retained : {false, true}) {
        client.publish("t", "latest", {"int32", 5, 7}, false, is_retained, why);
        write_all(client);
        EXPECT_EQ(server.read(Server::kPublish),
                  Server::text("t") + static_cast<char>(whole.size()) + whole + "latest");
        EXPECT_EQ(server.first(), is_retained ? 0x31U : 0x30U);
    }
    const auto message = client.publish("t", "all", {"", 5, 7}, true, true, why);
    write_all(client);
    const std::string number = {'\0', static_cast<char>(message.value())};
    EXPECT_EQ(server.read(Server::kPublish),
              Server::text("t") + number + static_cast<char>(start.size()) + start + "all");
    EXPECT_EQ(server.first(), 0x33U);

    for (const auto& [keeps_all, wants_retained, options] :
         {std::tuple(false, true, '\0'), std::tuple(true, false, '\x21'),
          std::tuple(true, true, '\1'), std::tuple(false, false, '\x20')}) {
        client.subscribe("t", keeps_all, wants_retained, why);
        write_all(client);
        EXPECT_EQ(server.read(Server::kSubscribe).substr(2),
                  std::string(1, '\0') + Server::text("t") + options);
    }
    EXPECT_EQ(client.subscribe("#t", false, false, why), std::nullopt);
    EXPECT_EQ(why, "Invalid function arguments provided");
    why.clear();
    EXPECT_EQ(client.publish("+", "", {"", 5, 7}, false, false, why), std::nullopt);
    EXPECT_EQ(why, "Invalid function arguments provided");
}

/// The length of a packet takes another byte from 128 on.
TEST(MqttClient, CountsTheBytesOfALength)
{
    Server server;
    MqttClient client(link_to(server.url()), kHub, ignore);
    join(client, server, std::string("\0\0\5\x27\0\0\0\x82", 8));

    std::string why;
    EXPECT_TRUE(client.publish("t", std::string(112, 'x'), {"", 1, 0}, false, false, why));
    EXPECT_FALSE(client.publish("t", std::string(113, 'x'), {"", 1, 0}, false, false, why));
    EXPECT_EQ(why, "a packet of 131 bytes is more than the 130 that the broker takes");
}

TEST(MqttClient, KnowsWhetherTheBrokerHasKeptItsSession)
{
    for (const char flags : {'\0', '\1'}) {
        Server server;
        MqttClient client(link_to(server.url()), {"quorval-g-hub", "will", "offline", 1, true},
                          ignore);
        join(client, server, {flags, '\0', '\0'});

        const MqttClient::News news = client.take_news();
        ASSERT_TRUE(news.answer);
        EXPECT_EQ(news.answer->reason, 0);
        EXPECT_EQ(news.answer->has_session, flags == '\1');
        EXPECT_FALSE(news.end);
        EXPECT_EQ(news.error, 0);
        EXPECT_FALSE(news.is_refused);
    }
}

TEST(MqttClient, HasTextsWithoutAFullStop)
{
    using Quorval::runtime::text_of_error;
    EXPECT_EQ(text_of_error(MOSQ_ERR_SUCCESS), "No error");
    errno = ENOENT;
    EXPECT_EQ(text_of_error(MOSQ_ERR_ERRNO), "No such file or directory");
}

/// A stamp stands in the first sixteen properties, and its type has 1024 bytes at most.
TEST(MqttClient, LooksAtAPartOfAMessageThatIsLarge)
{
    Server server;
    std::vector<Stamp> stamps;
    MqttClient client(link_to(server.url()), kHub,
                      [&](const char* /*topic*/, const Stamp& stamp, std::string_view /*bytes*/) {
                          stamps.push_back(stamp);
                      });
    join(client, server);

    for (const int others : {13, 14}) {
        std::string properties = "\x26" + Server::text("type") +
                                 Server::text(std::string(1025, 't')) + "\x26" +
                                 Server::text("start") + Server::text("1");
        for (int count = 0; count < others; ++count) {
            properties += "\x26" + Server::text("x") + Server::text("9");
        }
        properties += "\x26" + Server::text("number") + Server::text("2");
        server.send(Server::packet(
            0x30, Server::text("a") + Server::length(properties.size()) + properties));
        read_one(client);
        client.read();
    }

    ASSERT_EQ(stamps.size(), 2U);
    EXPECT_EQ(stamps[0].number, 2U);
    EXPECT_EQ(stamps[0].type, std::string(1024, 't'));
    EXPECT_EQ(stamps[1].number, 0U);
}

TEST(MqttClient, RefusesWhatNoBrokerCanBeTold)
{
    // The library closes descriptor 0 where it refuses a name, which no graph has.
    const NoStandardInput none;
    const auto make = [](const LinkDescription& link) {
        const MqttClient client(link, kHub, ignore);
    };
    const auto make_named = [](const std::string& name, const std::string& will_topic) {
        const MqttClient client({}, {name, will_topic, "offline", 1, false}, ignore);
    };
    expect_throw<std::runtime_error>([&] { make_named("\xFF", "will"); },
                                     "there is no client for the broker");
    expect_throw<std::runtime_error>([&] { make_named("quorval-g-hub", "#"); },
                                     "there is no last will for the broker: Invalid function "
                                     "arguments provided");
    LinkDescription user;
    user.user = "a\x01";
    expect_throw<std::runtime_error>([&] { make(user); },
                                     "the user cannot be used: Malformed UTF-8");
    LinkDescription half;
    half.is_encrypted = true;
    half.cert = "/dev/null";
    expect_throw<std::runtime_error>([&] { make(half); },
                                     "cannot read '/dev/null': not a regular file");
    half.cert = "/proc/self/maps";
    expect_throw<std::runtime_error>(
        [&] { make(half); },
        "the certificates cannot be used: Invalid function arguments provided");
}

/// A message whose stamp is made of any texts.
std::string message(const std::vector<std::pair<std::string, std::string>>& stamp)
{
    std::string properties;
    for (const auto& [name, value] : stamp) {
        properties += "\x26" + Server::text(name) + Server::text(value);
    }
    return Server::packet(0x30, Server::text("a") + Server::length(properties.size()) + properties);
}

TEST(MqttClient, TakesStampsThatAreWhole)
{
    struct Case {
        std::string start;
        std::string number;
        std::uint64_t expected;
    };
    const std::vector<Case> cases = {
        {"1", "2", 2},   {"18446744073709551615", "3", 3},
        {"0", "2", 0},   {"x", "2", 0},
        {"12x", "2", 0}, {"18446744073709551616", "2", 0},
        {"", "2", 0},    {"1", "-2", 0},
        {"1", "2 ", 0},  {"1", "", 0},
    };
    Server server;
    std::vector<std::uint64_t> numbers;
    MqttClient client(link_to(server.url()), kHub,
                      [&](const char* /*topic*/, const Stamp& stamp, std::string_view /*bytes*/) {
                          numbers.push_back(stamp.number);
                      });
    join(client, server);

    for (const Case& one : cases) {
        numbers.clear();
        server.send(message({{"type", "int32"}, {"start", one.start}, {"number", one.number}}));
        read_one(client);

        EXPECT_EQ(numbers, std::vector<std::uint64_t>{one.expected})
            << one.start << ", " << one.number;
    }
    numbers.clear();
    server.send(message({{"start", "1"}, {"number", "2"}}) +
                message({{"type", "int32"}, {"number", "2"}}) +
                message({{"type", "int32"}, {"start", "1"}}));
    for (int count = 0; count < 3; ++count) {
        read_one(client);
    }
    EXPECT_EQ(numbers, (std::vector<std::uint64_t>{0, 0, 0}));
}

TEST(MqttClient, RefusesWhatIsLargerThanTheBrokerTakes)
{
    const TemporaryDirectory directory;
    const Broker broker(directory.path(), "allow_anonymous true\nmax_packet_size 300\n");
    MqttClient client(link_to(broker.url()), {"quorval-g-edge", "will", "offline", 1, false},
                      ignore);
    client.connect();
    while (!client.take_news().answer) {
        write_all(client);
        read_one(client);
    }

    // As many bytes as there is room for beside the topic, two lengths, the stamp and the rest.
    for (const auto& [keeps_all, most] : {std::pair(true, 280), std::pair(false, 282)}) {
        std::string why;
        for (int size = 200; size <= 300; ++size) {
            const auto message =
                client.publish("t", std::string(static_cast<std::size_t>(size), 'x'), {"", 1, 0},
                               keeps_all, false, why);
            EXPECT_EQ(message.has_value(), size <= most) << size << ": " << why;
        }
        EXPECT_EQ(why, "a packet of " + std::to_string(300 + 300 - most) +
                           " bytes is more than the 300 that the broker takes");
    }

    std::size_t published = 0;
    for (const std::size_t all = 81 + 83; published < all;) {
        write_all(client);
        const MqttClient::News news = client.take_news();
        ASSERT_FALSE(news.end);
        published += news.published.size();
        if (published < all && news.published.empty()) {
            read_one(client);
        }
    }
}

/// Reading tells of the end. What has a receipt is sent again with the next connection.
TEST(MqttClient, TakesWhatCannotBeWrittenBecauseTheConnectionHasEnded)
{
    // What the server has not read makes it reset the connection.
    for (const bool is_reset : {false, true}) {
        Server server;
        MqttClient client(link_to(server.url()), kHub, ignore);
        std::string why;
        join(client, server);
        if (is_reset) {
            client.publish("t", "", {"", 1, 0}, false, false, why);
        }
        server.drop();

        for (int count = 0; count < 3; ++count) {
            EXPECT_TRUE(client.publish("t", "", {"", 1, 0}, false, false, why)) << count;
        }

        EXPECT_EQ(why, "");
    }
}

/// Of messages that it does not answer it takes any number.
TEST(MqttClient, ReadsNothingWhereTheBrokerDoesNotTakeAThousandAnswers)
{
    Server server;
    MqttClient client(link_to(server.url()), kHub, ignore);
    join(client, server);
    const std::string large(std::size_t{16} * 1024 * 1024, 'x');
    std::string why;
    client.publish("t", large, {"", 1, 0}, false, false, why);
    ASSERT_TRUE(client.wants_write());

    const auto receive = [&](int messages, int quality) {
        for (int count = 0; count < messages; ++count) {
            server.send(Server::message("a", "int32", 1, 1, "", quality));
            read_one(client);
        }
    };
    receive(1000, 0);
    receive(999, 1);
    EXPECT_TRUE(client.may_read());
    receive(1, 1);
    EXPECT_FALSE(client.may_read());

    std::thread thread([&] { server.read(Server::kPublish); });
    write_all(client);
    thread.join();
    EXPECT_TRUE(client.may_read());
    receive(1, 1);
    client.publish("t", large, {"", 1, 0}, false, false, why);
    ASSERT_TRUE(client.wants_write());
    EXPECT_TRUE(client.may_read());
}

TEST(MqttClient, AsksABrokerThatIsSilentAndLeavesOneThatDoesNotAnswer)
{
    const StandingClock clock;
    Server server;
    MqttClient client(link_to(server.url()), kHub, ignore);
    const NoStandardInput none;
    join(client, server);
    EXPECT_EQ(client.fd(), 0);

    clock.set(1029);
    client.work();
    clock.set(1030);
    client.work();
    server.read(Server::kPing);
    server.send(Server::packet(0xD0, ""));
    EXPECT_TRUE(read_one(client));
    clock.set(1060);
    client.work();
    server.read(Server::kPing);
    clock.set(1089);
    client.work();
    EXPECT_FALSE(client.take_news().end);
    clock.set(1090);
    client.work();

    EXPECT_EQ(client.take_news().end, MOSQ_ERR_KEEPALIVE);
    EXPECT_EQ(client.fd(), -1);
}

/// With a broker that has a certificate.
class EncryptedMqttClient : public testing::Test {
protected:
    explicit EncryptedMqttClient(const std::string& settings = "")
        : broker_(directory_.store_path(), make_settings() + settings)
    {
        LinkDescription link = encrypted_link_to(broker_.url());
        link.ca = certificate() + ".pem";
        client_.emplace(link, kHub, ignore);
    }

    /// Has it work until something has come of it.
    void turn_until(const std::function<bool()>& is_over)
    {
        while (!is_over()) {
            read_one(*client_);
            if (client_->fd() >= 0 && client_->wants_write()) {
                client_->write();
            }
        }
    }

    std::optional<MqttClient> client_;

private:
    std::string certificate() const { return directory_.store_path() + "broker"; }

    std::string make_settings() const
    {
        make_certificate(certificate(), {"-addext", "subjectAltName=IP:127.0.0.1"});
        return "allow_anonymous true\ncafile " + certificate() + ".pem\ncertfile " + certificate() +
               ".pem\nkeyfile " + certificate() + ".key\n";
    }

    TemporaryDirectory directory_;
    Broker broker_;
};

class RefusedMqttClient : public EncryptedMqttClient {
protected:
    RefusedMqttClient() : EncryptedMqttClient("require_certificate true\n") {}
};

/// The broker has said why, and has reset the connection, before the first packet is written.
TEST_F(RefusedMqttClient, IsToldOfItWhereTheConnectionIsReset)
{
    waits_for_reset = true;
    client_->connect();
    turn_until([this] { return client_->fd() < 0; });
    waits_for_reset = false;

    const MqttClient::News news = client_->take_news();
    EXPECT_TRUE(news.end);
    EXPECT_TRUE(news.is_refused);
}

/// What it has not read by then does not hold it up.
TEST_F(EncryptedMqttClient, LeavesAConnectionThatIsResetLater)
{
    std::string why;
    client_->connect();
    turn_until([this] { return client_->take_news().answer.has_value(); });
    client_->subscribe("t", false, false, why);
    pollfd answer = {client_->fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&answer, 1, kPatienceMilliseconds), 1);

    error_of_writes = ECONNRESET;
    client_->publish("t", "", {"", 1, 0}, false, false, why);
    client_->write();
    error_of_writes = 0;

    EXPECT_TRUE(client_->take_news().end);
}

void expect_end_by(int error, MqttClient& client)
{
    const MqttClient::News news = client.take_news();
    EXPECT_EQ(news.end, MOSQ_ERR_ERRNO);
    EXPECT_EQ(news.error, error);
}

TEST(MqttClient, TellsTheErrorThatEndedItsConnection)
{
    const Server server;
    MqttClient client(link_to(server.url()), kHub, ignore);
    {
        const NoDescriptors none;
        client.connect();
    }
    expect_end_by(EMFILE, client);
}

TEST(MqttClient, TellsWhyAConnectionOverTlsCouldNotBeMade)
{
    const Server server;
    MqttClient client(encrypted_link_to(server.url()), kHub, ignore);

    error_of_writes = EAGAIN;  // not yet
    client.connect();
    EXPECT_FALSE(client.take_news().end);
    error_of_writes = ECONNREFUSED;
    client.read();
    error_of_writes = 0;

    expect_end_by(ECONNREFUSED, client);
}

TEST(MqttClient, TakesNoErrorOfBeforeForOneOfItsConnection)
{
    const Server server;
    MqttClient client(encrypted_link_to(server.url()), kHub, ignore);
    client.connect();

    errno = EPIPE;
    client.write();
    EXPECT_FALSE(client.take_news().end);
    errno = EPIPE;
    client.work();
    EXPECT_FALSE(client.take_news().end);
}

}  // namespace
