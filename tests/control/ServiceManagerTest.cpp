#include "control/ServiceManager.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace {

using edrtest::FakeToolDir;

// A systemctl that answers "show" the way the real one does: one block per
// unit it knows, an empty line between blocks, and it stops (exit 1) at the
// first unit it cannot show. The blocks come from a fixture of
// "### name" sections; templates have none, as with systemd.
class ShowEmulator {
public:
    explicit ShowEmulator(const QString& listFixture, const QString& unitsFixture = QStringLiteral(
                                                          "commands/systemctl/show-units.txt"))
    {
        const QString units = tools.path() + QStringLiteral("/units");
        QDir().mkpath(units);
        QFile out;
        const QList<QByteArray> lines = edrtest::readFixture(unitsFixture).split('\n');
        for (const QByteArray& line : lines) {
            if (line.startsWith("### ")) {
                out.close();
                out.setFileName(units + QLatin1Char('/') + QString::fromLatin1(line.mid(4).toHex()));
                EXPECT_TRUE(out.open(QIODevice::WriteOnly));
            } else if (out.isOpen() && !line.isEmpty()) {
                out.write(line + '\n');
            }
        }
        out.close();
        QFile list(tools.path() + QStringLiteral("/list.stdout"));
        EXPECT_TRUE(list.open(QIODevice::WriteOnly));
        list.write(edrtest::readFixture(listFixture));
        list.close();
        tools.addScript(QStringLiteral("systemctl"), R"(dir=$(dirname "$0")
case "$1" in
list-unit-files) cat "$dir/list.stdout"; exit 0 ;;
show) shift; first=1
  for a in "$@"; do
    [ "$a" = --property ] && break
    key=$(printf %s "$a" | od -An -tx1 | tr -d ' \n')
    [ -f "$dir/units/$key" ] || exit 1
    [ $first = 1 ] || echo
    first=0
    cat "$dir/units/$key"
  done
  exit 0 ;;
esac
exit 1
)");
    }
    void forget(const QString& unit) { QFile::remove(tools.path() + "/units/" + QString::fromLatin1(unit.toUtf8().toHex())); }
    QList<QStringList> showRuns() const
    {
        QList<QStringList> runs;
        for (const QStringList& args : tools.invocations(QStringLiteral("systemctl")))
            if (args.value(0) == QLatin1String("show"))
                runs << args;
        return runs;
    }
    FakeToolDir tools;
};

// The list the way one "show" per unit builds it.
QJsonArray perUnitList(ServiceManager& manager, const QStringList& names)
{
    QJsonArray list;
    for (const QString& name : names) {
        ServiceInfo info;
        info.setName(name);
        info.setStartName(name);
        info.setStatus(QStringLiteral("OK"));
        manager.getServiceInfo(name, info);
        list.append(info.toJson());
    }
    return list;
}

TEST(ServiceManagerTest, UnitFileListKeepsHeadingAndCountLines)
{
    const QStringList names =
        ServiceManager::parseUnitFileList(edrtest::readFixture(QStringLiteral("commands/systemctl/list-unit-files.stdout")));
    ASSERT_EQ(names.size(), 109);
    EXPECT_EQ(names.first(), QStringLiteral("UNIT FILE"));
    EXPECT_EQ(names.at(1), QStringLiteral("apt-daily-upgrade.service"));
    EXPECT_EQ(names.last(), QStringLiteral("107 unit files listed."));
    EXPECT_TRUE(names.contains(QStringLiteral("getty@.service")));
    EXPECT_EQ(ServiceManager::parseUnitFileList("  leading.service  x\nsolo\n\n"), QStringList{QStringLiteral("solo")});
}

