#include "comm/ApiManager.h"
#include "identity/AgentDetails.h"
#include "identity/ServerDetails.h"
#include "identity/SizeOperation.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <utility>

using edrtest::ScratchPrefix;

// Every key is read from the file at each call; the group spelling matters; garbage gives defaults.
TEST(ServerDetails, EveryKeyComesFromTheFileAtEachCall)
{
    ScratchPrefix prefix;
    const ServerDetails* s = ServerDetails::getInstance();
    auto values = [s] {
        return s->getServerIP() + QStringLiteral(" %1 ").arg(s->getServerPort()) + s->getServerAPIVersion() +
               QStringLiteral(" %1 %2").arg(s->getServerSocketPort()).arg(s->getAgentListenPort());
    };
    EXPECT_EQ(values(), QStringLiteral("NA 7777 v1 3098 3097"));
    EXPECT_EQ(AgentDetails::getInstance()->getAgentListenPort(), 3097);
    EXPECT_EQ(ApiManager::getAPI(PROCESSES), QStringLiteral("http://NA:7777/api/v1/machineInfo/addProcesses"));
    const std::pair<QByteArray, const char*> cases[] = {
        {"[server]\nEDRIP=NA\nACIP=10.0.0.5\n[Server]\nEDRPORT=8080\nEDRSAPIVER=v2\nEDRSPORT=4000\nEDRSLPORT=4001\n",
         "10.0.0.5 8080 v2 4000 4001"},
        {"[server]\nEDRIP=na\nACIP=10.0.0.5\n", "na 7777 v1 3098 3097"}, // the fallback is for NA exactly
        {"[Server]\nEDRIP=10.1.1.1\n[server]\nEDRPORT=9999\n", "NA 7777 v1 3098 3097"},
        {QByteArray("\x00\xff\xfe[[[server\n==\n", 14), "NA 7777 v1 3098 3097"},
        {"[Server]\nEDRSLPORT= 65535 \n", "NA 7777 v1 3098 65535"},
    };
    for (const auto& [ini, expected] : cases) {
        prefix.writeServerIni(ini);
        EXPECT_EQ(values(), QLatin1String(expected)) << ini.constData();
    }
    prefix.writeServerIni("[server]\nACIP=10.0.0.5\n");
    EXPECT_EQ(s->getConfiguredServerAddresses(), QStringList{QStringLiteral("10.0.0.5")});

    for (const char* bad : {"notanumber", "0", "65536", "-1", "80x", "1,2", ""}) {
        prefix.writeServerIni(QByteArray("[Server]\nEDRSPORT=4000\nEDRSLPORT=") + bad + "\n");
        const int lines = prefix.traceLog().count("EDRSLPORT in serverip.ini is not a port number");
        EXPECT_EQ(values(), QStringLiteral("NA 7777 v1 4000 0")) << bad;
        EXPECT_EQ(prefix.traceLog().count("EDRSLPORT in serverip.ini is not a port number"), lines + 1) << bad;
    }
}

TEST(ApiManager, RoutesOnTheConfiguredServer)
{
    ScratchPrefix prefix;
    prefix.writeServerIni("[server]\nEDRIP=10.1.2.3\n");
    const QString base = QStringLiteral("http://10.1.2.3:7777/api/v1/");
    EXPECT_EQ(ApiManager::getAPI(REGISTER_AGENT), base + QStringLiteral("machineInfo/registerAgent"));
    EXPECT_EQ(ApiManager::getAPI(AGENT_INFO), ApiManager::getAPI(HARDWARE_INFO));
    EXPECT_EQ(ApiManager::getAPI(USER_ACCOUNTS), base + QStringLiteral("machineInfo/addMachineInfo"));
    EXPECT_EQ(ApiManager::getAPI(SERVICES), base + QStringLiteral("machineInfo/addServicess"));
    EXPECT_EQ(ApiManager::getAPI(OSQUERY_OUTPUT), base + QStringLiteral("cmdAndPS/osqueryoutput"));
    EXPECT_EQ(ApiManager::getAPI(CONFIG_FILE), base + QStringLiteral("settings/getConfigFile"));
    EXPECT_EQ(ApiManager::getAPI(static_cast<API_NAME>(14)), base);
}

TEST(SizeOperation, BytesToTextAndTextToBytesWithItsQuirks)
{
    const struct {
        long long bytes;
        const char* text;
    } out[] = {{1023, "1023 Bytes"}, {1024, "1 KB"},        {1048575, "1023 KB"}, {1048576, "1 MB"},
               {1073741824, "1 GB"}, {-5, "-5 Bytes"}, {5LL << 40, "5120 GB"}, {0, "0 Bytes"}};
    for (const auto& c : out)
        EXPECT_EQ(SizeOperation::getBytesSizeInString(c.bytes), QLatin1String(c.text)) << c.bytes;
    const struct {
        const char* text;
        long long bytes;
    } in[] = {{"1.5 GB", 1610612736}, {"7.8G", 8375186227LL}, {"512 KB", 524288}, {"12G", 12884901888LL},
              {"1.5M", 1572864},      {"512 Bytes", 0},       {"2 gb", 0},       {"0 MB", 0},
              {"", 0},                {"G", 0},               {"1e400 G", 0}};
    for (const auto& c : in)
        EXPECT_EQ(SizeOperation::getStringSizeInBytes(QLatin1String(c.text)), c.bytes) << c.text;
}

TEST(AgentDetails, IdentityFromTheMachine)
{
    AgentDetails* details = AgentDetails::getInstance();
    EXPECT_EQ(details->getAgentID().size(), 36);
    EXPECT_EQ(details->getAgentVersion(), QStringLiteral(EDR_BUILD_VERSION));
    const auto cards = details->getAllLanCardDetails();
    for (const auto& card : cards) {
        EXPECT_NE(card.hardwareAddress, QStringLiteral("00:00:00:00:00:00"));
        EXPECT_FALSE(card.ipAddresses.contains(QStringLiteral("127.0.0.1")));
        EXPECT_EQ(card.ipAddresses.size(), card.subnetMasks.size());
    }
    details->getLocalIpAddress(); // reloading never duplicates a card
    EXPECT_EQ(details->getAllLanCardDetails().size(), cards.size());

    const QByteArray user = qgetenv("USER"), username = qgetenv("USERNAME");
    qunsetenv("USER");
    qputenv("USERNAME", "operator");
    EXPECT_EQ(details->getInteractiveUserName(), QStringLiteral("operator"));
    qputenv("USER", user);
    qputenv("USERNAME", username);
}

TEST(AgentDetails, TenantIdentityAndItsSwappedAccessor)
{
    ScratchPrefix prefix;
    EdrAgentConfig().setSetting(QStringLiteral("CorporateID"), QStringLiteral("corp-1"));
    EdrAgentConfig().setSetting(QStringLiteral("CorporateKey"), QStringLiteral("key-1"));
    AgentDetails* details = AgentDetails::getInstance();
    EXPECT_EQ(details->getCorporateID(), QStringLiteral("corp-1"));
    EXPECT_EQ(details->getCorporateKey(), QStringLiteral("key-1"));
    EXPECT_EQ(details->getCorpKey(), QStringLiteral("corp-1"));
    EXPECT_EQ(details->getLastSettingTime(), QStringLiteral("-"));
}
