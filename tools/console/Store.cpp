#include "Store.h"

#include "Orders.h"
#include "ReportItems.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QRandomGenerator>

#include <sqlite3.h>

#include <cstdio>
#include <fcntl.h>
#include <set>
#include <sys/file.h>
#include <tuple>
#include <unistd.h>
#include <unordered_map>

// One connection with its prepared statements, used by one thread at a time.
class Db
{
public:
    explicit Db(sqlite3* db) : m_db(db) {}
    ~Db()
    {
        for (auto& s : m_statements)
            sqlite3_finalize(s.second);
        sqlite3_close(m_db);
    }
    sqlite3* handle() const { return m_db; }
    sqlite3_stmt* prepare(const char* sql)
    {
        auto it = m_statements.find(sql);
        if (it != m_statements.end()) {
            sqlite3_reset(it->second);
            sqlite3_clear_bindings(it->second);
            return it->second;
        }
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v3(m_db, sql, -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr) != SQLITE_OK) {
            fail(sqlite3_errcode(m_db));
            return nullptr;
        }
        m_statements.emplace(sql, s);
        return s;
    }
    bool exec(const char* sql)
    {
        const int rc = sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr);
        if (rc != SQLITE_OK)
            fail(rc);
        return rc == SQLITE_OK;
    }
    void fail(int rc)
    {
        if (!m_error)
            m_error = rc;
        std::fprintf(stderr, "edr-console: database: %s\n", sqlite3_errmsg(m_db));
    }
    int error() const { return m_error; }
    // Package title ids the writer has seen; dropped with any rolled-back work.
    std::unordered_map<QString, qint64> titleIds;
    void clearError() { m_error = 0; }
    // The HTTP status a failed job answers with.
    int failStatus() const { return (m_error & 0xff) == SQLITE_FULL ? 503 : 500; }

private:
    sqlite3* m_db;
    std::unordered_map<std::string, sqlite3_stmt*> m_statements;
    int m_error = 0;
};

namespace
{
// One statement run: bind, step, read columns.
class Query
{
public:
    Query(Db& db, const char* sql) : m_db(db), m_s(db.prepare(sql)) {}
    ~Query()
    {
        if (m_s)
            sqlite3_reset(m_s);
    }
    Query& bind(qint64 v)
    {
        if (m_s)
            sqlite3_bind_int64(m_s, ++m_arg, v);
        return *this;
    }
    Query& bind(const QString& v)
    {
        if (!m_s)
            return *this;
        const QByteArray u = v.toUtf8();
        sqlite3_bind_text(m_s, ++m_arg, u.constData(), u.size(), SQLITE_TRANSIENT);
        return *this;
    }
    // NULL for an empty text: "not given" to the queries that ask "?N IS NULL".
    Query& maybe(const QString& v)
    {
        if (!v.isEmpty())
            return bind(v);
        if (m_s)
            sqlite3_bind_null(m_s, ++m_arg);
        return *this;
    }
    Query& blob(const QByteArray& v)
    {
        if (m_s)
            sqlite3_bind_blob(m_s, ++m_arg, v.constData(), v.size(), SQLITE_TRANSIENT);
        return *this;
    }
    bool next()
    {
        if (!m_s)
            return false;
        const int rc = sqlite3_step(m_s);
        if (rc == SQLITE_ROW)
            return true;
        if (rc != SQLITE_DONE)
            m_db.fail(rc);
        return false;
    }
    bool run()
    {
        next();
        return m_db.error() == 0;
    }
    qint64 i64(int c) const { return sqlite3_column_int64(m_s, c); }
    bool isNull(int c) const { return sqlite3_column_type(m_s, c) == SQLITE_NULL; }
    QString text(int c) const
    {
        const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(m_s, c));
        return p ? QString::fromUtf8(p, sqlite3_column_bytes(m_s, c)) : QString();
    }
    QByteArray bytes(int c) const
    {
        const void* p = sqlite3_column_blob(m_s, c);
        return p ? QByteArray(static_cast<const char*>(p), sqlite3_column_bytes(m_s, c)) : QByteArray();
    }
    QJsonValue json(int c) const
    {
        if (isNull(c))
            return QJsonValue();
        const QJsonDocument d = QJsonDocument::fromJson(bytes(c));
        return d.isArray() ? QJsonValue(d.array()) : d.isObject() ? QJsonValue(d.object()) : QJsonValue();
    }

private:
    Db& m_db;
    sqlite3_stmt* m_s;
    int m_arg = 0;
};

QString now()
{
    return QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs);
}

QString daysAgo(int days)
{
    return QDateTime::currentDateTimeUtc().addDays(-days).toString(Qt::ISODateWithMs);
}

QByteArray compact(const QJsonValue& v)
{
    if (v.isObject())
        return QJsonDocument(v.toObject()).toJson(QJsonDocument::Compact);
    if (v.isArray())
        return QJsonDocument(v.toArray()).toJson(QJsonDocument::Compact);
    if (v.isNull() || v.isUndefined())
        return QByteArray();
    return QJsonDocument(QJsonArray{v}).toJson(QJsonDocument::Compact).mid(1).chopped(1);
}