TEST(ServiceManagerTest, PropertiesFollowTheirRules)
{
    const struct {
        QStringList lines;
        QJsonObject expect; // only the keys that matter for the case
    } cases[] = {
        // Whichever of Type and ExecStop comes later sets AcceptStop.
        {{"Type=oneshot", "ExecStop="}, {{"AcceptStop", false}, {"AcceptPause", false}, {"ServiceType", "oneshot"}}},
        {{"Type=oneshot", "ExecStop={ path=/bin/true }"}, {{"AcceptStop", true}}},
        {{"ExecStop=", "Type=simple"}, {{"AcceptStop", true}, {"AcceptPause", true}}},
        {{"Type=simple", "ExecStop="}, {{"AcceptStop", false}}},
        {{"Type=idle"}, {{"AcceptStop", true}, {"AcceptPause", false}}},
        {{"ActiveState=active"}, {{"State", "Running"}, {"Started", true}}},
        {{"ActiveState=activating"}, {{"State", "Stopped"}, {"Started", false}}},
        {{}, {{"State", ""}, {"StartMode", ""}, {"ExitCode", 0}, {"ProcessId", 0}, {"DisplayName", ""}}},
        {{"UnitFileState=enabled-runtime"}, {{"StartMode", "Manual"}}},
        {{"SuccessExitStatus=143", "MainPID=640", "MainPID"}, {{"ExitCode", 143}, {"ProcessId", 640}}},
        {{"SuccessExitStatus=0 SIGTERM"}, {{"ExitCode", 0}}},
        {{"WantedBy=graphical.target multi-user.target", "DesktopEntry=true"},
         {{"DelayedAutoStart", true}, {"DesktopInteract", true}}},
        {{"Description=a=b", "description=lower", "ExecStart=/a", "ExecStart=/b"},
         {{"Description", "a=b"}, {"PathName", "/b"}}},
    };
    for (const auto& c : cases) {
        ServiceInfo info;
        ServiceManager::applyProperties(c.lines, info);
        const QJsonObject record = info.toJson();
        EXPECT_EQ(record.size(), 16);
        for (auto it = c.expect.begin(); it != c.expect.end(); ++it)
            EXPECT_EQ(record.value(it.key()), it.value()) << qPrintable(c.lines.join('|') + ' ' + it.key());
    }
}

TEST(ServiceManagerTest, ShowBlocksSplitOnSingleEmptyLines)
{
    EXPECT_TRUE(ServiceManager::splitShowBlocks(QByteArray()).isEmpty());
    EXPECT_EQ(ServiceManager::splitShowBlocks("A=1\nB=2\n").size(), 1);
    EXPECT_EQ(ServiceManager::splitShowBlocks("A=1").size(), 1);
    const QList<QStringList> blocks = ServiceManager::splitShowBlocks("A=1\n\n\nB=2\n");
    ASSERT_EQ(blocks.size(), 3); // a unit that printed nothing still has its place
    EXPECT_EQ(blocks.at(0), QStringList{QStringLiteral("A=1")});
    EXPECT_TRUE(blocks.at(1).isEmpty());
    EXPECT_EQ(blocks.at(2), QStringList{QStringLiteral("B=2")});
}

TEST(ServiceManagerTest, NamesThatMustNotShareARun)
{
    EXPECT_TRUE(ServiceManager::isTemplateUnit(QStringLiteral("getty@.service")));
    EXPECT_FALSE(ServiceManager::isTemplateUnit(QStringLiteral("getty@tty1.service")));
    EXPECT_FALSE(ServiceManager::isTemplateUnit(QStringLiteral("@.service")));
    EXPECT_FALSE(ServiceManager::isTemplateUnit(QStringLiteral("a@.")));
    for (const char* ok : {"ssh.service", "UNIT FILE", "107 unit files listed.", "user-runtime-dir@1000.service"})
        EXPECT_TRUE(ServiceManager::canShareShowRun(QString::fromUtf8(ok))) << ok;
    for (const char* no : {"-x", "", "42", " 0x1f", "+7", "a*.service", "dev-[ab].mount", "/dev/sda"})
        EXPECT_FALSE(ServiceManager::canShareShowRun(QString::fromUtf8(no))) << no;
    EXPECT_FALSE(ServiceManager::canShareShowRun(QString(70, QLatin1Char(' '))));
    EXPECT_TRUE(ServiceManager::canShareShowRun(QString(70, QLatin1Char('a'))));
}

