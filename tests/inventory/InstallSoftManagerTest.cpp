#include "inventory/InstallSoftManager.h"
#include "inventory/InventoryFixtures.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/time.h>

using edrtest::FakeToolDir;

namespace {

const QByteArray kStatus = "Package: foo\n"
                           "Status: install ok installed\n"
                           "Installed-Size: 1024\n"
                           "Architecture: amd64\n"
                           "Version: 1.2-3\n"
                           "Original-Maintainer: Jane Doe <jane@example.org>\n"
                           "Description: first: second: third\n"
                           " Continuation: ignored\n"
                           " .\n"
                           "\n"
                           "Package: gone\n"
                           "Status: deinstall ok config-files\n"
                           "Version: 0.1\n"
                           "\n\n\n"
                           "Package: bare\n"
                           "Status: install ok installed\n"
                           "\n"
                           "Package: libbar\n"
                           "Status: install ok installed\n"
                           "Architecture: i386\n"
                           "Multi-Arch: same\n"
                           "Installed-Size: lots\n"
                           "Version: 2\n"
                           "\n"
                           "Package: foo\n"
                           "Version: 9\n"
                           "Status: install ok installed"; // no final newline

TEST(InstallSoftManager, ParsesInstalledStanzasOnly)
{
    const QVector<InstallSoftManager::Package> packages = InstallSoftManager::parseDpkgStatus(kStatus);
    ASSERT_EQ(packages.size(), 4);
    EXPECT_EQ(packages.at(0).toJson(QStringLiteral("D")),
              QJsonDocument::fromJson(R"({"Name":"foo","PackageName":"foo","InstallDate":"D","Version":"1.2-3",
        "Size":"1 MB","Vendor":"Jane Doe <jane@example.org>","Description":"first"})").object());
    EXPECT_EQ(packages.at(0).architecture, QStringLiteral("amd64"));
    EXPECT_EQ(packages.at(1).toJson(),
              QJsonDocument::fromJson(R"({"Name":"bare","PackageName":"bare","InstallDate":""})").object());
    EXPECT_EQ(packages.at(2).size, QStringLiteral("0 Bytes"));
    EXPECT_EQ(packages.at(3).version, QStringLiteral("9")); // same name twice

    EXPECT_TRUE(InstallSoftManager::parseDpkgStatus("").isEmpty());
    EXPECT_TRUE(InstallSoftManager::parseDpkgStatus("Status: install ok installed\n").at(0).toJson().isEmpty());
    // A field name without ": " is the whole line; its value is empty.
    EXPECT_EQ(InstallSoftManager::parseDpkgStatus("Package\nStatus: install ok installed\n").at(0).toJson().value(
                  QStringLiteral("Name")),
              QJsonValue(QString()));
    // Sizes near the limit do not overflow.
    EXPECT_EQ(InstallSoftManager::parseDpkgStatus("Status: install ok installed\nInstalled-Size: 99999999999999999\n")
                  .at(0)
                  .size.right(3),
              QStringLiteral(" GB"));
}

void touchAt(const QString& path, const QDateTime& when)
{
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.close();
    const struct timeval times[2] = {{static_cast<time_t>(when.toSecsSinceEpoch()), 0},
                                     {static_cast<time_t>(when.toSecsSinceEpoch()), 0}};
    ASSERT_EQ(::utimes(QFile::encodeName(path).constData(), times), 0);
}

TEST(InstallSoftManager, InstallDateFromTheFileList)
{
    QTemporaryDir root;
    const QString info = root.path() + QStringLiteral("/var/lib/dpkg/info");
    ASSERT_TRUE(QDir().mkpath(info));
    QFile status(root.path() + QStringLiteral("/var/lib/dpkg/status"));
    ASSERT_TRUE(status.open(QIODevice::WriteOnly));
    status.write(kStatus);
    status.close();
    touchAt(info + QStringLiteral("/foo.list"), QDateTime(QDate(2023, 3, 4), QTime(12, 0)));
    touchAt(info + QStringLiteral("/libbar:i386.list"), QDateTime(QDate(2021, 12, 31), QTime(23, 30)));

    InstallSoftManager manager(HostPaths::fromFixtureRoot(root.path()));
    QJsonObject body;
    ASSERT_TRUE(manager.collectReport(body));
    EXPECT_EQ(body.keys(), QStringList{QStringLiteral("InstallSoft")});
    QStringList dates;
    for (const QJsonValue& v : body.value(QStringLiteral("InstallSoft")).toArray())
        dates << v.toObject().value(QStringLiteral("InstallDate")).toString();
    EXPECT_EQ(dates, (QStringList{QStringLiteral("20230304"), QString(), QStringLiteral("20211231"),
                                  QStringLiteral("20230304")}));
}

TEST(InstallSoftManager, NoDatabaseMeansNoReport)
{
    edrtest::ScratchPrefix prefix;
    InstallSoftManager manager(HostPaths::fromFixtureRoot(QStringLiteral("/nonexistent-edr-root")));
    QJsonObject body;
    EXPECT_FALSE(manager.getInstalledSoftwares(body));
    EXPECT_FALSE(body.contains(QStringLiteral("InstallSoft")));
    EXPECT_TRUE(prefix.traceLog().contains("Installed Software Not Found!"));
}

TEST(InstallSoftManager, CopiedHostDatabase)
{
    const QVector<InstallSoftManager::Package> packages = InstallSoftManager::parseDpkgStatus(
        edrtest::readFixture(QStringLiteral("roots/dpkg-host/var/lib/dpkg/status")));
    EXPECT_GT(packages.size(), 800);
    QHash<QString, QJsonObject> byName;
    int amd64 = 0;
    for (const auto& p : packages) {
        byName.insert(p.name, p.toJson());
        amd64 += p.architecture == QLatin1String("amd64") ? 1 : 0;
    }
    EXPECT_GT(amd64, 400);
    const QJsonObject bash = byName.value(QStringLiteral("bash"));
    EXPECT_EQ(bash.value(QStringLiteral("Version")).toString(), QStringLiteral("5.2.15-2+b8"));
    EXPECT_EQ(bash.value(QStringLiteral("Size")).toString(), QStringLiteral("6 MB")); // 7164 KiB
    EXPECT_EQ(bash.value(QStringLiteral("Description")).toString(), QStringLiteral("GNU Bourne Again SHell"));
}

// The report of this machine holds every package dpkg-query lists, with its version and a date.
TEST(InstallSoftManager, LiveMachineMatchesDpkgQuery)
{
    const ToolResult q = ToolRunner().run(QStringLiteral("dpkg-query"),
                                          {QStringLiteral("-W"), QStringLiteral("-f=${db:Status-Abbrev}\t${Package}\t${Version}\n")});
    if (!q.ok())
        GTEST_SKIP() << "dpkg-query not available";
    QJsonObject body;
    ASSERT_TRUE(InstallSoftManager().collectReport(body));
    QHash<QString, QJsonObject> report;
    for (const QJsonValue& v : body.value(QStringLiteral("InstallSoft")).toArray())
        report.insert(v.toObject().value(QStringLiteral("Name")).toString(), v.toObject());
    int checked = 0;
    for (const QByteArray& line : q.standardOutput.split('\n')) {
        const QList<QByteArray> f = line.split('\t');
        if (f.size() != 3 || f.at(0) != "ii ")
            continue;
        const QString name = QString::fromUtf8(f.at(1));
        ASSERT_TRUE(report.contains(name)) << qPrintable(name);
        EXPECT_EQ(report.value(name).value(QStringLiteral("Version")).toString(), QString::fromUtf8(f.at(2)));
        EXPECT_EQ(report.value(name).value(QStringLiteral("InstallDate")).toString().size(), 8) << qPrintable(name);
        ++checked;
    }
    EXPECT_GT(checked, 0);
}

TEST(InstallSoftManager, SendsToTheInstallSoftRoute)
{
    edrtest::FakeHttpServer server;
    edrtest::ScratchPrefix prefix;
    prefix.pointAtServer(server.port());
    QTemporaryDir root;
    ASSERT_TRUE(QDir().mkpath(root.path() + QStringLiteral("/var/lib/dpkg")));
    QFile status(root.path() + QStringLiteral("/var/lib/dpkg/status"));
    ASSERT_TRUE(status.open(QIODevice::WriteOnly));
    status.write(kStatus);
    status.close();

    InstallSoftManager manager(HostPaths::fromFixtureRoot(root.path()));
    EXPECT_TRUE(manager.sendRptToServer(QStringLiteral("ignored")));
    ASSERT_TRUE(server.waitForRequests(1, 5000));
    const edrtest::RecordedRequest r = server.requests().at(0);
    EXPECT_TRUE(r.target.endsWith("machineInfo/addInstallSoft")) << r.target.constData();
    const QJsonObject posted = QJsonDocument::fromJson(r.body).object();
    EXPECT_EQ(posted.keys(), QStringList{QStringLiteral("InstallSoft")});
    EXPECT_EQ(posted.value(QStringLiteral("InstallSoft")).toArray().size(), 4);
    EXPECT_TRUE(prefix.traceLog().contains("Successfully send Installed software to server."));
}

} // namespace