// Numbered migrations; PRAGMA user_version says how many have run.
const char* const kMigrations[] = {
    R"(CREATE TABLE hosts(id INTEGER PRIMARY KEY AUTOINCREMENT, token TEXT NOT NULL UNIQUE, agent_id TEXT, peer TEXT,
         hostname TEXT, ip TEXT, os TEXT, agent_version TEXT, first_seen TEXT NOT NULL, last_seen TEXT NOT NULL);
       CREATE TABLE blobs(hash TEXT PRIMARY KEY, size INTEGER NOT NULL, data BLOB NOT NULL) WITHOUT ROWID;
       CREATE TABLE runs(id INTEGER PRIMARY KEY, host_id INTEGER NOT NULL REFERENCES hosts ON DELETE CASCADE,
         category TEXT NOT NULL, hash TEXT NOT NULL, first_seen TEXT NOT NULL, last_seen TEXT NOT NULL);
       CREATE INDEX runs_host ON runs(host_id, category, first_seen);
       CREATE INDEX runs_hash ON runs(hash);
       CREATE TABLE latest(host_id INTEGER NOT NULL REFERENCES hosts ON DELETE CASCADE, category TEXT NOT NULL,
         run_id INTEGER NOT NULL, PRIMARY KEY(host_id, category)) WITHOUT ROWID;
       CREATE TABLE changes(id INTEGER PRIMARY KEY, host_id INTEGER NOT NULL REFERENCES hosts ON DELETE CASCADE,
         time TEXT NOT NULL, category TEXT NOT NULL, change TEXT NOT NULL, key TEXT NOT NULL, old TEXT, new TEXT);
       CREATE INDEX changes_host ON changes(host_id, time);
       CREATE TABLE titles(id INTEGER PRIMARY KEY, name TEXT NOT NULL, version TEXT NOT NULL,
         source TEXT NOT NULL, UNIQUE(name, version, source));
       CREATE TABLE host_packages(host_id INTEGER NOT NULL REFERENCES hosts ON DELETE CASCADE,
         title_id INTEGER NOT NULL, PRIMARY KEY(host_id, title_id)) WITHOUT ROWID;
       CREATE INDEX host_packages_title ON host_packages(title_id);
       CREATE TABLE ports(host_id INTEGER NOT NULL REFERENCES hosts ON DELETE CASCADE, protocol TEXT,
         address TEXT, port INTEGER, process TEXT);
       CREATE INDEX ports_port ON ports(port);
       CREATE INDEX ports_host ON ports(host_id);
       CREATE TABLE services(host_id INTEGER NOT NULL REFERENCES hosts ON DELETE CASCADE, name TEXT,
         state TEXT, start_mode TEXT);
       CREATE INDEX services_name ON services(name);
       CREATE INDEX services_host ON services(host_id);
       CREATE TABLE startup(host_id INTEGER NOT NULL REFERENCES hosts ON DELETE CASCADE, name TEXT,
         location TEXT, command TEXT, user TEXT);
       CREATE INDEX startup_name ON startup(name);
       CREATE INDEX startup_host ON startup(host_id);
       CREATE TABLE processes(host_id INTEGER NOT NULL REFERENCES hosts ON DELETE CASCADE, name TEXT,
         PRIMARY KEY(host_id, name)) WITHOUT ROWID;
       CREATE INDEX processes_name ON processes(name);
       CREATE TABLE users(host_id INTEGER NOT NULL REFERENCES hosts ON DELETE CASCADE, name TEXT,
         PRIMARY KEY(host_id, name)) WITHOUT ROWID;
       CREATE TABLE firewall(host_id INTEGER PRIMARY KEY REFERENCES hosts ON DELETE CASCADE, enabled INTEGER);
       CREATE TABLE orders(id INTEGER PRIMARY KEY AUTOINCREMENT, host_id INTEGER NOT NULL REFERENCES hosts ON DELETE CASCADE,
         kind TEXT NOT NULL, arg TEXT, request TEXT, text TEXT NOT NULL, state TEXT NOT NULL,
         created TEXT NOT NULL, sent TEXT, finished TEXT, result TEXT);
       CREATE INDEX orders_state ON orders(state);
       CREATE INDEX orders_host ON orders(host_id);
       CREATE TABLE audit(id INTEGER PRIMARY KEY, time TEXT NOT NULL, source TEXT, what TEXT, target TEXT,
         outcome TEXT);
       CREATE TRIGGER audit_append_only BEFORE UPDATE ON audit BEGIN SELECT RAISE(ABORT, 'audit is append-only'); END;
       CREATE TABLE journal(id INTEGER PRIMARY KEY, time TEXT NOT NULL, method TEXT, route TEXT, query TEXT,
         headers TEXT, body BLOB, peer TEXT);)",
};

