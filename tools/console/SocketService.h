#pragma once

#include <QJsonArray>
#include <QString>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

// The server's end of the agents' push channel: accepts agents, records what
// they send (handshake, keep-alives) and pushes command texts to them.
class SocketService
{
public:
    explicit SocketService(const QString& logPath);
    ~SocketService();

    // Serve TLS with this certificate chain and key (PEM); false with the reason.
    bool useTls(const std::string& certFile, const std::string& keyFile, std::string* error);
    int listen(const std::string& host, int port); // returns the bound port, or -1
    void stop();

    // Sends text to every connected agent whose address matches peer (all when empty).
    int push(const std::string& text, const std::string& peer);
    int closeAll();

    QJsonArray connections() const;
    QJsonArray messages() const;

private:
    struct Connection {
        int fd = -1;
        int id = 0;
        std::string peer;
        std::string handshake;
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
    void record(const Connection& c, const std::string& text);

    QString m_logPath;
    int m_listenFd = -1;
    SSL_CTX* m_tls = nullptr;
    std::atomic<bool> m_stop{false};
    std::thread m_acceptor;
    mutable std::mutex m_mutex;
    std::list<std::unique_ptr<Connection>> m_connections;
    QJsonArray m_messages;
    int m_nextId = 0;
};
