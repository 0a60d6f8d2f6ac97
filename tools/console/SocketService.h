#pragma once

#include <QJsonArray>
#include <QString>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

// The server's end of the agents' push channel: accepts agents, records what
// they send (handshake, keep-alives) and pushes command texts to them.
class SocketService
{
public:
    // Called on a connection's thread for every message, with the token its
    // handshake named (empty before one).
    using MessageHandler = std::function<void(const std::string& token)>;
    explicit SocketService(MessageHandler onMessage = {});
    ~SocketService();

    // Serve TLS with this certificate chain and key (PEM); false with the reason.
    bool useTls(const std::string& certFile, const std::string& keyFile, std::string* error);
    int listen(const std::string& host, int port); // returns the bound port, or -1
    void stop();

    // Sends text to every connected agent whose address matches peer (all when empty).
    int push(const std::string& text, const std::string& peer);
    int closeAll();

    // The agent reads each read of its socket as one command and pauses after
    // it: one command per connection per `gap`. False when the host has no open
    // connection, sent something within the gap or the send failed.
    bool sendPaced(const std::string& token, const std::string& text, std::chrono::milliseconds gap);
    std::set<std::string> openTokens() const;

    QJsonArray connections() const;
    QJsonArray messages() const;

private:
    struct Connection {
        int fd = -1;
        int id = 0;
        std::string peer;
        std::string handshake;
        std::string token; // from the handshake "Connect#$#$<ip>#$#$<token>"
        std::chrono::steady_clock::time_point lastSent{};
        int keepAlives = 0;
        int received = 0;
        std::atomic<bool> open{true};
        SSL* ssl = nullptr; // set once the TLS handshake is done
        std::mutex io;      // one SSL object is not used by two threads at once
        std::thread reader;
    };
    void acceptLoop();
    void readLoop(Connection* c);
    SSL* acceptTls(Connection* c);
    bool sendTo(Connection& c, const std::string& text);
    void record(Connection& c, const std::string& text);

    MessageHandler m_onMessage;
    int m_listenFd = -1;
    SSL_CTX* m_tls = nullptr;
    std::atomic<bool> m_stop{false};
    std::thread m_acceptor;
    mutable std::mutex m_mutex;
    std::list<std::unique_ptr<Connection>> m_connections;
    QJsonArray m_messages;
    int m_nextId = 0;
};
