// A broker of a test that does what a real one would not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace quorval_test {

/// A server on the loopback address that speaks as much of MQTT 5 as a test wants, to one client at
/// a time. What a client does not do within a minute ends in an exception.
class Server {
public:
    Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    /// `mqtt://...`
    std::string url(const std::string& scheme = "mqtt") const;
    /// `link.broker = "mqtt://..."`, a line of a graph file.
    std::string link(const std::string& scheme = "mqtt") const;

    /// Waits for the next client; the one before is dropped.
    void accept();
    void drop();

    /// Sends bytes; as many as the client takes.
    /// @return false: it has ended the connection
    bool send(const std::string& bytes);

    /// Reads the client's next packet of a kind.
    /// @param kind  the first four bits
    std::string read(unsigned kind);

    /// Takes the next client, and answers its wish to connect.
    /// @param answer  what the packet holds
    void answer_connect(const std::string& answer);
    /// Refuses the next client as one that is not allowed.
    void refuse();
    /// Agrees to the next client.
    void welcome();
    /// Answers the client's next subscriptions.
    /// @param reason  why they are refused; 0: they are not
    void answer_subscriptions(int count, char reason = 0);
    /// Agrees to the next client, and to its subscriptions.
    /// @param count  of them
    void serve(int count);

    /// The first byte of the packet that was read last.
    unsigned first() const { return first_; }

    static constexpr unsigned kConnect = 1;
    static constexpr unsigned kPublish = 3;
    static constexpr unsigned kSubscribe = 8;
    static constexpr unsigned kPing = 12;
    static constexpr unsigned kDisconnect = 14;

    /// A packet.
    /// @param first  byte of it
    static std::string packet(unsigned first, const std::string& rest);
    /// A message with a value and its stamp.
    /// @param quality  0 or 1
    static std::string message(const std::string& topic, const std::string& type,
                               std::uint64_t start, std::uint64_t number, const std::string& value,
                               int quality = 0);
    /// The answer to a subscription.
    static std::string answer_to(const std::string& subscription, char reason = 0);
    /// The length of what follows.
    static std::string length(std::size_t length);
    /// A text with its length.
    static std::string text(const std::string& text);

private:
    std::string read_bytes(std::size_t count);

    int listener_ = -1;
    int client_ = -1;
    int port_ = 0;
    unsigned first_ = 0;
};

}  // namespace quorval_test