TEST(ServiceManagerTest, OneShowRunGivesWhatPerUnitRunsGive)
{
    ShowEmulator systemctl(QStringLiteral("commands/systemctl/list-small.stdout"));
    ServiceManager manager(systemctl.tools.runner());
    QJsonObject body;
    ASSERT_TRUE(manager.collectReport(body));
    EXPECT_EQ(body, QJsonDocument::fromJson(edrtest::readFixture(QStringLiteral("expected/services/small.json"))).object());

    // One "show" for every unit but the template, in list order, with the properties.
    const QStringList shared{QStringLiteral("UNIT FILE"),         QStringLiteral("cron.service"),
                             QStringLiteral("ssh.service"),       QStringLiteral("systemd-fsck-root.service"),
                             QStringLiteral("tomcat9.service"),   QStringLiteral("5 unit files listed.")};
    ASSERT_EQ(systemctl.showRuns().size(), 1);
    EXPECT_EQ(systemctl.showRuns().first(), ServiceManager::showArguments(shared));
    EXPECT_EQ(ServiceManager::showArguments({QStringLiteral("x")}).mid(2, 4),
              (QStringList{QStringLiteral("--property"), QStringLiteral("Description"), QStringLiteral("--property"),
                           QStringLiteral("ExecStart")}));

    const QStringList names =
        ServiceManager::parseUnitFileList(edrtest::readFixture(QStringLiteral("commands/systemctl/list-small.stdout")));
    EXPECT_EQ(body.value(QStringLiteral("Services")).toArray(), perUnitList(manager, names));
}

TEST(ServiceManagerTest, UnitThatStopsTheRunIsSkippedAndTheRestAskedAgain)
{
    ShowEmulator systemctl(QStringLiteral("commands/systemctl/list-small.stdout"));
    systemctl.forget(QStringLiteral("ssh.service"));
    ServiceManager manager(systemctl.tools.runner());
    QJsonObject body;
    ASSERT_TRUE(manager.collectReport(body));
    const QList<QStringList> runs = systemctl.showRuns();
    ASSERT_EQ(runs.size(), 2);
    EXPECT_EQ(runs.at(1).at(1), QStringLiteral("systemd-fsck-root.service"));
    const QStringList names =
        ServiceManager::parseUnitFileList(edrtest::readFixture(QStringLiteral("commands/systemctl/list-small.stdout")));
    const QJsonArray services = body.value(QStringLiteral("Services")).toArray();
    EXPECT_EQ(services, perUnitList(manager, names));
    EXPECT_EQ(services.at(3)[QStringLiteral("State")], QJsonValue(QString())); // ssh: nothing shown
    EXPECT_EQ(services.at(5)[QStringLiteral("State")], QJsonValue(QStringLiteral("Stopped")));
}

TEST(ServiceManagerTest, BrokenOrMissingSystemctl)
{
    // show fails for everything: names only, asked once.
    FakeToolDir failing;
    failing.addScript(QStringLiteral("systemctl"),
                      "[ \"$1\" = list-unit-files ] && printf 'a.service  enabled\\nb.service  disabled\\n'\nexit 1\n");
    ServiceManager broken(failing.runner());
    QJsonObject body;
    ASSERT_TRUE(broken.collectReport(body));
    const QJsonArray services = body.value(QStringLiteral("Services")).toArray();
    ASSERT_EQ(services.size(), 2);
    EXPECT_EQ(services.at(1)[QStringLiteral("Name")], QJsonValue(QStringLiteral("b.service")));
    EXPECT_EQ(services.at(1)[QStringLiteral("StartMode")], QJsonValue(QString()));
    EXPECT_EQ(failing.invocations(QStringLiteral("systemctl")).size(), 2);

    // Garbage: every line is a name, the properties are ignored lines.
    FakeToolDir garbage;
    garbage.addTool(QStringLiteral("systemctl"), QByteArray("\x01\x02  \xff\xfe\n=\n\n", 9));
    ServiceManager noisy(garbage.runner());
    QJsonObject noise;
    ASSERT_TRUE(noisy.collectReport(noise));
    EXPECT_EQ(noise.value(QStringLiteral("Services")).toArray().size(), 2);

    FakeToolDir missing;
    ServiceManager none(missing.runner());
    QJsonObject empty;
    EXPECT_FALSE(none.collectReport(empty));
    EXPECT_TRUE(empty.isEmpty());

    FakeToolDir hanging;
    hanging.addHangingTool(QStringLiteral("systemctl"));
    ServiceManager stuck(hanging.runner());
    stuck.setToolTimeoutMs(300);
    EXPECT_FALSE(stuck.collectReport(empty));
}

