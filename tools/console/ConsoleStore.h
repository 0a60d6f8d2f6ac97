#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// What the console remembers: registered agents and every request it stored.
class ConsoleStore
{
public:
    explicit ConsoleStore(const QString& dataDir);

    QString registerAgent(const QString& agentId, const QString& peer); // returns the new token
    bool knowsToken(const QString& token) const;

    // One JSON document per request under DATA/reports/, named by sequence and route.
    QString storeRequest(const std::string& method, const std::string& route, const std::string& query,
                         const std::vector<std::pair<std::string, std::string>>& headers,
                         const std::string& body, const std::string& peer);

    QJsonArray agents() const;
    QJsonArray reports() const;
    QString dataDir() const { return m_dataDir; }

private:
    QString m_dataDir;
    mutable std::mutex m_mutex;
    QJsonArray m_agents;
    QJsonArray m_reports;
    std::map<QString, QString> m_tokens;
    int m_sequence = 0;
};