sqlite3* openConnection(const QString& path, bool readOnly)
{
    sqlite3* db = nullptr;
    const int flags =
        (readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(QFile::encodeName(path).constData(), &db, flags, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, 5000);
    // A fleet's database outgrows SQLite's 2 MB default cache early; pages are
    // read through a shared mapping instead of a copy per connection.
    sqlite3_exec(db, readOnly ? "PRAGMA cache_size=-16384" : "PRAGMA cache_size=-65536", nullptr, nullptr,
                 nullptr);
    sqlite3_exec(db, "PRAGMA mmap_size=1073741824", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "PRAGMA foreign_keys=ON", nullptr, nullptr, nullptr);
    return db;
}

QJsonObject hostRow(const Query& q, int first, const std::set<qint64>& online)
{
    // id, hostname, ip, os, agent_version, first_seen, last_seen
    const qint64 id = q.i64(first);
    return QJsonObject{{QStringLiteral("id"), id},
                       {QStringLiteral("hostname"), q.text(first + 1)},
                       {QStringLiteral("ip"), q.text(first + 2)},
                       {QStringLiteral("os"), q.text(first + 3)},
                       {QStringLiteral("agentVersion"), q.text(first + 4)},
                       {QStringLiteral("firstSeen"), q.text(first + 5)},
                       {QStringLiteral("lastSeen"), q.text(first + 6)},
                       {QStringLiteral("online"), online.count(id) > 0}};
}
#define HOST_COLUMNS "h.id, h.hostname, h.ip, h.os, h.agent_version, h.first_seen, h.last_seen"

QJsonObject orderRow(const Query& q)
{
    // id, host_id, kind, text, state, created, sent, finished, result
    return QJsonObject{{QStringLiteral("id"), q.i64(0)},
                       {QStringLiteral("host"), q.i64(1)},
                       {QStringLiteral("kind"), q.text(2)},
                       {QStringLiteral("text"), q.text(3)},
                       {QStringLiteral("state"), q.text(4)},
                       {QStringLiteral("created"), q.text(5)},
                       {QStringLiteral("sent"), q.isNull(6) ? QJsonValue() : QJsonValue(q.text(6))},
                       {QStringLiteral("finished"), q.isNull(7) ? QJsonValue() : QJsonValue(q.text(7))},
                       {QStringLiteral("result"), q.json(8)}};
}
#define ORDER_COLUMNS "id, host_id, kind, text, state, created, sent, finished, result"

// The current-state tables of one category, rebuilt from its items.
bool rebuildCurrent(Db& db, qint64 host, const QString& category, const ReportItems::Items& items,
                    const ReportItems::Items* before)
{
    using namespace ReportItems;
    if (category == QLatin1String("software")) {
        // A host's packages change a few at a time: touch only those rows, as
        // every row is also an entry in the by-package index search reads.
        const auto titlesOf = [](const Items& from) {
            std::set<std::tuple<QString, QString, QString>> out;
            for (const Package& p : packagesOf(from))
                out.emplace(p.name, p.version, p.source);
            return out;
        };
        const auto now = titlesOf(items);
        const auto was = before ? titlesOf(*before) : decltype(now)();
        const auto titleId = [&db](const QString& name, const QString& version, const QString& source) {
            const QString key = name + QLatin1Char('\x1f') + version + QLatin1Char('\x1f') + source;
            const auto known = db.titleIds.find(key);
            if (known != db.titleIds.end())
                return known->second;
            Query(db, "INSERT OR IGNORE INTO titles(name, version, source) VALUES(?,?,?)")
                .bind(name)
                .bind(version)
                .bind(source)
                .run();
            Query q(db, "SELECT id FROM titles WHERE name=? AND version=? AND source=?");
            q.bind(name).bind(version).bind(source);
            const qint64 id = q.next() ? q.i64(0) : -1;
            if (id >= 0)
                db.titleIds.emplace(key, id);
            return id;
        };
        if (!before)
            Query(db, "DELETE FROM host_packages WHERE host_id=?").bind(host).run();
        for (const auto& [name, version, source] : was)
            if (!now.count({name, version, source}))
                Query(db, "DELETE FROM host_packages WHERE host_id=? AND title_id=?")
                    .bind(host)
                    .bind(titleId(name, version, source))
                    .run();
        for (const auto& [name, version, source] : now)
            if (!was.count({name, version, source}))
                Query(db, "INSERT OR IGNORE INTO host_packages(host_id, title_id) VALUES(?,?)")
                    .bind(host)
                    .bind(titleId(name, version, source))
                    .run();
    } else if (category == QLatin1String("network")) {
        Query(db, "DELETE FROM ports WHERE host_id=?").bind(host).run();
        for (const Port& p : portsOf(items))
            Query(db, "INSERT INTO ports(host_id, protocol, address, port, process) VALUES(?,?,?,?,?)")
                .bind(host)
                .bind(p.protocol)
                .bind(p.address)
                .bind(p.port)
                .bind(p.process)
                .run();
    } else if (category == QLatin1String("services")) {
        Query(db, "DELETE FROM services WHERE host_id=?").bind(host).run();
        for (const Service& s : servicesOf(items))
            Query(db, "INSERT INTO services(host_id, name, state, start_mode) VALUES(?,?,?,?)")
                .bind(host)
                .bind(s.name)
                .bind(s.state)
                .bind(s.startMode)
                .run();
    } else if (category == QLatin1String("startup")) {
        Query(db, "DELETE FROM startup WHERE host_id=?").bind(host).run();
        for (const StartupEntry& s : startupOf(items))
            Query(db, "INSERT INTO startup(host_id, name, location, command, user) VALUES(?,?,?,?,?)")
                .bind(host)
                .bind(s.name)
                .bind(s.location)
                .bind(s.command)
                .bind(s.user)
                .run();
    } else if (category == QLatin1String("processes")) {
        Query(db, "DELETE FROM processes WHERE host_id=?").bind(host).run();
        for (const QString& name : processNamesOf(items))
            Query(db, "INSERT OR IGNORE INTO processes(host_id, name) VALUES(?,?)")
                .bind(host)
                .bind(name)
                .run();
    } else if (category == QLatin1String("hardware")) {
        Query(db, "DELETE FROM users WHERE host_id=?").bind(host).run();
        for (const QString& name : userNamesOf(items))
            Query(db, "INSERT OR IGNORE INTO users(host_id, name) VALUES(?,?)").bind(host).bind(name).run();
    } else if (category == QLatin1String("firewall")) {
        const auto it = items.find(QStringLiteral("firewall"));
        const QJsonValue pub = it == items.end() ? QJsonValue() : it->second.value(QLatin1String("public"));
        Query(db, "INSERT OR REPLACE INTO firewall(host_id, enabled) VALUES(?,?)")
            .bind(host)
            .maybe(pub.isBool() ? QString::number(pub.toBool() ? 1 : 0) : QString())
            .run();
    }
    return db.error() == 0;
}

QByteArray bodyOf(Db& db, const QString& hash)
{
    Query q(db, "SELECT data FROM blobs WHERE hash=?");
    q.bind(hash);
    return q.next() ? qUncompress(q.bytes(0)) : QByteArray();
}
} // namespace

