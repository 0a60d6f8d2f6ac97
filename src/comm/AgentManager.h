#pragma once

#include "core/EdrAgentConfig.h"

#include <QMap>
#include <QString>

class HttpManager;
class AgentDetails;
class ServerDetails;

// Enrols the agent with the server and sends the agent-information report.
class AgentManager
{
public:
    static AgentManager* getInstance();
    static void releaseInstance();

    bool isAgentRegistered();
    bool registerAgent();
    bool sendRptToServer(const QString& arg);
    // The agent-information report's plain form fields.
    QMap<QString, QString> agentInfoFields();

private:
    AgentManager();
    static AgentManager* s_instance;

    bool m_busy = false;
    HttpManager* m_http;
    AgentDetails* m_agentDetails;
    ServerDetails* m_serverDetails;
    EdrAgentConfig m_config;
};
