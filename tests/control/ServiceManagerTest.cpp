#include "control/ServiceManager.h"

#include "control/ControlTestHelpers.h"

namespace
{

using edrtest::FakeToolDir;

const QString kSmallList = QStringLiteral("commands/systemctl/list-small.stdout");

// A systemctl whose "show" behaves like the real one: one block per unit it
// knows (the "### name" sections of a fixture; templates have none), an empty
// line between blocks, and a stop (exit 1) at the first unit it cannot show.
void addShowEmulator(FakeToolDir& tools)
{
    tools.addScript("systemctl", "list='" + edrtest::fixturePath(kSmallList).toUtf8() + "'\nunits='" +
                                     edrtest::fixturePath("commands/systemctl/show-units.txt").toUtf8() + R"('
case "$1" in
list-unit-files) cat "$list" ;;
show) shift; first=1
  for a in "$@"; do
    [ "$a" = --property ] && break
    grep -qxF "### $a" "$units" && ! grep -qxF "$a" "$(dirname "$0")/forgotten" 2>/dev/null || exit 1
    [ $first = 1 ] || echo
    first=0
    awk -v h="### $a" '$0 == h { p = 1; next } /^### / { p = 0 } p && NF' "$units"
  done ;;
*) exit 1 ;;
esac
)");
}

// The list the way one "show" per unit builds it, from the names of a report.
QJsonArray perUnitList(ServiceManager& manager, const QJsonArray& report)
{
    QJsonArray list;
    for (const QJsonValue& record : report) {
        ServiceInfo info;
        info.setName(record["Name"].toString());
        info.setStartName(info.getName());
        info.setStatus(QStringLiteral("OK"));
        manager.getServiceInfo(info.getName(), info);
        list.append(info.toJson());
    }
    return list;
}

TEST(ServiceManagerTest, PureHelpers)
{
    EXPECT_EQ(ServiceManager::parseUnitFileList("  leading.service  x\nsolo\n\n"),
              QStringList{QStringLiteral("solo")});
    // A unit that printed nothing still has its place.
    EXPECT_EQ(ServiceManager::splitShowBlocks("A=1\n\n\nB=2\n"), QList<QStringList>({{"A=1"}, {}, {"B=2"}}));
    EXPECT_FALSE(ServiceManager::isTemplateUnit(QStringLiteral("getty@tty1.service")));
    // Names that would change what a shared "show" prints: options, job ids, globs, paths, overlong.
    // Long "name state" lines are shared while their escaped form (\xNN per odd byte, ".service") fits 255
    // bytes.
    const QString a200(200, QLatin1Char('a'));
    for (const QString& ok : {QString("user-runtime-dir@1000.service"),
                              QString("dbus-org.freedesktop.timesync1.service masked-runtime enabled"),
                              a200 + QString(11, ' '), QString(247, 'b')})
        EXPECT_TRUE(ServiceManager::canShareShowRun(ok)) << qPrintable(ok);
    for (const QString& no : {QString("-x"), QString(), QString("42"), QString(" 0x1f"), QString("+7"),
                              QString("a*.service"), QString("dev-[ab].mount"), QString("/dev/sda"),
                              a200 + QString(12, ' '), QString(248, 'b'), QString(70, ' ')})
        EXPECT_FALSE(ServiceManager::canShareShowRun(no)) << qPrintable(no);
}

TEST(ServiceManagerTest, OrdersNameUnitsOnly)
{
    const QString longest = QString(247, 'u') + ".service";
    for (const QString& ok :
         {QString("ssh.service"), QString("getty@tty1.service"), QString("foo@.service"),
          QString("systemd-fsck@dev-disk-by\\x2duuid-1a2b.service"), QString("a@b@c.timer"),
          QString("run-user-1000.mount"), QString("x.automount"), QString("dbus.socket"),
          QString("A:b_c.d.swap"), QString("user.slice"), QString("session-4.scope"),
          QString("multi-user.target"), QString("p.path"), QString("dev-sda.device"), longest})
        EXPECT_TRUE(ServiceManager::isUnitName(ok)) << qPrintable(ok);
    for (const QString& no :
         {QString(), QString("ssh"), QString(".service"), QString("@x.service"), QString("-.mount"),
          QString("ssh.Service"), QString("ssh.service."), QString("ssh.snapshot"), QString("a/b.service"),
          QString("a b.service"), QString("a*.service"), QString("a?.service"), QString("a[1].service"),
          QString("caf\u00e9.service"), QString("a\tb.service"), QString("a%b.service"),
          QString("a~.service"), QString("x") + longest})
        EXPECT_FALSE(ServiceManager::isUnitName(no)) << qPrintable(no);
}

