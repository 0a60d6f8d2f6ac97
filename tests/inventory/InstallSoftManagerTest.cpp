#include "inventory/InstallSoftManager.h"
#include "inventory/InventoryFixtures.h"

#include <QDateTime>
#include <QSet>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <filesystem>

#include <sys/time.h>

namespace
{

// The desktop tree's dpkg database (no final newline) as reported, the file
// lists giving the dates; the same name twice gives two records.
const QByteArray kDpkgRecords = R"([
    {"Name":"foo","PackageName":"foo","InstallDate":"20230304","Version":"1.2-3","Size":"1 MB",
     "Vendor":"Jane Doe <jane@example.org>","Description":"first"},
    {"Name":"bare","PackageName":"bare","InstallDate":""},
    {"Name":"libbar","PackageName":"libbar","InstallDate":"20211231","Size":"0 Bytes"},
    {"Name":"foo","PackageName":"foo","InstallDate":"20230304","Version":"9"}])";

// Git keeps neither file sizes of hundreds of megabytes nor modification
// times, so the desktop tree's are set here; a size of -1 leaves the file as it is.
const struct {
    const char* path;
    qint64 size;
    QDate date;
} kStamps[] = {
    {"var/lib/dpkg/info/foo.list", -1, {2023, 3, 4}},
    {"var/lib/dpkg/info/libbar:i386.list", -1, {2021, 12, 31}},
    {"var/lib/snapd/snaps/bare_5.snap", 4096, {2023, 4, 18}},
    {"var/lib/snapd/snaps/core20_2264.snap", 67108864, {2024, 3, 1}},
    {"var/lib/snapd/snaps/core22_1380.snap", 77848576, {2024, 4, 12}},
    {"var/lib/snapd/snaps/firefox_4173.snap", 281018368, {2024, 5, 2}},
    {"var/lib/snapd/snaps/gnome-42-2204_176.snap", 531628032, {2024, 1, 25}},
    {"var/lib/snapd/snaps/gtk-common-themes_1535.snap", 95416320, {2023, 11, 9}},
    {"var/lib/snapd/snaps/snapd_21465.snap", 40509440, {2024, 4, 29}},
    {"var/lib/snapd/snaps/thunderbird_472.snap", 103215104, {2024, 4, 30}},
    {"var/lib/snapd/snaps/code_159.snap", 1610612736, {2024, 5, 10}},
    {"var/lib/flatpak/app/org.mozilla.firefox/current", -1, {2024, 5, 3}},
    {"var/lib/flatpak/app/org.libreoffice.LibreOffice/current", -1, {2024, 3, 28}},
    {"var/lib/flatpak/app/org.gnome.Calculator/current", -1, {2024, 3, 21}},
    {"var/lib/flatpak/app/com.github.tchx84.Flatseal/current", -1, {2023, 12, 31}},
    {"var/lib/flatpak/app/fr.example.Ecrivain/current", -1, {2024, 1, 1}},
};

// Indented text, so a mismatch shows as a diff.
std::string textOf(const QVariant& json)
{
    return QJsonDocument::fromVariant(json).toJson().toStdString();
}

} // namespace

TEST(InstallSoftManager, ParsesInstalledStanzasOnly)
{
    const std::pair<const char*, const char*> odd[] = {
        {"Status: install ok installed\n", "{}"},
        {"Package\nStatus: install ok installed\n", R"({"Name":"","PackageName":"","InstallDate":""})"},
        {"Status: install ok installed\nInstalled-Size: 99999999999999999\n", R"({"Size":"8589934591 GB"})"}};
    for (const auto& c : odd)
        EXPECT_EQ(InstallSoftManager::parseDpkgStatus(c.first).value(0).toJson(), invtest::jsonOf(c.second))
            << c.first;
    EXPECT_TRUE(InstallSoftManager::parseDpkgStatus("").isEmpty());

    // The third word alone decides: held and to-be-removed packages are still on the system.
    const std::pair<const char*, bool> statuses[] = {
        {"hold ok installed", true},          {"deinstall ok installed", true},
        {"purge ok installed", true},         {"install  ok  installed", true},
        {"install ok half-installed", false}, {"install ok unpacked", false},
        {"hold ok installed-ish", false},     {"installed", false}};
    for (const auto& c : statuses)
        EXPECT_EQ(InstallSoftManager::parseDpkgStatus(QByteArray("Package: p\nStatus: ") + c.first).size(),
                  c.second ? 1 : 0)
            << c.first;
}