std::unique_ptr<Store> Store::open(const QString& dataDir, const Options& options, QString* error)
{
    if (!options.readOnly && !QDir().mkpath(dataDir)) {
        *error = QStringLiteral("cannot create %1").arg(dataDir);
        return nullptr;
    }
    std::unique_ptr<Store> s(new Store);
    s->m_dir = QDir(dataDir).absolutePath();
    s->m_options = options;
    if (options.readOnly) {
        if (!QFile::exists(s->m_dir + QStringLiteral("/console.db"))) {
            *error = QStringLiteral("no database in %1").arg(s->m_dir);
            return nullptr;
        }
        return s;
    }
    const QByteArray lockPath = QFile::encodeName(s->m_dir + QStringLiteral("/console.lock"));
    s->m_lockFd = ::open(lockPath.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (s->m_lockFd < 0 || ::flock(s->m_lockFd, LOCK_EX | LOCK_NB) != 0) {
        *error = QStringLiteral("another edr-console is using %1").arg(s->m_dir);
        return nullptr;
    }
    sqlite3* raw = openConnection(s->m_dir + QStringLiteral("/console.db"), false);
    if (!raw) {
        *error = QStringLiteral("cannot open %1/console.db").arg(s->m_dir);
        return nullptr;
    }
    s->m_writer = std::make_unique<Db>(raw);
    Db& db = *s->m_writer;
    db.exec("PRAGMA journal_mode=WAL");
    db.exec("PRAGMA synchronous=NORMAL");
    int version = 0;
    {
        Query q(db, "PRAGMA user_version");
        if (q.next())
            version = static_cast<int>(q.i64(0));
    }
    const int known = static_cast<int>(sizeof kMigrations / sizeof kMigrations[0]);
    if (version > known) {
        *error =
            QStringLiteral("%1/console.db is of a newer edr-console (schema %2)").arg(s->m_dir).arg(version);
        return nullptr;
    }
    for (; version < known; ++version) {
        const QByteArray bump = "PRAGMA user_version=" + QByteArray::number(version + 1);
        if (!db.exec("BEGIN IMMEDIATE") || !db.exec(kMigrations[version]) || !db.exec(bump.constData()) ||
            !db.exec("COMMIT")) {
            db.exec("ROLLBACK");
            *error = QStringLiteral("cannot migrate %1/console.db to schema %2: %3")
                         .arg(s->m_dir)
                         .arg(version + 1)
                         .arg(QString::fromUtf8(sqlite3_errmsg(raw)));
            return nullptr;
        }
    }
    {
        Query q(db, "SELECT token, id FROM hosts");
        while (q.next())
            s->m_tokens.emplace(q.text(0), q.i64(1));
    }
    if (db.error()) {
        *error = QStringLiteral("cannot read %1/console.db").arg(s->m_dir);
        return nullptr;
    }
    s->m_writerThread = std::thread([p = s.get()] { p->writerLoop(); });
    return s;
}

Store::~Store()
{
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        m_stopping = true;
    }
    m_queueCv.notify_all();
    if (m_writerThread.joinable())
        m_writerThread.join();
    m_readers.clear();
    m_writer.reset();
    if (m_lockFd >= 0)
        ::close(m_lockFd);
}

int Store::write(std::function<int(Db&)> run)
{
    if (!m_writer)
        return 503;
    auto job = std::make_unique<Job>();
    job->run = std::move(run);
    std::future<int> done = job->done.get_future();
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        if (m_stopping)
            return 503;
        m_queue.push_back(std::move(job));
    }
    m_queueCv.notify_one();
    return done.get();
}

void Store::writeLater(std::function<int(Db&)> run)
{
    if (!m_writer)
        return;
    auto job = std::make_unique<Job>();
    job->run = std::move(run);
    job->waited = false;
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        if (m_stopping)
            return;
        m_queue.push_back(std::move(job));
    }
    m_queueCv.notify_one();
}

// Runs what is queued in one transaction, each job under a savepoint so a
// failing one takes only itself back. Answers come after the commit.
void Store::writerLoop()
{
    Db& db = *m_writer;
    for (;;) {
        std::vector<std::unique_ptr<Job>> batch;
        {
            std::unique_lock<std::mutex> lock(m_queueMutex);
            m_queueCv.wait(lock, [&] { return m_stopping || !m_queue.empty(); });
            if (m_queue.empty())
                return;
            while (!m_queue.empty() && batch.size() < 256) {
                batch.push_back(std::move(m_queue.front()));
                m_queue.pop_front();
            }
        }
        std::vector<int> status(batch.size(), 503);
        db.clearError();
        if (db.exec("BEGIN IMMEDIATE")) {
            for (size_t i = 0; i < batch.size(); ++i) {
                db.exec("SAVEPOINT job");
                status[i] = batch[i]->run(db);
                if (db.error() && status[i] < 500)
                    status[i] = db.failStatus();
                if (status[i] >= 500) {
                    db.clearError();
                    db.exec("ROLLBACK TO job");
                    db.titleIds.clear();
                }
                db.exec("RELEASE job");
                db.clearError();
            }
            if (!db.exec("COMMIT")) {
                const int failed = db.failStatus();
                db.exec("ROLLBACK");
                db.titleIds.clear();
                for (int& s : status)
                    s = failed;
            }
        } else {
            for (int& s : status)
                s = db.failStatus();
        }
        for (size_t i = 0; i < batch.size(); ++i)
            if (batch[i]->waited)
                batch[i]->done.set_value(status[i]);
    }
}

template <typename F> auto Store::read(F f) const
{
    std::unique_ptr<Db> db;
    {
        std::lock_guard<std::mutex> lock(m_readMutex);
        if (!m_readers.empty()) {
            db = std::move(m_readers.back());
            m_readers.pop_back();
        }
    }
    if (!db) {
        sqlite3* raw = openConnection(m_dir + QStringLiteral("/console.db"), true);
        db = std::make_unique<Db>(raw);
    }
    db->clearError();
    auto result = f(*db);
    std::lock_guard<std::mutex> lock(m_readMutex);
    m_readers.push_back(std::move(db));
    return result;
}

