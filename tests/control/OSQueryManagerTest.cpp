#include "control/OSQueryManager.h"

#include "control/ControlTestHelpers.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>

using edrtest::FakeToolDir;
using edrtest::ServerUnderTest;

namespace {

// Puts the fake "osquery" of tools where the agent expects its own osquery.
void installAsOsquery(const FakeToolDir& tools)
{
    ASSERT_TRUE(QDir().mkpath(Common::getRootPath() + QStringLiteral("/osquery")));
    ASSERT_TRUE(QFile::link(tools.path() + QStringLiteral("/osquery"), OSQueryManager::osqueryPath()));
}

const QJsonArray kNoData{QJsonObject{{"Output", "NO DATA FOUND"}}};

} // namespace

TEST(OSQueryManagerTest, OutputParsing)
{
    const auto rows = OSQueryManager::parseOutput(edrtest::readFixture(QStringLiteral("commands/osquery/processes.stdout")));
    ASSERT_TRUE(rows);
    ASSERT_EQ(rows->size(), 3);
    EXPECT_EQ(rows->at(1).toObject(), QJsonObject({{"name", "sshd"}, {"path", "/usr/sbin/sshd"}, {"pid", "612"}}));
    // Each byte of a UTF-8 character becomes a character of its own.
    EXPECT_EQ(rows->at(2).toObject().value(QStringLiteral("name")), QStringLiteral("caf\u00c3\u00a9-daemon"));
    EXPECT_EQ(OSQueryManager::parseOutput(edrtest::readFixture(QStringLiteral("commands/osquery/no-rows.stdout"))), kNoData);
    EXPECT_EQ(OSQueryManager::parseOutput("[\"\xff\"]"), QJsonArray{QStringLiteral("\u00ff")});
    for (const char* fixture : {"object.stdout", "truncated.stdout", "syntax-error.stderr"})
        EXPECT_FALSE(OSQueryManager::parseOutput(edrtest::readFixture(QStringLiteral("commands/osquery/") + fixture)))
            << fixture;
    EXPECT_FALSE(OSQueryManager::parseOutput(QByteArray()));
}

TEST(OSQueryManagerTest, ArgumentIsQuotedIdAndQuery)
{
    auto parse = [](const char* arg) {
        const auto r = OSQueryManager::parseArgument(QString::fromUtf8(arg));
        return r ? QStringList{r->id, r->query} : QStringList();
    };
    EXPECT_EQ(parse("\"5|select 1\""), QStringList({"5", "select 1"}));
    EXPECT_EQ(parse("'5|select a|b'"), QStringList({"5", "select a"})); // cut at the second '|'
    EXPECT_EQ(parse("x|y"), QStringList({"", ""}));                    // outer characters unseen
    for (const char* refused : {"\"5\"", "5|", ""})
        EXPECT_EQ(parse(refused), QStringList()) << refused;
}

TEST(OSQueryManagerTest, RowsArePostedWithTheId)
{
    ServerUnderTest peer;
    FakeToolDir tools;
    tools.addToolFromFixture(QStringLiteral("osquery"), QStringLiteral("commands/osquery/no-rows.stdout"));
    installAsOsquery(tools);
    OSQueryManager manager{ToolRunner(QStringList())}; // nothing on the search path: the absolute path is used
    EXPECT_TRUE(manager.sendRptToServer(QStringLiteral("\"5|select name, pid from processes\"")));
    EXPECT_EQ(tools.invocations(QStringLiteral("osquery")),
              QList<QStringList>({{QStringLiteral("--json"), QStringLiteral("select name, pid from processes")}}));
    EXPECT_EQ(peer.onlyPostedObject("cmdAndPS/osqueryoutput"), QJsonObject({{"_id", "5"}, {"Output", kNoData}}));
    EXPECT_TRUE(peer.logHas("Successfully send osquery output to server."));
}

TEST(OSQueryManagerTest, FailedQueriesSendNothing)
{
    edrtest::ScopedTimeScale fast(0.01); // 30 s -> 300 ms
    const QByteArray syntaxError = edrtest::fixturePath(QStringLiteral("commands/osquery/syntax-error.stderr")).toUtf8();
    const struct {
        const char* script; // nullptr: no osquery installed
        const char* arg;
        const char* error;
        int runs;
    } cases[] = {
        {nullptr, "\"1|select 1\"", "Failed to run OSQuery!", 0},
        {"cat \"$ERR\" >&2; exit 1", "\"2|selec 1\"", "OSQuery output is not in JSON Format!", 1},
        {"cat \"$ERR\"; exit 1", "\"3|selec 1\"", "OSQuery output is not in JSON Format!", 1},
        {"exec sleep 600", "\"4|select 1\"", "Failed to run OSQuery!", 1},
        {"echo []", "\"6\"", "Invalid Parameters!", 0},
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        FakeToolDir tools;
        if (c.script) {
            tools.addScript(QStringLiteral("osquery"), "ERR='" + syntaxError + "'\n" + c.script + "\n");
            installAsOsquery(tools);
        }
        OSQueryManager manager;
        EXPECT_FALSE(manager.sendRptToServer(QString::fromUtf8(c.arg))) << c.arg;
        EXPECT_TRUE(peer.server.requests().isEmpty()) << c.arg;
        EXPECT_EQ(tools.invocations(QStringLiteral("osquery")).size(), c.runs) << c.arg;
        EXPECT_TRUE(peer.logHas(c.error)) << c.arg;
        EXPECT_TRUE(peer.logHas("Failed to osquery output.")) << c.arg;
    }
}