// The dpkg packages dated by their file lists, multi-arch ones included, then
// the active snaps and the flatpaks with their file facts, on the report's
// route. A source that cannot be read (not installed, hanging, failing,
// printing garbage) leaves the report to the others, with a Debug line naming it.
TEST(InstallSoftManager, DpkgPackagesThenSnapsThenFlatpaksEachOnItsOwn)
{
    namespace fs = std::filesystem;
    QTemporaryDir root; // a writable copy of the desktop tree
    fs::copy(edrtest::fixturePath("roots/apps-desktop").toStdString(), root.path().toStdString(),
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    for (const auto& s : kStamps) {
        const QString file = root.path() + '/' + s.path;
        EXPECT_TRUE(s.size < 0 || QFile::resize(file, s.size)) << s.path;
        const time_t t = QDateTime(s.date, QTime(12, 0)).toSecsSinceEpoch();
        const struct timeval times[2] = {{t, 0}, {t, 0}};
        EXPECT_EQ(::utimes(QFile::encodeName(file).constData(), times), 0) << s.path;
    }
    const HostPaths host = HostPaths::fromFixtureRoot(root.path());
    auto listOf = [](const QByteArray& text) { return QJsonDocument::fromJson(text).toVariant().toList(); };
    const QVariantList dpkg = listOf(kDpkgRecords);
    const QVariantList desktop = listOf(edrtest::readFixture("expected/software/apps-desktop.json"));
    const QVariantList snaps = desktop.mid(0, 10),
                       flatpaks = desktop.mid(10); // its ten snaps, then its flatpaks
    using Setup = std::function<void(edrtest::FakeToolDir&, const QString&)>;
    const Setup good = [](edrtest::FakeToolDir& t, const QString& tool) {
        t.addToolFromFixture(tool, "commands/" + tool + "/desktop.stdout");
    };
    {
        edrtest::FakeToolDir tools;
        good(tools, "snap");
        good(tools, "flatpak");
        edrtest::ServerUnderTest peer;
        EXPECT_TRUE(InstallSoftManager(host, tools.runner()).sendRptToServer("ignored"));
        EXPECT_EQ(textOf(peer.posted("machineInfo/addInstallSoft").toVariantMap()),
                  textOf(QVariantMap{{"InstallSoft", dpkg + desktop}}));
        EXPECT_EQ(tools.invocations("snap"),
                  (QList<QStringList>{{"list", "--color=never", "--unicode=never"}}));
        EXPECT_EQ(
            tools.invocations("flatpak"),
            (QList<QStringList>{{"list", "--app", "--columns=application,version,size,name,description"}}));

        // No database: no report, and a line saying so.
        QJsonObject body;
        EXPECT_FALSE(
            InstallSoftManager(HostPaths::fromFixtureRoot("/nonexistent-edr-root"), ToolRunner(QStringList()))
                .getInstalledSoftwares(body));
        EXPECT_TRUE(body.isEmpty());
        EXPECT_TRUE(peer.logHas("Installed Software Not Found!"));
    }

    const Setup broken[] = {
        [](edrtest::FakeToolDir&, const QString&) {},
        [](edrtest::FakeToolDir& t, const QString& tool) { t.addHangingTool(tool); },
        [](edrtest::FakeToolDir& t, const QString& tool) {
            t.addToolFromFixture(tool, "commands/" + tool + "/desktop.stdout", 1);
        },
        [](edrtest::FakeToolDir& t, const QString& tool) {
            t.addTool(tool,
                      "error: cannot communicate with server\n\x01\xff\t\t\t\t\n<html>Name Version</html>\n");
        },
    };
    const edrtest::TimeScale scale(0.01); // a 300 ms limit instead of 30 s
    for (size_t m = 0; m < std::size(broken); ++m) {
        for (const bool snapBroken : {true, false}) {
            SCOPED_TRACE(testing::Message()
                         << "mode " << m << (snapBroken ? ", snap broken" : ", flatpak broken"));
            edrtest::ScratchPrefix prefix;
            edrtest::FakeToolDir tools;
            (snapBroken ? broken[m] : good)(tools, "snap");
            (snapBroken ? good : broken[m])(tools, "flatpak");
            QJsonObject body;
            EXPECT_TRUE(InstallSoftManager(host, tools.runner()).collectReport(body));
            EXPECT_EQ(textOf(body.toVariantMap()),
                      textOf(QVariantMap{{"InstallSoft", dpkg + (snapBroken ? flatpaks : snaps)}}));
            EXPECT_TRUE(
                prefix.traceLog().contains(snapBroken ? "no snaps reported" : "no flatpaks reported"));
        }
    }
}

// The report of this machine holds every package dpkg-query lists as
// installed, with its version and a date.
TEST(InstallSoftManager, LiveMachineMatchesDpkgQuery)
{
    const ToolResult q =
        ToolRunner().run("dpkg-query", {"-W", "-f=${db:Status-Abbrev}${Package} ${Version}\n"});
    ASSERT_TRUE(q.ok()) << qPrintable(q.errorText); // the agent is for Debian systems
    QSet<QString> missing;                          // "ii ", "hi ", "ri ": installed, whatever the wish
    for (const QString& line : QString::fromUtf8(q.standardOutput).split('\n'))
        if (line.size() > 3 && line[1] == 'i')
            missing << line.mid(3);
    ASSERT_FALSE(missing.isEmpty());
    QJsonObject body;
    ASSERT_TRUE(InstallSoftManager().collectReport(body));
    for (const QJsonValue& v : body.value("InstallSoft").toArray())
        if (v["InstallDate"].toString().size() == 8)
            missing.remove(v["Name"].toString() + ' ' + v["Version"].toString());
    EXPECT_EQ(missing.values(), QStringList());
}
