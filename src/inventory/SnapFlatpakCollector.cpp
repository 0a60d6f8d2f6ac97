#include "inventory/SnapFlatpakCollector.h"

#include "core/CLogger.h"
#include "core/Common.h"
#include "identity/SizeOperation.h"
#include "inventory/FlatpakList.h"
#include "inventory/SnapList.h"

#include <QFile>
#include <QJsonObject>

#include <cstdio>
#include <ctime>
#include <sys/stat.h>

namespace
{

struct FileFacts {
    bool exists = false;
    long long size = 0;
    QString date; // local yyyyMMdd of the modification time
};

FileFacts factsOf(const QString& path)
{
    FileFacts facts;
    struct stat st;
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return facts;
    facts.exists = true;
    facts.size = static_cast<long long>(st.st_size);
    struct tm local;
    const time_t when = st.st_mtime;
    if (::localtime_r(&when, &local)) {
        char text[32];
        std::snprintf(text, sizeof text, "%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1,
                      local.tm_mday);
        facts.date = QString::fromLatin1(text);
    }
    return facts;
}

QJsonObject record(const QString& name, const QString& packageName, const QString& version,
                   const QString& size, const QString& installDate, const QString& description)
{
    QJsonObject o;
    o.insert(QLatin1String("Name"), name);
    o.insert(QLatin1String("PackageName"), packageName);
    o.insert(QLatin1String("InstallDate"), installDate);
    o.insert(QLatin1String("Version"), version);
    o.insert(QLatin1String("Description"), description);
    o.insert(QLatin1String("Size"), size);
    return o;
}

} // namespace

SnapFlatpakCollector::SnapFlatpakCollector(const HostPaths& host, const ToolRunner& runner)
    : m_host(host), m_runner(runner)
{
}

void SnapFlatpakCollector::appendTo(QJsonArray& records) const
{
    for (const QJsonValue& v : snapRecords())
        records.append(v);
    for (const QJsonValue& v : flatpakRecords())
        records.append(v);
}

std::optional<QByteArray> SnapFlatpakCollector::listOutput(const QString& tool,
                                                           const QStringList& arguments) const
{
    if (m_runner.findProgram(tool).isEmpty()) {
        EDR_LOG->Debug(Q_FUNC_INFO, "%s not found: no %ss reported", qUtf8Printable(tool),
                       qUtf8Printable(tool));
        return std::nullopt;
    }
    // flatpak prints through GLib, which turns every non-ASCII character of a
    // name into '?' in the plain C locale. snap ignores the locale, and a
    // UTF-8 one costs every process that loads it.
    ToolRunner runner = m_runner;
    if (tool == QLatin1String("flatpak"))
        runner.setLocale(QStringLiteral("C.UTF-8"));
    const ToolResult r = runner.run(tool, arguments, Common::scaledMs(kToolTimeoutMs), kMaxOutputBytes);
    if (!r.ok() || r.outputTruncated) {
        const QString why = r.timedOut          ? QStringLiteral("overran its time limit")
                            : !r.started        ? r.errorText
                            : r.crashed         ? QStringLiteral("crashed")
                            : r.outputTruncated ? QStringLiteral("printed too much")
                                                : QStringLiteral("exited with %1").arg(r.exitCode);
        EDR_LOG->Debug(Q_FUNC_INFO, "%s list failed (%s): no %ss reported", qUtf8Printable(tool),
                       qUtf8Printable(why), qUtf8Printable(tool));
        return std::nullopt;
    }
    return r.standardOutput;
}

QJsonArray SnapFlatpakCollector::snapRecords() const
{
    QJsonArray out;
    const std::optional<QByteArray> text =
        listOutput(QStringLiteral("snap"), {QStringLiteral("list"), QStringLiteral("--color=never"),
                                            QStringLiteral("--unicode=never")});
    if (!text)
        return out;
    int skipped = 0;
    const std::optional<QVector<SnapList::Snap>> snaps = SnapList::parse(*text, &skipped);
    if (!snaps) {
        EDR_LOG->Debug(Q_FUNC_INFO, "snap list printed no snap table: no snaps reported");
        return out;
    }
    if (skipped > 0)
        EDR_LOG->Debug(Q_FUNC_INFO, "snap list: %d unreadable rows left out", skipped);
    for (const SnapList::Snap& s : *snaps) {
        const FileFacts file =
            factsOf(m_host.root(QStringLiteral("/var/lib/snapd/snaps/%1_%2.snap").arg(s.name, s.revision)));
        const QByteArray yaml = HostPaths::readFile(
            m_host.root(QStringLiteral("/snap/%1/%2/meta/snap.yaml").arg(s.name, s.revision)), nullptr,
            kMaxSnapYamlBytes);
        out.append(record(s.name, s.name, s.version,
                          file.exists ? SizeOperation::getBytesSizeInString(file.size) : QString(), file.date,
                          SnapList::summaryOf(yaml)));
    }
    return out;
}

QJsonArray SnapFlatpakCollector::flatpakRecords() const
{
    QJsonArray out;
    const std::optional<QByteArray> text = listOutput(
        QStringLiteral("flatpak"), {QStringLiteral("list"), QStringLiteral("--app"),
                                    QStringLiteral("--columns=application,version,size,name,description")});
    if (!text)
        return out;
    int skipped = 0;
    const std::optional<QVector<FlatpakList::App>> apps = FlatpakList::parse(*text, &skipped);
    if (!apps) {
        EDR_LOG->Debug(Q_FUNC_INFO, "flatpak list printed no application lines: no flatpaks reported");
        return out;
    }
    if (skipped > 0)
        EDR_LOG->Debug(Q_FUNC_INFO, "flatpak list: %d unreadable lines left out", skipped);
    for (const FlatpakList::App& a : *apps) {
        const FileFacts current =
            factsOf(m_host.root(QStringLiteral("/var/lib/flatpak/app/%1/current").arg(a.id)));
        out.append(
            record(a.name.isEmpty() ? a.id : a.name, a.id, a.version, a.size, current.date, a.description));
    }
    return out;
}
