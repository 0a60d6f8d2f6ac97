#include "comm/AgentManager.h"
#include "comm/HttpManager.h"
#include "comm/ReportSubmitter.h"
#include "identity/AgentDetails.h"

#include "support/TestSupport.h"

#include <QJsonObject>

#include <gtest/gtest.h>

using namespace edrtest;

namespace
{
class AgentManagerTest : public ::testing::Test, protected ServerUnderTest
{
protected:
    void SetUp() override { HttpManager::getInstance()->setAuthorizationToke(QString()); }
    void TearDown() override { HttpManager::getInstance()->setAuthorizationToke(QString()); }
    AgentManager* agent = AgentManager::getInstance();
};
} // namespace

TEST_F(AgentManagerTest, RegistersOnceAndCarriesTheTokenAfterwards)
{
    server.setReply({200, "{\"status\": true, \"token\": \"tok-1\", \"extra\": 5}", "application/json"});
    ASSERT_TRUE(agent->registerAgent());
    EXPECT_EQ(EdrAgentConfig().getAuthCode(), QStringLiteral("tok-1"));

    ASSERT_TRUE(agent->sendRptToServer(QString()));
    const QList<RecordedRequest> rs = server.requests();
    ASSERT_EQ(rs.size(), 2);
    EXPECT_EQ(rs[0].target, "/api/v1/machineInfo/registerAgent");
    EXPECT_FALSE(rs[0].hasHeader("Authorization"));
    EXPECT_EQ(rs[0].body,
              "{    \"agent_id\": \"" + AgentDetails::getInstance()->getAgentID().toUtf8() + "\"}");

    EXPECT_EQ(rs[1].target, "/api/v1/machineInfo/addMachineInfo");
    EXPECT_EQ(rs[1].header("Authorization"), "tok-1");
    EXPECT_TRUE(rs[1].body.startsWith("{    \"AgentVersion\": \"" EDR_BUILD_VERSION "\",    \"IpAddress\": "))
        << rs[1].body.constData();
}

TEST_F(AgentManagerTest, RejectsEveryOtherReplyShape)
{
    const CannedReply replies[] = {
        {200, "OK", "text/plain"},
        {200, "{\"status\": \"true\", \"token\": \"t\"}", "application/json"},
        {200, "{\"token\": \"t\"}", "application/json"},
        {200, "{\"status\": false, \"token\": \"t\"}", "application/json"},
        {500, "<html>error</html>", "text/html"},
        {200, "", "text/plain", false, true},
    };
    for (const CannedReply& reply : replies) {
        server.setReply(reply);
        EXPECT_FALSE(agent->registerAgent()) << reply.body.constData();
        EXPECT_EQ(EdrAgentConfig().getAuthCode(), QString()) << reply.body.constData();
    }
    // A true status without a token counts as registered once but leaves nothing to send.
    server.setReply({200, "{\"status\": true}", "application/json"});
    EXPECT_TRUE(agent->registerAgent());
    EXPECT_FALSE(agent->isAgentRegistered());
}

TEST(ReportSubmitter, BusyFlagRefusesAndIsAlwaysCleared)
{
    ServerUnderTest peer;
    bool busy = true;
    int collected = 0;
    const ReportMessages messages{"Failed to Widgets Info.", "Successfully send widgets to server.",
                                  "Failed to send widgets to server."};
    auto collect = [&](QJsonObject& body) {
        ++collected;
        body.insert(QStringLiteral("Widget"), QStringLiteral("w"));
        return true;
    };
    EXPECT_FALSE(ReportSubmitter::submitReport("bool W::send()", busy, PROCESSES, messages, collect));
    EXPECT_TRUE(busy);
    EXPECT_EQ(collected, 0);

    busy = false;
    EXPECT_FALSE(ReportSubmitter::submitReport("bool W::send()", busy, PROCESSES, messages,
                                               [](QJsonObject&) -> bool { throw 42; }));
    EXPECT_FALSE(busy);
    EXPECT_TRUE(peer.logHas("Failed to Widgets Info."));

    EXPECT_TRUE(ReportSubmitter::submitReport("bool W::send()", busy, PROCESSES, messages, collect));
    EXPECT_FALSE(busy);
    EXPECT_EQ(peer.posted("machineInfo/addProcesses"), QJsonObject({{"Widget", "w"}})); // the only request
}
