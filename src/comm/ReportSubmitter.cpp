#include "comm/ReportSubmitter.h"

#include "comm/HttpManager.h"
#include "comm/Outbox.h"
#include "core/AuditLog.h"
#include "core/CLogger.h"
#include "core/Common.h"
#include "core/EdrAgentConfig.h"

#include <QCryptographicHash>
#include <QJsonDocument>

#include <cerrno>
#include <ctime>
#include <malloc.h>
#include <map>
#include <set>

ReportOccasion ReportSubmitter::s_occasion = ReportOccasion::Requested;
QString ReportSubmitter::s_earlyWhat;
ReportSubmitter::Outcome ReportSubmitter::s_lastOutcome = ReportSubmitter::Outcome::None;

namespace
{
struct Accepted {
    QByteArray digest;
    qint64 atMs = 0;
};
// Per route: the digest of the last body the server answered with a 2xx.
std::map<int, Accepted> g_accepted;
std::set<int> g_inFlight;

// Counts suspended time too: a laptop asleep for a day has been silent a day.
qint64 boottimeMs()
{
    timespec ts{};
    ::clock_gettime(CLOCK_BOOTTIME, &ts);
    return static_cast<qint64>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

class InFlight
{
public:
    explicit InFlight(API_NAME route) : m_route(route) { g_inFlight.insert(route); }
    ~InFlight() { g_inFlight.erase(m_route); }
    InFlight(const InFlight&) = delete;
    InFlight& operator=(const InFlight&) = delete;

private:
    int m_route;
};
} // namespace

ReportSubmitter::ScopedOccasion::ScopedOccasion(ReportOccasion occasion, const QString& earlyWhat)
    : m_saved(s_occasion), m_savedWhat(s_earlyWhat)
{
    s_occasion = occasion;
    s_earlyWhat = earlyWhat;
}

ReportSubmitter::ScopedOccasion::~ScopedOccasion()
{
    s_occasion = m_saved;
    s_earlyWhat = m_savedWhat;
}

bool ReportSubmitter::submitting(API_NAME route)
{
    return g_inFlight.count(route) != 0;
}

bool ReportSubmitter::isSnapshot(API_NAME route)
{
    switch (route) {
    case HARDWARE_INFO:
    case STARTUP_APPS:
    case PROCESSES:
    case SERVICES:
    case NETWORK_MONITORING:
    case INSTALLED_SOFTWARE:
    case FIREWALL_STATUS:
        return true;
    default:
        return false;
    }
}

bool ReportSubmitter::skipsPost(ReportOccasion occasion, bool snapshot, bool accepted, bool sameBody,
                                bool skipUnchanged, qint64 sinceAcceptedMs, qint64 maxSilenceMs)
{
    if (!snapshot || !accepted || !sameBody)
        return false;
    switch (occasion) {
    case ReportOccasion::Early:
        return true;
    case ReportOccasion::Scheduled:
        return skipUnchanged && sinceAcceptedMs < maxSilenceMs;
    case ReportOccasion::Requested:
        break;
    }
    return false;
}

void ReportSubmitter::forgetAcceptedBodies()
{
    g_accepted.clear();
}

bool ReportSubmitter::decideSkip(const char* origin, API_NAME route, const QByteArray& digest)
{
    if (s_occasion == ReportOccasion::Requested || !isSnapshot(route))
        return false;
    const auto it = g_accepted.find(route);
    const bool accepted = it != g_accepted.end();
    const bool same = accepted && it->second.digest == digest;
    if (!same)
        return false;
    const qint64 since = boottimeMs() - it->second.atMs;
    bool skipUnchanged = false;
    qint64 maxSilenceMs = 0;
    if (s_occasion == ReportOccasion::Scheduled) {
        const EdrAgentConfig config;
        skipUnchanged = config.skipUnchanged();
        if (skipUnchanged)
            maxSilenceMs = Common::scaledMs(qint64(config.maxSilenceMinutes()) * 60000);
    }
    if (!skipsPost(s_occasion, true, accepted, same, skipUnchanged, since, maxSilenceMs))
        return false;
    EDR_LOG->Debug(origin, "Report unchanged since the server accepted it %lld s ago; not posted",
                   static_cast<long long>(since / 1000));
    return true;
}

bool ReportSubmitter::enter(const char* origin, const BusyGuard& guard)
{
    EDR_LOG->Debug(origin, "IN");
    if (guard.acquired())
        return true;
    EDR_LOG->Error(origin, errno, "%s", kBusyMessage);
    EDR_LOG->Debug(origin, "OUT");
    return false;
}

bool ReportSubmitter::submitReport(const char* origin, bool& busy, API_NAME route,
                                   const ReportMessages& messages,
                                   const std::function<bool(QJsonObject&)>& collect)
{
    BusyGuard guard(busy);
    if (!enter(origin, guard)) {
        s_lastOutcome = Outcome::Busy;
        return false;
    }
    const InFlight inFlight(route);
    bool sent = false;
    {
        QJsonObject report;
        bool collected = false;
        try {
            collected = collect(report);
        } catch (...) {
            EDR_LOG->Error(origin, errno, "CATCHED");
        }
        OrderReport::noteSucceeded(collected);
        if (collected) {
            // toJson() never yields a zero byte, so the text is whole.
            QMap<QString, QString> fields;
            const QByteArray text = QJsonDocument(report).toJson();
            report = QJsonObject();
            const QByteArray digest = QCryptographicHash::hash(text, QCryptographicHash::Sha256);
            if (decideSkip(origin, route, digest)) {
                s_lastOutcome = Outcome::Unchanged;
                sent = true;
            } else {
                fields.insert(QStringLiteral("data"), QString::fromUtf8(text));
                if (s_occasion == ReportOccasion::Early)
                    EDR_LOG->Info(origin, "Early report: %s", qUtf8Printable(s_earlyWhat));
                bool accepted = false;
                sent = post(origin, route, fields, messages.sent, messages.sendFailed, &accepted);
                s_lastOutcome = sent ? Outcome::Posted : Outcome::Failed;
                if (accepted && isSnapshot(route))
                    g_accepted[route] = Accepted{digest, boottimeMs()};
            }
        } else {
            EDR_LOG->Error(origin, errno, "%s", messages.collectFailed);
            s_lastOutcome = Outcome::NotCollected;
        }
    }
    // A report's text and objects can run to megabytes; hand the freed heap
    // back so an idle daemon stays small between reports.
    ::malloc_trim(0);
    EDR_LOG->Debug(origin, "OUT");
    return sent;
}

bool ReportSubmitter::postObject(const char* origin, API_NAME route, const QJsonObject& object,
                                 const char* sent, const char* sendFailed)
{
    QMap<QString, QString> fields;
    // toJson() never yields a zero byte, so the text is whole.
    fields.insert(QStringLiteral("data"), QString::fromUtf8(QJsonDocument(object).toJson()));
    return postFields(origin, route, fields, sent, sendFailed);
}

bool ReportSubmitter::postFields(const char* origin, API_NAME route, const QMap<QString, QString>& fields,
                                 const char* sent, const char* sendFailed)
{
    return post(origin, route, fields, sent, sendFailed, nullptr);
}

bool ReportSubmitter::post(const char* origin, API_NAME route, const QMap<QString, QString>& fields,
                           const char* sent, const char* sendFailed, bool* accepted)
{
    Outbox* outbox = Outbox::active();
    // Results reach the server in the order they were made: a new one waits
    // behind those still pending.
    if (outbox && outbox->mustQueue(route) &&
        outbox->keep(origin, route, HttpManager::jsonBody(fields),
                     QStringLiteral("queued behind %1 earlier results").arg(outbox->pendingResults()))) {
        outbox->scheduleReplay();
        OrderReport::noteDelivered(false);
        return true;
    }
    QString response;
    HttpManager::Outcome outcome;
    const bool ok = HttpManager::getInstance()->sendDataToServer(true, ApiManager::getAPI(route), 3, fields,
                                                                 response, outcome);
    // A server error keeps the result for another try: not delivered yet.
    OrderReport::noteDelivered(ok && !outcome.serverFailed());
    if (accepted)
        *accepted = ok && outcome.answered && outcome.status >= 200 && outcome.status < 300;
    if (ok)
        EDR_LOG->Info(origin, "%s", sent);
    else
        EDR_LOG->Error(origin, errno, "%s", sendFailed);
    EDR_LOG->Debug(origin, "Response: %s", qUtf8Printable(response));
    if (outbox) {
        if (outcome.serverFailed())
            outbox->keep(origin, route, outcome.body,
                         outcome.answered ? QStringLiteral("server answered HTTP %1").arg(outcome.status)
                                          : QStringLiteral("no answer from server"));
        else
            outbox->onPosted(origin, route);
    }
    return ok;
}
