#include "ConsoleStore.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QRandomGenerator>

ConsoleStore::ConsoleStore(const QString& dataDir) : m_dataDir(dataDir)
{
    QDir().mkpath(m_dataDir + QStringLiteral("/reports"));
}

QString ConsoleStore::registerAgent(const QString& agentId, const QString& peer)
{
    QString token;
    for (int i = 0; i < 4; ++i)
        token +=
            QString::number(QRandomGenerator::global()->generate(), 16).rightJustified(8, QLatin1Char('0'));
    std::lock_guard<std::mutex> lock(m_mutex);
    m_tokens[token] = agentId;
    m_agents.append(
        QJsonObject{{QStringLiteral("agent_id"), agentId},
                    {QStringLiteral("token"), token},
                    {QStringLiteral("peer"), peer},
                    {QStringLiteral("registered"), QDateTime::currentDateTime().toString(Qt::ISODate)}});
    QFile f(m_dataDir + QStringLiteral("/agents.json"));
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        f.write(QJsonDocument(m_agents).toJson());
    return token;
}

bool ConsoleStore::knowsToken(const QString& token) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_tokens.count(token) > 0;
}

QString ConsoleStore::storeRequest(const std::string& method, const std::string& route,
                                   const std::string& query,
                                   const std::vector<std::pair<std::string, std::string>>& headers,
                                   const std::string& body, const std::string& peer)
{
    QJsonArray headerList;
    for (const auto& h : headers)
        headerList.append(QJsonArray{QString::fromStdString(h.first), QString::fromStdString(h.second)});
    const QByteArray raw = QByteArray::fromStdString(body);
    QJsonParseError error{};
    const QJsonDocument parsed = QJsonDocument::fromJson(raw, &error);

    QJsonObject doc{{QStringLiteral("method"), QString::fromStdString(method)},
                    {QStringLiteral("route"), QString::fromStdString(route)},
                    {QStringLiteral("query"), QString::fromStdString(query)},
                    {QStringLiteral("peer"), QString::fromStdString(peer)},
                    {QStringLiteral("time"), QDateTime::currentDateTime().toString(Qt::ISODateWithMs)},
                    {QStringLiteral("headers"), headerList},
                    {QStringLiteral("size"), raw.size()},
                    {QStringLiteral("raw_body"), QString::fromUtf8(raw)}};
    if (error.error == QJsonParseError::NoError)
        doc.insert(QStringLiteral("body"),
                   parsed.isObject() ? QJsonValue(parsed.object()) : QJsonValue(parsed.array()));

    std::lock_guard<std::mutex> lock(m_mutex);
    QString name = QString::fromStdString(route);
    name.replace(QLatin1Char('/'), QLatin1Char('_'));
    const QString file = QStringLiteral("%1/reports/%2-%3.json")
                             .arg(m_dataDir)
                             .arg(++m_sequence, 5, 10, QLatin1Char('0'))
                             .arg(name);
    QFile f(file);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        f.write(QJsonDocument(doc).toJson());
    QJsonObject entry{{QStringLiteral("file"), file},
                      {QStringLiteral("route"), QString::fromStdString(route)},
                      {QStringLiteral("method"), QString::fromStdString(method)},
                      {QStringLiteral("size"), raw.size()},
                      {QStringLiteral("time"), doc.value(QStringLiteral("time"))}};
    if (parsed.isObject())
        entry.insert(QStringLiteral("keys"), QJsonArray::fromStringList(parsed.object().keys()));
    m_reports.append(entry);
    return file;
}

QJsonArray ConsoleStore::agents() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_agents;
}

QJsonArray ConsoleStore::reports() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_reports;
}
