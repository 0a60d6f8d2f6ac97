#include "comm/AgentManager.h"

#include "comm/ApiManager.h"
#include "comm/HttpManager.h"
#include "comm/ReportSubmitter.h"
#include "core/CLogger.h"
#include "identity/AgentDetails.h"
#include "identity/ServerDetails.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>

AgentManager* AgentManager::s_instance = nullptr;

AgentManager* AgentManager::getInstance()
{
    if (!s_instance)
        s_instance = new AgentManager();
    return s_instance;
}

void AgentManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

AgentManager::AgentManager()
    : m_http(HttpManager::getInstance()), m_agentDetails(AgentDetails::getInstance()),
      m_serverDetails(ServerDetails::getInstance())
{
}

bool AgentManager::isAgentRegistered()
{
    const QString code = m_config.getAuthCode();
    if (code.isEmpty())
        return false;
    m_http->setAuthorizationToke(code);
    return true;
}

bool AgentManager::registerAgent()
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    BusyGuard guard(m_busy);
    if (!guard.acquired()) {
        EDR_LOG->Error(Q_FUNC_INFO, errno,
                       "Already another instance is registering agent on sever so returning");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }

    QJsonObject request;
    request.insert(QStringLiteral("agent_id"), m_agentDetails->getAgentID());
    QMap<QString, QString> fields;
    fields.insert(QStringLiteral("data"), QString::fromUtf8(QJsonDocument(request).toJson()));

    QString response;
    bool result = false;
    if (!m_http->sendDataToServer(true, ApiManager::getAPI(REGISTER_AGENT), 3, fields, response)) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to send agent info to server.");
        EDR_LOG->Debug(Q_FUNC_INFO, "Response: %s", qUtf8Printable(response));
    } else {
        EDR_LOG->Info(Q_FUNC_INFO, "Successfully send agent info to server.");
        EDR_LOG->Debug(Q_FUNC_INFO, "Response: %s", qUtf8Printable(response));
        const QJsonDocument doc = QJsonDocument::fromJson(response.toUtf8());
        if (!doc.isObject()) {
            EDR_LOG->Error(Q_FUNC_INFO, errno, "Invalid Response! - %s", qUtf8Printable(response));
            EDR_LOG->Error(Q_FUNC_INFO, errno, "Invalid Response! - %s", doc.toJson().constData());
        } else {
            const QJsonObject reply = doc.object();
            const QJsonValue status = reply.value(QStringLiteral("status"));
            if (!status.isBool()) {
                EDR_LOG->Error(Q_FUNC_INFO, errno, "Status Not Found! - %s", qUtf8Printable(response));
            } else if (status.toBool()) {
                const QString token = reply.value(QStringLiteral("token")).toString();
                m_http->setAuthorizationToke(token);
                m_config.setAuthCode(token);
                result = true;
            }
        }
    }
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return result;
}

QMap<QString, QString> AgentManager::agentInfoFields()
{
    QMap<QString, QString> fields;
    fields.insert(QStringLiteral("IpAddress"), m_agentDetails->getLocalIpAddress());
    fields.insert(QStringLiteral("AgentVersion"), m_agentDetails->getAgentVersion());
    return fields;
}

bool AgentManager::sendRptToServer(const QString&)
{
    BusyGuard guard(m_busy);
    if (!ReportSubmitter::enter(Q_FUNC_INFO, guard))
        return false;
    const bool ok = ReportSubmitter::postFields(Q_FUNC_INFO, AGENT_INFO, agentInfoFields(),
                                                "Successfully send agent info to server.",
                                                "Failed to send agent info to server.");
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return ok;
}
