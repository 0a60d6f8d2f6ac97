#pragma once

#include "comm/ApiManager.h"

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

    static constexpr const char* kBusyMessage =
        "Already another instance is sending report to sever so returning";
};