int Store::registerAgent(const QString& agentId, const QString& peer, QString* token)
{
    QString t;
    for (int i = 0; i < 4; ++i)
        t += QString::number(QRandomGenerator::system()->generate(), 16).rightJustified(8, QLatin1Char('0'));
    qint64 id = 0;
    const int status = write([&](Db& db) {
        const QString time = now();
        Query(db, "INSERT INTO hosts(token, agent_id, peer, first_seen, last_seen) VALUES(?,?,?,?,?)")
            .bind(t)
            .bind(agentId)
            .bind(peer)
            .bind(time)
            .bind(time)
            .run();
        id = sqlite3_last_insert_rowid(db.handle());
        return 200;
    });
    if (status != 200)
        return status;
    std::lock_guard<std::mutex> lock(m_tokenMutex);
    m_tokens[t] = id;
    *token = t;
    return 200;
}

std::optional<qint64> Store::hostOf(const QString& token) const
{
    std::lock_guard<std::mutex> lock(m_tokenMutex);
    const auto it = m_tokens.find(token);
    if (it == m_tokens.end())
        return std::nullopt;
    return it->second;
}

std::map<QString, qint64> Store::tokens() const
{
    std::lock_guard<std::mutex> lock(m_tokenMutex);
    return m_tokens;
}

int Store::recordPost(qint64 host, const QString& route, const QByteArray& body)
{
    QJsonParseError parseError{};
    const QJsonDocument doc = QJsonDocument::fromJson(body, &parseError);
    if (!doc.isObject()) {
        std::fprintf(stderr, "edr-console: host %lld posted to %s a body that is not a JSON object (%s)\n",
                     host, qPrintable(route),
                     parseError.error ? qPrintable(parseError.errorString()) : "not an object");
        return 400;
    }
    const QJsonObject parsed = doc.object();
    const std::optional<QString> category = ReportItems::categoryOf(route, parsed);
    if (!category) {
        // An order's answer.
        const QString id = parsed.value(QLatin1String("_id")).toString();
        return write([=](Db& db) {
            const QString time = now();
            Query(db, "UPDATE hosts SET last_seen=? WHERE id=?").bind(time).bind(host).run();
            Query q(db, "SELECT kind FROM orders WHERE id=? AND host_id=? AND state='sent'");
            q.bind(id.toLongLong()).bind(host);
            if (id.isEmpty() || !q.next() || Orders::resultRoute(q.text(0)) != route) {
                std::fprintf(stderr,
                             "edr-console: host %lld posted to %s an answer to no order of its own (%s)\n",
                             host, qPrintable(route), qPrintable(id.left(40)));
                return 200;
            }
            Query(db, "UPDATE orders SET state=?, finished=?, result=? WHERE id=?")
                .bind(Orders::stateOf(q.text(0), parsed))
                .bind(time)
                .bind(QString::fromUtf8(QJsonDocument(parsed).toJson(QJsonDocument::Compact)))
                .bind(id.toLongLong())
                .run();
            return 200;
        });
    }
    const QString problem = ReportItems::problemWith(*category, parsed);
    if (!problem.isEmpty()) {
        std::fprintf(stderr, "edr-console: host %lld posted to %s no %s report: %s\n", host,
                     qPrintable(route), qPrintable(*category), qPrintable(problem));
        return 400;
    }
    const QByteArray canonical = QJsonDocument(parsed).toJson(QJsonDocument::Compact);
    const QString hash =
        QString::fromLatin1(QCryptographicHash::hash(canonical, QCryptographicHash::Sha256).toHex());
    const ReportItems::HostFacts facts = ReportItems::factsOf(*category, parsed);
    const QString cat = *category;
    // Most reports repeat the last one; a new one is compressed and split
    // into items here, on the request's thread, not on the writer's.
    struct Prepared {
        QByteArray blob;
        ReportItems::Items items;
        bool ready = false;
    };
    auto prepared = std::make_shared<Prepared>();
    const auto prepare = [prepared, canonical, cat, parsed] {
        if (prepared->ready)
            return;
        prepared->blob = qCompress(canonical);
        prepared->items = ReportItems::itemsOf(cat, parsed);
        prepared->ready = true;
    };
    {
        std::unique_lock<std::mutex> lock(m_latestMutex);
        const auto it = m_latest.find({host, cat});
        const bool repeated = it != m_latest.end() && it->second == hash;
        lock.unlock();
        if (!repeated)
            prepare();
    }
    const int status = write([=](Db& db) {
        const QString time = now();
        Query(db, "UPDATE hosts SET last_seen=?, hostname=coalesce(?, hostname), ip=coalesce(?, ip), "
                  "os=coalesce(?, os), agent_version=coalesce(?, agent_version) WHERE id=?")
            .bind(time)
            .maybe(facts.hostname)
            .maybe(facts.ip)
            .maybe(facts.os)
            .maybe(facts.agentVersion)
            .bind(host)
            .run();
        // A report order is done by the report it asked for.
        Query(db, "UPDATE orders SET state='done', finished=?, result=? WHERE host_id=? AND kind='report' "
                  "AND arg=? AND state='sent'")
            .bind(time)
            .bind(QStringLiteral("{\"hash\":\"%1\"}").arg(hash))
            .bind(host)
            .bind(cat)
            .run();
        QString previous;
        {
            Query q(db,
                    "SELECT r.id, r.hash FROM latest l JOIN runs r ON r.id=l.run_id WHERE l.host_id=? AND "
                    "l.category=?");
            q.bind(host).bind(cat);
            if (q.next()) {
                previous = q.text(1);
                if (previous == hash) {
                    const qint64 run = q.i64(0);
                    Query(db, "UPDATE runs SET last_seen=? WHERE id=?").bind(time).bind(run).run();
                    return 200;
                }
            }
        }
        prepare();
        Query(db, "INSERT OR IGNORE INTO blobs(hash, size, data) VALUES(?,?,?)")
            .bind(hash)
            .bind(canonical.size())
            .blob(prepared->blob)
            .run();
        Query(db, "INSERT INTO runs(host_id, category, hash, first_seen, last_seen) VALUES(?,?,?,?,?)")
            .bind(host)
            .bind(cat)
            .bind(hash)
            .bind(time)
            .bind(time)
            .run();
        const qint64 run = sqlite3_last_insert_rowid(db.handle());
        Query(db, "INSERT OR REPLACE INTO latest(host_id, category, run_id) VALUES(?,?,?)")
            .bind(host)
            .bind(cat)
            .bind(run)
            .run();
        const ReportItems::Items& items = prepared->items;
        std::optional<ReportItems::Items> before;
        if (!previous.isEmpty() && cat != QLatin1String("processes")) {
            before = ReportItems::itemsOf(cat, QJsonDocument::fromJson(bodyOf(db, previous)).object());
            for (const ReportItems::Change& c : ReportItems::diff(*before, items))
                Query(db, "INSERT INTO changes(host_id, time, category, change, key, old, new) "
                          "VALUES(?,?,?,?,?,?,?)")
                    .bind(host)
                    .bind(time)
                    .bind(cat)
                    .bind(c.change)
                    .bind(c.key)
                    .maybe(QString::fromUtf8(compact(c.oldValue)))
                    .maybe(QString::fromUtf8(compact(c.newValue)))
                    .run();
        }
        rebuildCurrent(db, host, cat, items, before ? &*before : nullptr);
        return 200;
    });
    if (status == 200) {
        std::lock_guard<std::mutex> lock(m_latestMutex);
        m_latest[{host, cat}] = hash;
    }
    return status;
}

