// Orders as the command texts the agent takes, and the schedule file the
// console edits.

#include "Orders.h"
#include "ScheduleFile.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

namespace
{
QJsonObject json(const char* text)
{
    return QJsonDocument::fromJson(text).object();
}
} // namespace

TEST(Orders, EachKindBecomesTheAgentsCommandText)
{
    const std::pair<const char*, const char*> cases[] = {
        {R"({"kind":"kill","pid":4321})", "ACT#$#3#$#1|4321|17"},
        {R"({"kind":"service","name":"ssh.service","action":"restart"})", "ACT#$#2#$#3|ssh.service|17"},
        {R"({"kind":"service","name":"cron","action":"disable"})", "ACT#$#2#$#6|cron|17"},
        {R"({"kind":"startup","name":"tracker","enable":false})", "ACT#$#1#$#0|tracker|17"},
        {R"({"kind":"firewall","enable":true})", "ACT#$#22#$#1|0|0|17"},
        {R"({"kind":"terminal","command":"ls -l /tmp","asUser":false})", "RPT#$#18#$#17|ls -l /tmp"},
        {R"({"kind":"terminal","command":"echo a | wc","asUser":true})", "RPT#$#18#$#17|U|echo a | wc"},
        {R"({"kind":"osquery","query":"select pid from processes"})",
         "RPT#$#24#$#\"17|select pid from processes\""},
        {R"({"kind":"report","category":"software"})", "RPT#$#4#$#0"},
        {R"({"kind":"report","category":"network"})", "RPT#$#11#$#0"},
        {R"({"kind":"reload-schedule"})", "MOD#$#AGENT_CONFIG_CHANGE"},
        {R"({"kind":"update"})", "UPD#$#AGENT"},
        {R"({"kind":"reset-trace-log"})", "RESET#$#TRACE_LOG"},
    };
    for (const auto& [order, text] : cases) {
        QString error;
        EXPECT_EQ(Orders::commandText(json(order), 17, &error).value_or(error), QLatin1String(text)) << order;
    }
}

// What the agent would split into other fields or other commands, and wrong
// types, never reach it.
TEST(Orders, RefusesWhatTheAgentWouldMisread)
{
    const char* const refused[] = {
        R"({"kind":"kill","pid":"4321"})",
        R"({"kind":"kill","pid":0})",
        R"({"kind":"kill","pid":1.5})",
        R"({"kind":"service","name":"a|b","action":"stop"})",
        R"({"kind":"service","name":"ssh","action":"reload"})",
        R"({"kind":"startup","name":"x#$#UPD","enable":true})",
        R"({"kind":"startup","name":"x","enable":"yes"})",
        R"({"kind":"firewall"})",
        R"({"kind":"terminal","command":"  "})",
        R"({"kind":"terminal","command":"ls#$#RESET#$#TRACE_LOG"})",
        R"({"kind":"terminal","command":"ls","asUser":1})",
        R"({"kind":"osquery","query":"select 1 | 2"})",
        R"({"kind":"report","category":"registry"})",
        R"({"kind":"reboot"})",
        R"({})",
    };
    for (const char* order : refused) {
        QString error;
        EXPECT_FALSE(Orders::commandText(json(order), 17, &error)) << order;
        EXPECT_FALSE(error.isEmpty()) << order;
    }
}

TEST(Orders, AnswersSettleByKind)
{
    EXPECT_EQ(Orders::stateOf(QStringLiteral("terminal"), json(R"({"_id":"3","status":2,"Output":""})")),
              "done");
    EXPECT_EQ(Orders::stateOf(QStringLiteral("terminal"), json(R"({"_id":"3","status":1})")), "failed");
    EXPECT_EQ(Orders::stateOf(QStringLiteral("kill"), json(R"({"_id":"3","status":0})")), "done");
    EXPECT_EQ(Orders::stateOf(QStringLiteral("service"), json(R"({"_id":"3","status":1})")), "failed");
    EXPECT_EQ(Orders::stateOf(QStringLiteral("firewall"), json(R"({"_id":"3"})")), "failed");
    EXPECT_EQ(Orders::stateOf(QStringLiteral("osquery"), json(R"({"_id":"3","Output":[{"pid":"1"}]})")),
              "done");
    EXPECT_EQ(Orders::resultRoute(QStringLiteral("kill")), QStringLiteral("settings/InvSettingsOutput"));
    EXPECT_TRUE(Orders::resultRoute(QStringLiteral("report")).isEmpty());
    EXPECT_FALSE(Orders::answered(QStringLiteral("update")));
}

// The file is read as the agent reads it: defaults overlaid, first element of
// a name wins; what the console writes reads back the same.
TEST(ScheduleFile, ParsesOverlaysAndWritesBack)
{
    const auto tasks = ScheduleFile::parse("<?xml version=\"1.0\"?>\n<!-- edited -->\n"
                                           "<AgentInfo><Interval>5</Interval></AgentInfo>"
                                           "<AgentInfo><Interval>7</Interval></AgentInfo>"
                                           "<Network><Enabled>1</Enabled><Interval>-1</Interval></Network>"
                                           "<network><Enabled>0</Enabled></network>");
    ASSERT_TRUE(tasks);
    ASSERT_EQ(tasks->size(), 25u);
    EXPECT_EQ((*tasks)[0].interval, 5u);
    EXPECT_TRUE((*tasks)[0].enabled);
    EXPECT_TRUE((*tasks)[6].enabled);
    EXPECT_EQ((*tasks)[6].interval, 4294967295u);
    EXPECT_EQ((*tasks)[7].interval, 180u); // untouched default
    EXPECT_EQ((*tasks)[24].name, QStringLiteral("OS_Query"));

    const auto again = ScheduleFile::parse(ScheduleFile::write(*tasks));
    ASSERT_TRUE(again);
    EXPECT_EQ(ScheduleFile::toJson(*again), ScheduleFile::toJson(*tasks));
    EXPECT_FALSE(ScheduleFile::parse("<AgentInfo><Interval>5</AgentInfo>"));
    EXPECT_TRUE(ScheduleFile::parse(QByteArray()));
}

TEST(ScheduleFile, EditsAreAllOrNothing)
{
    auto tasks = *ScheduleFile::parse(QByteArray());
    QString error;
    ASSERT_TRUE(ScheduleFile::apply(
        QJsonDocument::fromJson(R"([{"name":"Services","enabled":false,"interval":60}])").array(), tasks,
        &error));
    EXPECT_FALSE(tasks[2].enabled);
    EXPECT_EQ(tasks[2].interval, 60u);
    const char* const refused[] = {R"([{"name":"Processes","interval":30},{"name":"Regedit"}])",
                                   R"([{"name":"Processes","interval":0}])",
                                   R"([{"name":"Processes","interval":"30"}])",
                                   R"([{"name":"Processes","runOnStart":1}])"};
    for (const char* edit : refused) {
        EXPECT_FALSE(ScheduleFile::apply(QJsonDocument::fromJson(edit).array(), tasks, &error)) << edit;
        EXPECT_EQ(tasks[3].interval, 180u) << edit;
    }
}
