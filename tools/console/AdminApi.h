#pragma once

// The administrator's JSON API under /api/ on a listener of its own. Handlers
// only translate between HTTP and the store; the rules on who may change
// anything (token, JSON content type, same-origin) are checked before routing.

#include <QString>

#include <functional>
#include <memory>
#include <set>
#include <string>

namespace httplib
{
class Server;
}
class Store;

class AdminApi
{
public:
    struct Options {
        std::string listen = "127.0.0.1";
        int port = 7780;
        std::string token; // empty: no Authorization asked for (loopback only)
        std::string tlsCert, tlsKey;
        QString schedulePath; // the file agents download; empty: not editable
    };
    AdminApi(Store& store, Options options, std::function<std::set<qint64>()> online,
             std::function<void()> ordersAdded);
    ~AdminApi();

    int bind(); // the bound port, or -1
    bool valid() const;
    void run(); // blocks until stop()
    void stop();

private:
    void routes();
    bool isLoopbackListener() const;

    Store& m_store;
    Options m_options;
    std::function<std::set<qint64>()> m_online;
    std::function<void()> m_ordersAdded;
    std::unique_ptr<httplib::Server> m_server;
    int m_port = -1;
};