void Store::touch(qint64 host)
{
    writeLater([=](Db& db) {
        Query(db, "UPDATE hosts SET last_seen=? WHERE id=?").bind(now()).bind(host).run();
        return 200;
    });
}

void Store::journal(const QString& method, const QString& route, const QString& query,
                    const QJsonArray& headers, const QByteArray& body, const QString& peer)
{
    if (!m_options.journal)
        return;
    write([=](Db& db) {
        Query(db,
              "INSERT INTO journal(time, method, route, query, headers, body, peer) VALUES(?,?,?,?,?,?,?)")
            .bind(now())
            .bind(method)
            .bind(route)
            .bind(query)
            .bind(QString::fromUtf8(QJsonDocument(headers).toJson(QJsonDocument::Compact)))
            .blob(body)
            .bind(peer)
            .run();
        return 200;
    });
}

QJsonArray Store::journalRows() const
{
    return read([](Db& db) {
        QJsonArray out;
        Query q(db, "SELECT time, method, route, length(body) FROM journal ORDER BY id");
        while (q.next())
            out.append(QJsonObject{{QStringLiteral("time"), q.text(0)},
                                   {QStringLiteral("method"), q.text(1)},
                                   {QStringLiteral("route"), q.text(2)},
                                   {QStringLiteral("size"), q.i64(3)}});
        return out;
    });
}

int Store::addOrder(qint64 host, const QJsonObject& order, QJsonObject* created)
{
    const QString kind = order.value(QLatin1String("kind")).toString();
    const QString arg = order.value(QLatin1String("category")).toString();
    qint64 id = 0;
    const int status = write([&](Db& db) {
        Query(db, "INSERT INTO orders(host_id, kind, arg, request, text, state, created) "
                  "VALUES(?,?,?,?,'','queued',?)")
            .bind(host)
            .bind(kind)
            .maybe(kind == QLatin1String("report") ? arg : QString())
            .bind(QString::fromUtf8(QJsonDocument(order).toJson(QJsonDocument::Compact)))
            .bind(now())
            .run();
        id = sqlite3_last_insert_rowid(db.handle());
        QString error;
        const std::optional<QString> text = Orders::commandText(order, id, &error);
        if (!text)
            return 400;
        Query(db, "UPDATE orders SET text=? WHERE id=?").bind(*text).bind(id).run();
        return 200;
    });
    if (status == 200)
        *created =
            QJsonObject{{QStringLiteral("id"), id}, {QStringLiteral("state"), QStringLiteral("queued")}};
    return status;
}

std::vector<Store::Pending> Store::queuedOrders() const
{
    return read([](Db& db) {
        std::vector<Pending> out;
        Query q(db, "SELECT id, host_id, kind, text FROM orders WHERE state='queued' ORDER BY id");
        while (q.next())
            out.push_back({q.i64(0), q.i64(1), q.text(2), q.text(3)});
        return out;
    });
}

void Store::markSent(qint64 order, bool answered)
{
    write([=](Db& db) {
        const QString time = now();
        Query(db, "UPDATE orders SET state=?, sent=?, finished=? WHERE id=? AND state='queued'")
            .bind(answered ? QStringLiteral("sent") : QStringLiteral("done"))
            .bind(time)
            .maybe(answered ? QString() : time)
            .bind(order)
            .run();
        return 200;
    });
}

void Store::expireOrders(int ttlSeconds)
{
    const QString cut = QDateTime::currentDateTimeUtc().addSecs(-ttlSeconds).toString(Qt::ISODateWithMs);
    write([=](Db& db) {
        Query(db, "UPDATE orders SET state='expired', finished=? WHERE state='queued' AND created<?")
            .bind(now())
            .bind(cut)
            .run();
        return 200;
    });
}

