#pragma once

#include "core/ToolRunner.h"

#include <QJsonObject>
#include <QString>

#include <optional>

// Runs one command line sent by the server, without a shell, and posts what it
// printed.
class TerminalManager
{
public:
    static TerminalManager* getInstance();
    static void releaseInstance();

    explicit TerminalManager(const ToolRunner& runner = ToolRunner());

    bool runCommand(const QString& command, QString& output, int& errorCode);
    bool runCommandAsUser(const QString& command, QString& output, int& errorCode);
    bool executeCommand(const QString& command, bool asUser, QJsonObject& result, bool permitted = true);
    // Not permitted: nothing runs and the failure result (if any) is posted.
    bool sendRptToServer(const QString& arg, bool permitted = true);

    // "id|command" or "id|U|command". The flag only looks at the character
    // after the first '|', and the command starts after a second '|' only when
    // that one sits two characters on, so "7|Uptime" is a user run of "Uptime".
    struct Request {
        QString id;
        bool asUser = false;
        QString command;
    };
    static std::optional<Request> parseArgument(const QString& arg);

    static constexpr int kCommandTimeoutMs = 20000;
    static constexpr int kUserCommandTimeoutMs = 60000;
    // The limit (before time scaling) a command runs under.
    static int commandTimeoutMs(bool asUser) { return asUser ? kUserCommandTimeoutMs : kCommandTimeoutMs; }
    // Whatever a command prints beyond this is dropped, so a flood cannot
    // exhaust memory here or in the report built from it.
    static constexpr qint64 kMaxOutputBytes = 4 * 1024 * 1024;

private:
    bool run(const QString& command, bool asUser, QString& output);

    static TerminalManager* s_instance;

    ToolRunner m_runner;
    bool m_reportBusy = false;
};
