#pragma once

#include "control/ProcessInfo.h"
#include "core/HostPaths.h"
#include "core/ToolRunner.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <functional>

// Which programs listen on which ports and which connections are open, from
// "lsof" and "ss". Building the same lists from the kernel tables under the
// proc root is kept beside it, unused by the report.
class NetworkMonManager
{
public:
    static NetworkMonManager* getInstance();
    static void releaseInstance();

    explicit NetworkMonManager(const HostPaths& host = HostPaths(), const ToolRunner& runner = ToolRunner());

    bool getNetworkPortList(QJsonObject& report);
    void getListeningPorts(QJsonArray& listening);

    static int getState(const QString& state);
    static int getState(int state);
    static QString hexToIPv4(const QString& hex);
    static QString hexToIPv6(const QString& hex);
    static bool isNumeric(const QString& text);

    // The kernel-table way.
    bool getUsedPortList(QJsonObject& report);
    bool getProcessDetails(int pid, QJsonArray& listening, QJsonArray& connections);
    bool parseConnectionFile(int pid, const QString& path, const QString& protocol,
                             const QString& processName, const QString& filePath, QJsonArray& listening,
                             QJsonArray& connections);

    // Task 11.
    bool sendRptToServer(const QString& parameter);
    // Exactly the body sendRptToServer posts.
    bool collectReport(QJsonObject& body) { return getNetworkPortList(body); }

    // Pure parsers over tool output and kernel tables.
    static void parseLsofOutput(const QByteArray& output, QJsonArray& listening, QJsonArray& connections);
    static void parseSsOutput(const QByteArray& output, QJsonArray& listening,
                              const std::function<QString(int)>& pathOfPid);
    static void parseConnectionTable(const QByteArray& table, int pid, const QString& protocol,
                                     const QString& processName, const QString& filePath,
                                     QJsonArray& listening, QJsonArray& connections);
    // Splits at runs of white space (space, tab, line feed, vertical tab, form
    // feed, carriage return), keeping or dropping the empty parts.
    static QStringList splitWhitespace(const QString& line, bool keepEmpty);

    // Every tool run is bounded; tests shorten the limit.
    void setToolTimeoutMs(int ms) { m_toolTimeoutMs = ms; }

private:
    ToolResult runSs() const;
    void appendListeningPorts(const ToolResult& ss, QJsonArray& listening) const;
    static void insertPortLists(QJsonObject& report, const QJsonArray& listening,
                                const QJsonArray& connections);

    static NetworkMonManager* s_instance;

    HostPaths m_host;
    ToolRunner m_runner;
    int m_toolTimeoutMs = ToolRunner::kDefaultTimeoutMs;
    ProcessInfo m_info;
    bool m_reportBusy = false;
};
