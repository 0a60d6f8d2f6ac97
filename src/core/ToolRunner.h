#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

struct ToolResult {
    bool started = false;  // the program was found and started
    bool finished = false; // it exited by itself within the limit
    bool timedOut = false; // it overran its limit and was killed
    bool crashed = false;  // it died from a signal
    int exitCode = -1;
    QByteArray standardOutput;
    bool outputTruncated = false; // output beyond the cap was read and dropped
    QString errorText;

    bool ok() const { return finished && !crashed && exitCode == 0; }
};

// The one way the agent runs a child process. Programs are looked up by name
// in the search path (PATH by default); a name with a '/' is taken as a path.
// Every run has a time limit; a child that overruns it, or is still running
// when the agent is asked to stop, is ended together with its process group.
// Standard input is empty and standard error is discarded; output is capped.
class ToolRunner
{
public:
    static constexpr int kDefaultTimeoutMs = 120000;
    static constexpr qint64 kDefaultMaxOutput = 64 * 1024 * 1024;

    ToolRunner();
    explicit ToolRunner(const QStringList& searchPath);

    QStringList searchPath() const { return m_searchPath; }
    // The locale tools run in (default C). A tool that prints names in the
    // locale's character set needs C.UTF-8 to keep them intact.
    void setLocale(const QString& locale) { m_locale = locale; }
    QString findProgram(const QString& program) const;

    // Tools are run in the C locale so their output parses the same everywhere;
    // keepLocale leaves the environment alone (terminal commands).
    ToolResult run(const QString& program, const QStringList& arguments, int timeoutMs = kDefaultTimeoutMs,
                   qint64 maxOutput = kDefaultMaxOutput, bool keepLocale = false) const;

private:
    QStringList m_searchPath;
    QString m_locale = QStringLiteral("C");
};
