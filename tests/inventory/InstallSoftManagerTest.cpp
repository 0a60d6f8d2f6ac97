#include "inventory/InstallSoftManager.h"
#include "inventory/InventoryFixtures.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>

#include <sys/time.h>

namespace {

using invtest::jsonOf;

const QByteArray kStatus = "Package: foo\nStatus: install ok installed\nInstalled-Size: 1024\nArchitecture: amd64\n"
                           "Version: 1.2-3\nOriginal-Maintainer: Jane Doe <jane@example.org>\n"
                           "Description: first: second: third\n Continuation: ignored\n\n"
                           "Package: gone\nStatus: deinstall ok config-files\n\n\n\n"
                           "Package: bare\nStatus: install ok installed\n\n"
                           "Package: libbar\nStatus: install ok installed\nArchitecture: i386\nMulti-Arch: same\n"
                           "Installed-Size: lots\n\n"
                           "Package: foo\nVersion: 9\nStatus: install ok installed"; // no final newline

TEST(InstallSoftManager, ParsesInstalledStanzasOnly)
{
    const QVector<InstallSoftManager::Package> packages = InstallSoftManager::parseDpkgStatus(kStatus);
    ASSERT_EQ(packages.size(), 4);
    EXPECT_EQ(packages[0].toJson("D"), jsonOf(R"({"Name":"foo","PackageName":"foo","InstallDate":"D","Version":"1.2-3",
        "Size":"1 MB","Vendor":"Jane Doe <jane@example.org>","Description":"first"})"));
    EXPECT_EQ(packages[1].toJson(), jsonOf(R"({"Name":"bare","PackageName":"bare","InstallDate":""})"));
    EXPECT_EQ(packages[2].toJson(), jsonOf(R"({"Name":"libbar","PackageName":"libbar","InstallDate":"","Size":"0 Bytes"})"));
    EXPECT_EQ(packages[3].version, "9"); // the same name twice gives two objects

    const std::pair<const char*, const char*> odd[] = {
        {"Status: install ok installed\n", "{}"},
        {"Package\nStatus: install ok installed\n", R"({"Name":"","PackageName":"","InstallDate":""})"},
        {"Status: install ok installed\nInstalled-Size: 99999999999999999\n", R"({"Size":"8589934591 GB"})"}};
    for (const auto& c : odd)
        EXPECT_EQ(InstallSoftManager::parseDpkgStatus(c.first).value(0).toJson(), jsonOf(c.second)) << c.first;
    EXPECT_TRUE(InstallSoftManager::parseDpkgStatus("").isEmpty());

    // The third word alone decides: held and to-be-removed packages are still on the system.
    const std::pair<const char*, bool> statuses[] = {
        {"hold ok installed", true},          {"deinstall ok installed", true}, {"purge ok installed", true},
        {"install  ok  installed", true},     {"install ok half-installed", false},
        {"install ok unpacked", false},       {"hold ok installed-ish", false}, {"installed", false}};
    for (const auto& c : statuses)
        EXPECT_EQ(InstallSoftManager::parseDpkgStatus(QByteArray("Package: p\nStatus: ") + c.first).size(), c.second ? 1 : 0)
            << c.first;
}

// Dates come from the file lists, multi-arch ones included; the report goes to its route.
TEST(InstallSoftManager, ReportDatesPackagesByTheirFileList)
{
    QTemporaryDir root;
    const QString info = root.path() + "/var/lib/dpkg/info/";
    ASSERT_TRUE(QDir().mkpath(info));
    QFile status(root.path() + "/var/lib/dpkg/status");
    ASSERT_TRUE(status.open(QIODevice::WriteOnly) && status.write(kStatus) == kStatus.size());
    status.close();
    for (const auto& list : {std::make_pair("foo.list", QDateTime(QDate(2023, 3, 4), QTime(12, 0))),
                             std::make_pair("libbar:i386.list", QDateTime(QDate(2021, 12, 31), QTime(23, 30)))}) {
        QFile f(info + list.first);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.close();
        const struct timeval times[2] = {{time_t(list.second.toSecsSinceEpoch()), 0}, {time_t(list.second.toSecsSinceEpoch()), 0}};
        ASSERT_EQ(::utimes(QFile::encodeName(f.fileName()).constData(), times), 0);
    }

    edrtest::ServerUnderTest peer;
    EXPECT_TRUE(InstallSoftManager(HostPaths::fromFixtureRoot(root.path()), ToolRunner(QStringList())).sendRptToServer("ignored"));
    const QJsonObject posted = peer.posted("machineInfo/addInstallSoft");
    EXPECT_EQ(posted.keys(), QStringList{"InstallSoft"});
    QStringList dates;
    for (const QJsonValue& v : posted.value("InstallSoft").toArray())
        dates << v["InstallDate"].toString();
    EXPECT_EQ(dates, (QStringList{"20230304", "", "20211231", "20230304"}));
    EXPECT_TRUE(peer.logHas("Successfully send Installed software to server."));

    // No database: no report, and a line saying so.
    QJsonObject body;
    EXPECT_FALSE(InstallSoftManager(HostPaths::fromFixtureRoot("/nonexistent-edr-root"), ToolRunner(QStringList()))
                     .getInstalledSoftwares(body));
    EXPECT_TRUE(body.isEmpty());
    EXPECT_TRUE(peer.logHas("Installed Software Not Found!"));
}

TEST(InstallSoftManager, CopiedHostDatabase)
{
    const QVector<InstallSoftManager::Package> packages =
        InstallSoftManager::parseDpkgStatus(edrtest::readFixture("roots/dpkg-host/var/lib/dpkg/status"));
    EXPECT_GT(packages.size(), 800);
    const auto bash = std::find_if(packages.begin(), packages.end(), [](const auto& p) { return p.name == "bash"; });
    ASSERT_TRUE(bash != packages.end());
    EXPECT_EQ(bash->toJson(), jsonOf(R"({"Name":"bash","PackageName":"bash","InstallDate":"",
                "Version":"5.2.15-2+b8","Size":"6 MB","Description":"GNU Bourne Again SHell"})"));
}

// The report of this machine holds every package dpkg-query lists, with its version and a date.
TEST(InstallSoftManager, LiveMachineMatchesDpkgQuery)
{
    const ToolResult q = ToolRunner().run("dpkg-query", {"-W", "-f=${db:Status-Abbrev}\t${Package}\t${Version}\n"});
    if (!q.ok())
        GTEST_SKIP() << "dpkg-query not available";
    QJsonObject body;
    ASSERT_TRUE(InstallSoftManager().collectReport(body));
    QHash<QString, QJsonObject> report;
    for (const QJsonValue& v : body.value("InstallSoft").toArray())
        report.insert(v["Name"].toString(), v.toObject());
    int checked = 0;
    for (const QByteArray& line : q.standardOutput.split('\n')) {
        const QList<QByteArray> f = line.split('\t');
        if (f.size() != 3 || f[0].size() != 3 || f[0][1] != 'i') // status "installed", whatever the wish
            continue;
        ASSERT_TRUE(report.contains(f[1])) << f[1].constData();
        EXPECT_EQ(report.value(f[1]).value("Version").toString(), f[2]);
        EXPECT_EQ(report.value(f[1]).value("InstallDate").toString().size(), 8) << f[1].constData();
        ++checked;
    }
    EXPECT_GT(checked, 0);
}

} // namespace