TEST(ServiceManagerTest, OrdersRunTheRightVerbAndPostTheResult)
{
    edrtest::ScratchPrefix prefix;
    edrtest::FakeHttpServer server;
    prefix.pointAtServer(server.port());
    const struct {
        QString order;
        int exitCode;
        QStringList expectedArgs; // empty = systemctl must not run
        int status;
        QJsonValue id;
    } cases[] = {
        {"1|ssh.service|id1", 0, {"start", "ssh.service"}, 0, "id1"},
        {"2|ssh.service|id2", 0, {"stop", "ssh.service"}, 0, "id2"},
        {"3|ssh.service|id3", 0, {"restart", "ssh.service"}, 0, "id3"},
        {"4|ssh.service|id4", 0, {"mask", "ssh.service"}, 0, "id4"},
        {"5|ssh.service|id5", 0, {"enable", "ssh.service"}, 0, "id5"},
        {"6|ssh.service|id6", 0, {"disable", "ssh.service"}, 0, "id6"},
        {"1|nosuch.service|id7", 5, {"start", "nosuch.service"}, 1, "id7"},
        {"7|ssh.service|id8", 0, {}, 1, "id8"},
        {"start|ssh.service|id9", 0, {}, 1, "id9"},
        {"1|--now|id10", 0, {}, 1, "id10"},
        {"2||id11", 0, {}, 1, "id11"},
        {"4|ssh.service", 0, {}, 1, QJsonValue(QJsonValue::Undefined)},
        {"", 0, {}, 1, QJsonValue(QJsonValue::Undefined)},
    };
    int posted = 0;
    for (const auto& c : cases) {
        FakeToolDir tools;
        tools.addTool(QStringLiteral("systemctl"), QByteArray(), c.exitCode);
        ServiceManager manager(tools.runner());
        EXPECT_TRUE(manager.executeSendReportToServer(c.order));
        ASSERT_TRUE(server.waitForRequests(++posted, 5000));
        const edrtest::RecordedRequest request = server.requests().last();
        EXPECT_EQ(request.target, QByteArray("/api/v1/settings/InvSettingsOutput"));
        const QJsonObject result = QJsonDocument::fromJson(request.body).object();
        EXPECT_EQ(result.value(QStringLiteral("status")), QJsonValue(c.status)) << qPrintable(c.order);
        EXPECT_EQ(result.value(QStringLiteral("message")),
                  QJsonValue(c.status == 0 ? QStringLiteral("Successfully Service %s Action Performed!")
                                           : QStringLiteral("Failed to Perform Service %s Action!")));
        EXPECT_EQ(result.value(QStringLiteral("_id")), c.id) << qPrintable(c.order);
        const QList<QStringList> runs = tools.invocations(QStringLiteral("systemctl"));
        if (c.expectedArgs.isEmpty())
            EXPECT_TRUE(runs.isEmpty()) << qPrintable(c.order);
        else
            EXPECT_EQ(runs, QList<QStringList>{c.expectedArgs}) << qPrintable(c.order);
    }
    EXPECT_TRUE(prefix.traceLog().contains("Successfully Service ssh.service Action Performed!"));
    EXPECT_TRUE(prefix.traceLog().contains("Successfully Send Service Action to server."));
}

TEST(ServiceManagerTest, ReportIsPostedToTheServicesRoute)
{
    edrtest::ScratchPrefix prefix;
    edrtest::FakeHttpServer server;
    prefix.pointAtServer(server.port());
    ShowEmulator systemctl(QStringLiteral("commands/systemctl/list-small.stdout"));
    ServiceManager manager(systemctl.tools.runner());
    EXPECT_TRUE(manager.sendRptToServer(QString()));
    ASSERT_EQ(server.requests().size(), 1);
    EXPECT_EQ(server.requests().first().target, QByteArray("/api/v1/machineInfo/addServicess"));
    EXPECT_EQ(QJsonDocument::fromJson(server.requests().first().body).object().value(QStringLiteral("Services")).toArray().size(), 7);

    FakeToolDir missing;
    ServiceManager none(missing.runner());
    EXPECT_FALSE(none.sendRptToServer(QString()));
    EXPECT_EQ(server.requests().size(), 1);
    EXPECT_TRUE(prefix.traceLog().contains("Failed to Services Info."));
}

TEST(ServiceManagerTest, RealSystemctlBatchEqualsPerUnit)
{
    if (QStandardPaths::findExecutable(QStringLiteral("systemctl")).isEmpty())
        GTEST_SKIP() << "no systemctl on this machine";
    ServiceManager manager;
    QJsonObject body;
    if (!manager.collectReport(body))
        GTEST_SKIP() << "systemctl lists no unit files here";
    const QJsonArray services = body.value(QStringLiteral("Services")).toArray();
    QStringList names;
    for (const QJsonValue& v : services)
        names << v[QStringLiteral("Name")].toString();
    EXPECT_EQ(services, perUnitList(manager, names));
}

} // namespace
