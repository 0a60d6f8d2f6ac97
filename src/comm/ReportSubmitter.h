#pragma once

#include "comm/ApiManager.h"

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QString>

#include <functional>

// Holds a manager's busy flag for the length of one submission and clears it
// on every path out.
class BusyGuard
{
public:
    explicit BusyGuard(bool& flag) : m_flag(flag), m_acquired(!flag)
    {
        if (m_acquired)
            m_flag = true;
    }
    ~BusyGuard()
    {
        if (m_acquired)
            m_flag = false;
    }
    BusyGuard(const BusyGuard&) = delete;
    BusyGuard& operator=(const BusyGuard&) = delete;
    bool acquired() const { return m_acquired; }

private:
    bool& m_flag;
    bool m_acquired;
};

// What a report says about itself in the trace log.
struct ReportMessages {
    const char* collectFailed; // Error when the collector fails; nothing is sent
    const char* sent;          // Info after a completed post
    const char* sendFailed;    // Error after a failed post
};

// Why a report is made. Push orders and everything else are Requested; the
// scheduler marks its own runs around the dispatch.
enum class ReportOccasion { Requested, Scheduled, Early };

// The one way reports and action results reach the server: a JSON POST of the
// single form field "data" (or of plain fields), logged once by outcome.
class ReportSubmitter
{
public:
    // Debug IN; when the guard found the manager busy, the refusal (Error,
    // Debug OUT) and false. Every submission and order starts with it.
    static bool enter(const char* origin, const BusyGuard& guard);

    // Debug IN; refuse when busy; collect; post to route; log; Debug OUT.
    // origin is the calling manager's signature (Q_FUNC_INFO).
    static bool submitReport(const char* origin, bool& busy, API_NAME route, const ReportMessages& messages,
                             const std::function<bool(QJsonObject&)>& collect);

    // Posts the object, serialised indented, as the form field "data".
    static bool postObject(const char* origin, API_NAME route, const QJsonObject& object, const char* sent,
                           const char* sendFailed);

    // Posts plain form fields as a JSON body.
    static bool postFields(const char* origin, API_NAME route, const QMap<QString, QString>& fields,
                           const char* sent, const char* sendFailed);

    // What the last submitReport did (for the early-report coordinator).
    enum class Outcome { None, Busy, NotCollected, Unchanged, Posted, Failed };
    static Outcome lastOutcome() { return s_lastOutcome; }
    static void resetLastOutcome() { s_lastOutcome = Outcome::None; }

    // Sets the occasion of the submissions made while it lives; earlyWhat is
    // the task name and the change, for the early report's Info line.
    class ScopedOccasion
    {
    public:
        ScopedOccasion(ReportOccasion occasion, const QString& earlyWhat = QString());
        ~ScopedOccasion();
        ScopedOccasion(const ScopedOccasion&) = delete;
        ScopedOccasion& operator=(const ScopedOccasion&) = delete;

    private:
        ReportOccasion m_saved;
        QString m_savedWhat;
    };

    // True while a report of route is being collected or posted.
    static bool submitting(API_NAME route);

    // The reports that describe the host as it is, which may be compared with
    // what the server already holds.
    static bool isSnapshot(API_NAME route);

    // Whether a collected report is left unposted: an early report whose body
    // the server already accepted (2xx), and, with skipUnchanged, a scheduled
    // run of the same until maxSilenceMs passed since that answer. Nothing is
    // skipped before the server accepted a body of the route in this run.
    static bool skipsPost(ReportOccasion occasion, bool snapshot, bool accepted, bool sameBody,
                          bool skipUnchanged, qint64 sinceAcceptedMs, qint64 maxSilenceMs);

    // The last accepted body per route is remembered as a digest; tests start clean.
    static void forgetAcceptedBodies();

    static constexpr const char* kBusyMessage =
        "Already another instance is sending report to sever so returning";

private:
    static bool post(const char* origin, API_NAME route, const QMap<QString, QString>& fields,
                     const char* sent, const char* sendFailed, bool* accepted);
    static bool decideSkip(const char* origin, API_NAME route, const QByteArray& digest);

    static ReportOccasion s_occasion;
    static QString s_earlyWhat;
    static Outcome s_lastOutcome;
};
