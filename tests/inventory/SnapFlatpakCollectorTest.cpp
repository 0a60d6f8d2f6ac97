#include "inventory/InstallSoftManager.h"
#include "support/TestSupport.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <filesystem>

#include <sys/time.h>

namespace {

// The apps-desktop tree as a host would have it: git keeps neither file sizes
// of hundreds of megabytes nor modification times, so they are set here.
struct Stamp {
    const char* path;
    qint64 size; // -1: leave as it is
    QDate date;
};
const Stamp kStamps[] = {
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

const QByteArray kStatus = "Package: bash\nStatus: install ok installed\nVersion: 5.2.15-2+b8\nInstalled-Size: 7000\n"
                           "Description: GNU Bourne Again SHell\n\n"
                           "Package: zsh\nStatus: install ok installed\nVersion: 5.9-4+b5\n";

// A writable copy of the apps-desktop tree with its sizes and dates, plus a
// small dpkg database.
struct DesktopRoot {
    DesktopRoot()
    {
        namespace fs = std::filesystem;
        fs::copy(edrtest::fixturePath("roots/apps-desktop").toStdString(), dir.path().toStdString(),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        for (const Stamp& s : kStamps) {
            const QString file = dir.path() + QLatin1Char('/') + QLatin1String(s.path);
            if (s.size >= 0) {
                EXPECT_TRUE(QFile(file).resize(s.size)) << s.path;
            }
            const time_t t = time_t(QDateTime(s.date, QTime(12, 0)).toSecsSinceEpoch());
            const struct timeval times[2] = {{t, 0}, {t, 0}};
            EXPECT_EQ(::utimes(QFile::encodeName(file).constData(), times), 0) << s.path;
        }
        EXPECT_TRUE(QDir().mkpath(dir.path() + "/var/lib/dpkg"));
        QFile status(dir.path() + "/var/lib/dpkg/status");
        EXPECT_TRUE(status.open(QIODevice::WriteOnly) && status.write(kStatus) == kStatus.size());
    }
    HostPaths host() const { return HostPaths::fromFixtureRoot(dir.path()); }
    QTemporaryDir dir;
};

QJsonArray joined(QJsonArray a, const QJsonArray& b)
{
    for (const QJsonValue& v : b)
        a.append(v);
    return a;
}

// Indented text, so a mismatch shows which record differs.
QString textOf(const QJsonArray& a)
{
    return QString::fromUtf8(QJsonDocument(a).toJson());
}

QJsonArray expectedDesktop()
{
    return QJsonDocument::fromJson(edrtest::readFixture("expected/software/apps-desktop.json")).array();
}

QJsonArray softwareOf(const HostPaths& host, const ToolRunner& runner)
{
    QJsonObject body;
    EXPECT_TRUE(InstallSoftManager(host, runner).collectReport(body));
    return body.value("InstallSoft").toArray();
}

TEST(SnapFlatpakCollector, ActiveSnapsThenFlatpaksWithTheirFileFacts)
{
    DesktopRoot root;
    edrtest::FakeToolDir tools;
    tools.addToolFromFixture("snap", "commands/snap/desktop.stdout");
    tools.addToolFromFixture("flatpak", "commands/flatpak/desktop.stdout");
    // After the dpkg records, which stay as they were.
    const QJsonArray dpkgOnly = softwareOf(root.host(), ToolRunner(QStringList()));
    ASSERT_EQ(dpkgOnly.size(), 2);
    EXPECT_EQ(textOf(softwareOf(root.host(), tools.runner())), textOf(joined(dpkgOnly, expectedDesktop())));
    EXPECT_EQ(tools.invocations("snap"), (QList<QStringList>{{"list", "--color=never", "--unicode=never"}}));
    EXPECT_EQ(tools.invocations("flatpak"),
              (QList<QStringList>{{"list", "--app", "--columns=application,version,size,name,description"}}));
    // Same keys as a dpkg record that has a version, size and description.
    EXPECT_EQ(dpkgOnly.at(0).toObject().keys(), expectedDesktop().at(0).toObject().keys());
}

// A source that cannot be read leaves the report to the others, with one
// Debug line naming it, and never fails or stalls the report.
TEST(SnapFlatpakCollector, BrokenToolsLeaveTheOtherRecords)
{
    DesktopRoot root;
    const QJsonArray dpkgOnly = softwareOf(root.host(), ToolRunner(QStringList()));
    const QJsonArray flatpaks = QJsonArray::fromVariantList(expectedDesktop().toVariantList().mid(10));

    const std::function<void(edrtest::FakeToolDir&, const QString&)> modes[] = {
        [](edrtest::FakeToolDir&, const QString&) {}, // not installed
        [](edrtest::FakeToolDir& t, const QString& tool) { t.addHangingTool(tool); },
        [](edrtest::FakeToolDir& t, const QString& tool) {
            t.addToolFromFixture(tool, "commands/" + tool + "/desktop.stdout", 1);
        },
        [](edrtest::FakeToolDir& t, const QString& tool) {
            t.addTool(tool, "error: cannot communicate with server\n\x01\xff\t\t\t\t\n<html>Name Version</html>\n");
        },
    };
    const edrtest::TimeScale scale(0.01); // a 300 ms limit instead of 30 s
    for (size_t m = 0; m < std::size(modes); ++m) {
        SCOPED_TRACE(m);
        edrtest::ScratchPrefix prefix;
        {
            edrtest::FakeToolDir tools;
            modes[m](tools, "snap");
            modes[m](tools, "flatpak");
            EXPECT_EQ(textOf(softwareOf(root.host(), tools.runner())), textOf(dpkgOnly));
            const QByteArray log = prefix.traceLog();
            EXPECT_TRUE(log.contains("no snaps reported")) << log.constData();
            EXPECT_TRUE(log.contains("no flatpaks reported")) << log.constData();
        }
        edrtest::FakeToolDir tools;
        modes[m](tools, "snap");
        tools.addToolFromFixture("flatpak", "commands/flatpak/desktop.stdout");
        EXPECT_EQ(textOf(softwareOf(root.host(), tools.runner())), textOf(joined(dpkgOnly, flatpaks)));
    }
}

} // namespace