TEST(ServiceManagerTest, PropertiesFollowTheirRules)
{
    const QPair<QStringList, QJsonObject> cases[] = {
        // what the batched test's captured units do not show
        // Whichever of Type and ExecStop comes later sets AcceptStop.
        {{"Type=oneshot", "ExecStop={ path=/bin/true }"}, {{"AcceptStop", true}}},
        {{"Type=simple", "ExecStop="}, {{"AcceptStop", false}, {"AcceptPause", true}}},
        {{"ExecStop=", "Type=idle"}, {{"AcceptStop", true}, {"AcceptPause", false}}},
        {{"ActiveState=activating", "UnitFileState=enabled-runtime"},
         {{"State", "Stopped"}, {"StartMode", "Manual"}}},
        {{"SuccessExitStatus=0 SIGTERM", "MainPID", "DesktopEntry=true"},
         {{"ExitCode", 0}, {"DesktopInteract", true}}},
        {{"Description=a=b", "description=lower", "ExecStart=/a", "ExecStart=/b"},
         {{"Description", "a=b"}, {"PathName", "/b"}}},
    };
    for (const auto& c : cases) {
        ServiceInfo info;
        ServiceManager::applyProperties(c.first, info);
        const QJsonObject record = info.toJson();
        for (auto it = c.second.begin(); it != c.second.end(); ++it)
            EXPECT_EQ(record.value(it.key()), it.value()) << qPrintable(c.first.join('|') + ' ' + it.key());
    }
}

TEST(ServiceManagerTest, OneShowRunGivesWhatPerUnitRunsGive)
{
    edrtest::ServerUnderTest peer;
    FakeToolDir tools;
    addShowEmulator(tools);
    ServiceManager manager(tools.runner());
    EXPECT_TRUE(manager.sendRptToServer(QString()));
    const QJsonObject posted = peer.posted("machineInfo/addServicess");
    EXPECT_EQ(posted, edrtest::jsonFixture(QStringLiteral("expected/services/small.json")));
    const QJsonArray services = posted.value("Services").toArray();
    // One "show" for every unit but the template, in list order, with the properties.
    EXPECT_EQ(tools.invocations("systemctl").value(1).join('|'),
              "show|UNIT FILE|cron.service|ssh.service|systemd-fsck-root.service|tomcat9.service|5 unit "
              "files listed."
              "|--property|Description|--property|ExecStart|--property|Type|--property|ActiveState|--"
              "property|MainPID"
              "|--property|ExecStop|--property|WantedBy|--property|DesktopEntry|--property|SuccessExitStatus"
              "|--property|UnitFileState");
    EXPECT_EQ(tools.invocations("systemctl").size(), 2);

    // Two units in a row that stop the shared run are left empty; the run
    // starting at the second fails at once, and the units after it still count.
    edrtest::writeTestFile(tools.path() + "/forgotten", "ssh.service\nsystemd-fsck-root.service\n");
    const int before = tools.invocations("systemctl").size();
    QJsonObject body;
    ASSERT_TRUE(manager.collectReport(body));
    EXPECT_EQ(tools.invocations("systemctl").size(), before + 4);
    // What each unit shows on its own: nothing for the two, tomcat9's state as before.
    const QJsonArray again = body.value(QStringLiteral("Services")).toArray();
    EXPECT_EQ(again, perUnitList(manager, again));
    EXPECT_TRUE(again.at(4)["State"] == "" && again.at(5)["State"] == services.at(5)["State"]);
}