std::optional<QJsonObject> Store::order(qint64 id) const
{
    return read([&](Db& db) -> std::optional<QJsonObject> {
        Query q(db, "SELECT " ORDER_COLUMNS " FROM orders WHERE id=?");
        q.bind(id);
        if (!q.next())
            return std::nullopt;
        return orderRow(q);
    });
}

QJsonArray Store::hostOrders(qint64 host) const
{
    return read([&](Db& db) {
        QJsonArray out;
        Query q(db, "SELECT " ORDER_COLUMNS " FROM orders WHERE host_id=? ORDER BY id DESC");
        q.bind(host);
        while (q.next())
            out.append(orderRow(q));
        return out;
    });
}

QJsonArray Store::hosts(const std::set<qint64>& online) const
{
    return read([&](Db& db) {
        std::map<qint64, QJsonObject> latest;
        {
            Query q(db,
                    "SELECT l.host_id, l.category, r.last_seen FROM latest l JOIN runs r ON r.id=l.run_id");
            while (q.next())
                latest[q.i64(0)].insert(q.text(1), q.text(2));
        }
        QJsonArray out;
        Query q(db, "SELECT " HOST_COLUMNS " FROM hosts h ORDER BY h.id");
        while (q.next()) {
            QJsonObject h = hostRow(q, 0, online);
            h.insert(QStringLiteral("latest"), latest[q.i64(0)]);
            out.append(h);
        }
        return out;
    });
}

std::optional<QJsonObject> Store::host(qint64 id, const std::set<qint64>& online, bool withReports) const
{
    return read([&](Db& db) -> std::optional<QJsonObject> {
        QJsonObject h;
        {
            Query q(db, "SELECT " HOST_COLUMNS " FROM hosts h WHERE h.id=?");
            q.bind(id);
            if (!q.next())
                return std::nullopt;
            h = hostRow(q, 0, online);
        }
        QJsonObject latest, reports;
        Query q(db, "SELECT l.category, r.last_seen, r.hash FROM latest l JOIN runs r ON r.id=l.run_id "
                    "WHERE l.host_id=?");
        q.bind(id);
        while (q.next()) {
            latest.insert(q.text(0), q.text(1));
            if (withReports)
                reports.insert(q.text(0), QJsonDocument::fromJson(bodyOf(db, q.text(2))).object());
        }
        h.insert(QStringLiteral("latest"), latest);
        if (withReports)
            h.insert(QStringLiteral("reports"), reports);
        return h;
    });
}

QJsonArray Store::changes(qint64 host, const QString& category, const QString& since) const
{
    return read([&](Db& db) {
        QJsonArray out;
        Query q(db, "SELECT time, category, change, key, old, new FROM changes WHERE host_id=?1 "
                    "AND (?2 IS NULL OR category=?2) AND (?3 IS NULL OR time>=?3) "
                    "ORDER BY id DESC LIMIT 10000");
        q.bind(host).maybe(category).maybe(since);
        while (q.next())
            out.append(QJsonObject{{QStringLiteral("time"), q.text(0)},
                                   {QStringLiteral("category"), q.text(1)},
                                   {QStringLiteral("change"), q.text(2)},
                                   {QStringLiteral("key"), q.text(3)},
                                   {QStringLiteral("old"), q.json(4)},
                                   {QStringLiteral("new"), q.json(5)}});
        return out;
    });
}

QJsonArray Store::snapshots(qint64 host, const QString& category) const
{
    return read([&](Db& db) {
        QJsonArray out;
        Query q(db, "SELECT category, first_seen, last_seen, hash FROM runs WHERE host_id=?1 "
                    "AND (?2 IS NULL OR category=?2) ORDER BY id DESC");
        q.bind(host).maybe(category);
        while (q.next())
            out.append(QJsonObject{{QStringLiteral("category"), q.text(0)},
                                   {QStringLiteral("firstSeen"), q.text(1)},
                                   {QStringLiteral("lastSeen"), q.text(2)},
                                   {QStringLiteral("hash"), q.text(3)}});
        return out;
    });
}

std::optional<QByteArray> Store::snapshot(qint64 host, const QString& hash) const
{
    return read([&](Db& db) -> std::optional<QByteArray> {
        Query q(db, "SELECT 1 FROM runs WHERE host_id=? AND hash=? LIMIT 1");
        q.bind(host).bind(hash);
        if (!q.next())
            return std::nullopt;
        return bodyOf(db, hash);
    });
}

