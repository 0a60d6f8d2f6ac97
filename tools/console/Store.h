#pragma once

// The console's database (DIR/console.db, SQLite in WAL mode): hosts, report
// snapshots stored once by content hash, change rows, the current state that
// search reads, orders, the audit trail. The only code that speaks SQL.
//
// All writes go through one writer thread that runs queued jobs in batched
// transactions; reads use connections of their own and never wait on it.

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

struct sqlite3;
class Db;

class Store
{
public:
    struct Options {
        int keepDays = 90;
        int keepProcessDays = 7;
        bool journal = false;  // keep every agent request as it came (tests, debugging)
        bool readOnly = false; // look only: no lock, no migration, no writes (beside a running console)
    };
    // Takes DIR/console.lock (a second console on DIR fails here), opens and
    // migrates the database. Null with the reason in *error.
    static std::unique_ptr<Store> open(const QString& dataDir, const Options& options, QString* error);
    ~Store();
    QString dataDir() const { return m_dir; }

    // Agent side. Each returns an HTTP status once its transaction is
    // committed (503 when the disk is full).
    int registerAgent(const QString& agentId, const QString& peer, QString* token);
    std::optional<qint64> hostOf(const QString& token) const;
    int recordPost(qint64 host, const QString& route, const QByteArray& body);
    void touch(qint64 host); // a push message: last seen, not waited for
    void journal(const QString& method, const QString& route, const QString& query, const QJsonArray& headers,
                 const QByteArray& body, const QString& peer);
    QJsonArray journalRows() const;

    // Orders.
    struct Pending {
        qint64 id, host;
        QString kind, text;
    };
    int addOrder(qint64 host, const QJsonObject& order, QJsonObject* created);
    std::vector<Pending> queuedOrders() const;
    void markSent(qint64 order, bool answered);
    void expireOrders(int ttlSeconds);
    std::optional<QJsonObject> order(qint64 id) const;
    QJsonArray hostOrders(qint64 host) const;

    // Administrator side. `online` holds the hosts whose push connection is open.
    QJsonArray hosts(const std::set<qint64>& online) const;
    std::optional<QJsonObject> host(qint64 id, const std::set<qint64>& online, bool withReports) const;
    QJsonArray changes(qint64 host, const QString& category, const QString& since) const;
    QJsonArray snapshots(qint64 host, const QString& category) const;
    std::optional<QByteArray> snapshot(qint64 host, const QString& hash) const;
    // kind: package, port, service, process, startup; extra: version or state.
    QJsonArray search(const QString& kind, const QString& value, const QString& extra,
                      const std::set<qint64>& online) const;
    int removeHost(qint64 id);
    void audit(const QString& source, const QString& what, const QString& target, const QString& outcome);
    QJsonArray auditRows() const;
    std::map<QString, qint64> tokens() const;

    void prune(); // drops what is older than the retention allows
    QString summary() const;

private:
    Store() = default;
    struct Job {
        std::function<int(Db&)> run;
        std::promise<int> done;
        bool waited = true;
    };
    int write(std::function<int(Db&)> run);
    void writeLater(std::function<int(Db&)> run);
    void writerLoop();
    template <typename F> auto read(F f) const;

    QString m_dir;
    Options m_options;
    int m_lockFd = -1;
    std::unique_ptr<Db> m_writer;
    std::thread m_writerThread;
    std::mutex m_queueMutex;
    std::condition_variable m_queueCv;
    std::deque<std::unique_ptr<Job>> m_queue;
    bool m_stopping = false;

    mutable std::mutex m_readMutex;
    mutable std::vector<std::unique_ptr<Db>> m_readers;

    mutable std::mutex m_tokenMutex;
    std::map<QString, qint64> m_tokens;

    std::mutex m_latestMutex; // a hint only: the hash each host's category had last
    std::map<std::pair<qint64, QString>, QString> m_latest;
};