TEST(ServiceManagerTest, BrokenOrMissingSystemctl)
{
    const struct {
        QByteArray script;
        int names;
        int runs;
    } cases[] = {
        // show fails for everything: the names only, each unit asked once.
        {"[ \"$1\" = list-unit-files ] && printf 'a.service  enabled\\nb.service  disabled\\n'\nexit 1", 2,
         3},
        // Garbage: every line is a name, the properties are ignored lines.
        {"printf '\\001\\002  \\377\\376\\n=\\n\\n'", 2, 2},
        {"exec sleep 600", 0, 1},
        {QByteArray(), 0, 0}, // not installed
    };
    for (const auto& c : cases) {
        edrtest::ServerUnderTest peer;
        FakeToolDir tools;
        if (!c.script.isNull())
            tools.addScript(QStringLiteral("systemctl"), c.script);
        ServiceManager manager(tools.runner());
        manager.setToolTimeoutMs(300);
        EXPECT_EQ(manager.sendRptToServer(QString()), c.names > 0) << c.script.constData();
        const QJsonArray services =
            c.names > 0 ? peer.posted("machineInfo/addServicess").value("Services").toArray() : QJsonArray();
        EXPECT_EQ(services.size(), c.names);
        EXPECT_EQ(tools.invocations(QStringLiteral("systemctl")).size(), c.runs);
        EXPECT_EQ(services, perUnitList(manager, services));
        EXPECT_EQ(peer.server.requests().isEmpty() && peer.logHas("Failed to Services Info."), c.names == 0);
    }
}

TEST(ServiceManagerTest, OrdersRunTheRightVerbAndPostTheResult)
{
    edrtest::ServerUnderTest peer;
    FakeToolDir tools;
    tools.addScript(QStringLiteral("systemctl"), "[ \"$2\" = nosuch.service ] && exit 5\nexit 0\n");
    ServiceManager manager(tools.runner());
    const QPair<QString, QString> cases[] = {
        // order, then systemctl's arguments (none: it must not run)
        {"1|ssh.service|id1", "start ssh.service"},
        {"2|ssh.service|id2", "stop ssh.service"},
        {"3|ssh.service|id3", "restart ssh.service"},
        {"4|ssh.service|id4", "mask ssh.service"},
        {"5|ssh.service|id5", "enable ssh.service"},
        {"6|ssh.service|id6", "disable ssh.service"},
        {"1|nosuch.service|id7", "start nosuch.service"},
        {"7|ssh.service|id8", ""},
        {"start|ssh.service|id9", ""},
        {"1|--now|id10", ""},
        {"2||id11", ""},
        {"4|ssh.service", ""},
        {"", ""},
        {"2|*|id12", ""},
        {"3|ssh?.service|id13", ""},
        {"6|dev-[ab].mount|id14", ""}, // patterns match every unit
        // Only unit names: a path would be linked in and run as root.
        {"5|/dev/shm/evil.service|e1", ""},
        {"5|../../dev/shm/evil.service|e2", ""},
        {"1|ssh|e3", ""}, // systemctl would guess the type; an order says it
        {"1|ssh.service |e4", ""},
        {"1|ssh.service\n|e5", ""},
        {"5|getty@tty1.service|e6", "enable getty@tty1.service"},
        {"4|dev-sda1.device|e7", "mask dev-sda1.device"},
    };
    int posted = 0;
    for (const auto& c : cases) {
        const int runs = tools.invocations(QStringLiteral("systemctl")).size();
        EXPECT_TRUE(manager.executeSendReportToServer(c.first));
        const bool done = !c.second.isEmpty() && !c.second.contains("nosuch");
        QJsonObject expected{{"status", done ? 0 : 1},
                             {"message", done ? "Successfully Service %s Action Performed!"
                                              : "Failed to Perform Service %s Action!"}};
        if (c.first.count('|') == 2) // only an order with a request id gets "_id"
            expected.insert("_id", c.first.section('|', 2));
        EXPECT_EQ(peer.posted("settings/InvSettingsOutput", ++posted), expected) << qPrintable(c.first);
        EXPECT_EQ(tools.invocations(QStringLiteral("systemctl")).mid(runs),
                  c.second.isEmpty() ? QList<QStringList>() : QList<QStringList>{c.second.split(' ')})
            << qPrintable(c.first);
    }
}

} // namespace