QJsonArray Store::search(const QString& kind, const QString& value, const QString& extra,
                         const std::set<qint64>& online) const
{
    const char* sql = nullptr;
    if (kind == QLatin1String("package"))
        sql = "SELECT " HOST_COLUMNS ", t.name, t.version, t.source FROM titles t "
              "JOIN host_packages p ON p.title_id=t.id JOIN hosts h ON h.id=p.host_id "
              "WHERE t.name=?1 AND (?2 IS NULL OR t.version=?2) ORDER BY h.id";
    else if (kind == QLatin1String("port"))
        sql = "SELECT " HOST_COLUMNS ", x.protocol, x.address, x.port, x.process FROM ports x "
              "JOIN hosts h ON h.id=x.host_id WHERE x.port=CAST(?1 AS INTEGER) ORDER BY h.id";
    else if (kind == QLatin1String("service"))
        sql = "SELECT " HOST_COLUMNS ", x.name, x.state, x.start_mode FROM services x "
              "JOIN hosts h ON h.id=x.host_id WHERE x.name=?1 AND (?2 IS NULL OR lower(x.state)=lower(?2)) "
              "ORDER BY h.id";
    else if (kind == QLatin1String("process"))
        sql = "SELECT " HOST_COLUMNS ", x.name FROM processes x JOIN hosts h ON h.id=x.host_id "
              "WHERE x.name=?1 ORDER BY h.id";
    else if (kind == QLatin1String("startup"))
        sql = "SELECT " HOST_COLUMNS ", x.name, x.location, x.command, x.user FROM startup x "
              "JOIN hosts h ON h.id=x.host_id WHERE x.name=?1 ORDER BY h.id";
    if (!sql)
        return QJsonArray();
    static const std::map<QString, QStringList> fields{
        {QStringLiteral("package"),
         {QStringLiteral("name"), QStringLiteral("version"), QStringLiteral("source")}},
        {QStringLiteral("port"),
         {QStringLiteral("protocol"), QStringLiteral("address"), QStringLiteral("port"),
          QStringLiteral("process")}},
        {QStringLiteral("service"),
         {QStringLiteral("name"), QStringLiteral("state"), QStringLiteral("startMode")}},
        {QStringLiteral("process"), {QStringLiteral("name")}},
        {QStringLiteral("startup"),
         {QStringLiteral("name"), QStringLiteral("location"), QStringLiteral("command"),
          QStringLiteral("user")}}};
    const QStringList& names = fields.at(kind);
    return read([&](Db& db) {
        QJsonArray out;
        QJsonObject current;
        QJsonArray matches;
        qint64 currentId = -1;
        const auto flush = [&] {
            if (currentId >= 0)
                out.append(
                    QJsonObject{{QStringLiteral("host"), current}, {QStringLiteral("matches"), matches}});
        };
        Query q(db, sql);
        q.bind(value);
        if (kind == QLatin1String("package") || kind == QLatin1String("service"))
            q.maybe(extra);
        while (q.next()) {
            if (q.i64(0) != currentId) {
                flush();
                currentId = q.i64(0);
                current = hostRow(q, 0, online);
                matches = QJsonArray();
            }
            QJsonObject m;
            for (int i = 0; i < names.size(); ++i)
                m.insert(names[i], names[i] == QLatin1String("port") ? QJsonValue(q.i64(7 + i))
                                                                     : QJsonValue(q.text(7 + i)));
            matches.append(m);
        }
        flush();
        return out;
    });
}

int Store::removeHost(qint64 id)
{
    QString token;
    const int status = write([&](Db& db) {
        Query q(db, "SELECT token FROM hosts WHERE id=?");
        q.bind(id);
        if (!q.next())
            return 404;
        token = q.text(0);
        Query(db, "DELETE FROM hosts WHERE id=?").bind(id).run();
        return 200;
    });
    if (status == 200) {
        std::lock_guard<std::mutex> lock(m_tokenMutex);
        m_tokens.erase(token);
    }
    return status;
}

void Store::audit(const QString& source, const QString& what, const QString& target, const QString& outcome)
{
    write([=](Db& db) {
        Query(db, "INSERT INTO audit(time, source, what, target, outcome) VALUES(?,?,?,?,?)")
            .bind(now())
            .bind(source)
            .bind(what)
            .bind(target)
            .bind(outcome)
            .run();
        return 200;
    });
}

QJsonArray Store::auditRows() const
{
    return read([](Db& db) {
        QJsonArray out;
        Query q(db, "SELECT id, time, source, what, target, outcome FROM audit ORDER BY id DESC LIMIT 10000");
        while (q.next())
            out.append(QJsonObject{{QStringLiteral("id"), q.i64(0)},
                                   {QStringLiteral("time"), q.text(1)},
                                   {QStringLiteral("source"), q.text(2)},
                                   {QStringLiteral("what"), q.text(3)},
                                   {QStringLiteral("target"), q.text(4)},
                                   {QStringLiteral("outcome"), q.text(5)}});
        return out;
    });
}

void Store::prune()
{
    const QString cut = daysAgo(m_options.keepDays);
    const QString processCut = daysAgo(m_options.keepProcessDays);
    write([=](Db& db) {
        Query(db, "DELETE FROM runs WHERE last_seen < CASE category WHEN 'processes' THEN ?2 ELSE ?1 END "
                  "AND id NOT IN (SELECT run_id FROM latest)")
            .bind(cut)
            .bind(processCut)
            .run();
        Query(db, "DELETE FROM blobs WHERE hash NOT IN (SELECT hash FROM runs)").run();
        Query(db, "DELETE FROM changes WHERE time < ?").bind(cut).run();
        Query(db, "DELETE FROM journal WHERE time < ?").bind(cut).run();
        return 200;
    });
}

QString Store::summary() const
{
    return read([](Db& db) {
        QString out;
        Query q(db, "SELECT h.id, h.hostname, h.ip, h.os, h.agent_version, h.last_seen, "
                    "(SELECT count(*) FROM runs r WHERE r.host_id=h.id), "
                    "(SELECT count(*) FROM changes c WHERE c.host_id=h.id), "
                    "(SELECT group_concat(category, ',') FROM latest l WHERE l.host_id=h.id), "
                    "(SELECT count(*) FROM orders o WHERE o.host_id=h.id) FROM hosts h ORDER BY h.id");
        while (q.next())
            out += QStringLiteral("host %1  %2  ip %3  os %4  agent %5  last seen %6\n"
                                  "        %7 snapshots, %8 changes, %9 orders; reports: %10\n")
                       .arg(q.i64(0))
                       .arg(q.text(1).isEmpty() ? QStringLiteral("-") : q.text(1), q.text(2), q.text(3),
                            q.text(4), q.text(5))
                       .arg(q.i64(6))
                       .arg(q.i64(7))
                       .arg(q.i64(9))
                       .arg(q.text(8));
        return out;
    });
}
