#pragma once

#include <QString>

enum API_NAME {
    REGISTER_AGENT = 0,
    AGENT_INFO = 1,
    HARDWARE_INFO = 2,
    STARTUP_APPS = 3,
    USER_ACCOUNTS = 4,
    PROCESSES = 5,
    SERVICES = 6,
    NETWORK_MONITORING = 7,
    INSTALLED_SOFTWARE = 8,
    COMMAND_OUTPUT = 9,
    FIREWALL_STATUS = 10,
    OSQUERY_OUTPUT = 11,
    ACTION_RESULT = 12,
    CONFIG_FILE = 13,
};

// Builds the URL of a server route from the settings of this moment.
class ApiManager
{
public:
    static QString getAPI(const API_NAME& name);
};
