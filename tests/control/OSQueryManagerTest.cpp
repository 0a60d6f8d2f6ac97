#include "control/OSQueryManager.h"

#include "control/ControlTestHelpers.h"

#include <QDir>
#include <QFile>

using edrtest::FakeToolDir;

TEST(OSQueryManagerTest, OutputAndArgumentParsing)
{
    const auto rows = OSQueryManager::parseOutput(
        edrtest::readFixture(QStringLiteral("commands/osquery/processes.stdout")));
    ASSERT_TRUE(rows && rows->size() == 3);
    EXPECT_EQ(rows->at(1).toObject(),
              QJsonObject({{"name", "sshd"}, {"path", "/usr/sbin/sshd"}, {"pid", "612"}}));
    // Each byte of a UTF-8 character becomes a character of its own.
    EXPECT_EQ(rows->at(2)["name"], QStringLiteral("caf\u00c3\u00a9-daemon"));
    for (const char* fixture : {"object.stdout", "truncated.stdout", "syntax-error.stderr"})
        EXPECT_FALSE(
            OSQueryManager::parseOutput(edrtest::readFixture(QStringLiteral("commands/osquery/") + fixture)))
            << fixture;

    const QPair<const char*, QStringList> cases[] = {
        {"'5|select a|b'", {"5", "select a"}}, // cut at the second '|'
        {"x|y", {"", ""}},                     // outer characters unseen
        {"5|", {}},
        {"", {}},
    };
    for (const auto& c : cases) {
        const auto r = OSQueryManager::parseArgument(QString::fromUtf8(c.first));
        EXPECT_EQ((r ? QStringList{r->id, r->query} : QStringList()), c.second) << c.first;
    }
}

TEST(OSQueryManagerTest, QueriesEndToEnd)
{
    const edrtest::TimeScale fast(0.01); // 30 s -> 300 ms
    const QByteArray dir = edrtest::fixturePath(QStringLiteral("commands/osquery")).toUtf8();
    const struct {
        const char* script; // nullptr: no osquery installed
        const char* arg;
        const char* log;
        int runs;
    } cases[] = {
        {"cat \"$D/no-rows.stdout\"", "\"5|select name, pid from processes\"",
         "Successfully send osquery output", 1},
        {nullptr, "\"1|select 1\"", "Failed to run OSQuery!", 0},
        {"cat \"$D/syntax-error.stderr\"; exit 1", "\"3|selec 1\"", "OSQuery output is not in JSON Format!",
         1},
        {"exec sleep 600", "\"4|select 1\"", "Failed to run OSQuery!", 1},
        {"echo []", "\"6\"", "Invalid Parameters!", 0},
        {"echo []", "\"7|--flagfile=/tmp/x\"", "Invalid Parameters!", 0}, // an option, not a query
    };
    for (const auto& c : cases) {
        edrtest::ServerUnderTest peer;
        FakeToolDir tools;
        if (c.script) {
            tools.addScript(QStringLiteral("osquery"), "D='" + dir + "'\n" + c.script + "\n");
            ASSERT_TRUE(
                QDir().mkpath(Common::getRootPath() + QStringLiteral("/osquery")) &&
                QFile::link(tools.path() + QStringLiteral("/osquery"), OSQueryManager::osqueryPath()));
        }
        OSQueryManager manager{
            ToolRunner(QStringList())}; // nothing on the search path: the absolute path is used
        const bool ok = c.arg[1] == '5';
        EXPECT_EQ(manager.sendRptToServer(QString::fromUtf8(c.arg)), ok) << c.arg;
        EXPECT_EQ(tools.invocations(QStringLiteral("osquery")).size(), c.runs) << c.arg;
        EXPECT_TRUE(peer.logHas(c.log) && peer.logHas("Failed to osquery output.") != ok) << c.arg;
        EXPECT_EQ(peer.server.requests().size(), ok ? 1 : 0) << c.arg;
        if (ok) {
            EXPECT_EQ(tools.invocations("osquery").value(0),
                      QStringList({"--json", "select name, pid from processes"}));
            EXPECT_EQ(peer.posted("cmdAndPS/osqueryoutput"),
                      QJsonObject(
                          {{"_id", "5"}, {"Output", QJsonArray{QJsonObject{{"Output", "NO DATA FOUND"}}}}}));
        }
    }
}
