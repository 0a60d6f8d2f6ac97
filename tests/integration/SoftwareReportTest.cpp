// `edr-agent report software` with fake snap and flatpak first on its PATH.

#include "support/AgentProcess.h"
#include "support/TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace edrtest;

static QJsonArray softwareReport(const QString& fakeDir)
{
    AgentProcess command;
    command.prependPath(fakeDir);
    EXPECT_TRUE(command.start({QStringLiteral("report"), QStringLiteral("software")}));
    EXPECT_TRUE(command.waitForExit(60000));
    EXPECT_EQ(command.exitCode(), 0) << command.standardError().constData();
    return QJsonDocument::fromJson(command.standardOutput()).object().value(QStringLiteral("InstallSoft")).toArray();
}

TEST(SoftwareReport, SnapsAndFlatpaksFollowTheDpkgPackages)
{
    FakeToolDir none, tools, broken;
    none.addTool("snap", "", 1);
    none.addTool("flatpak", "", 1);
    const QJsonArray dpkg = softwareReport(none.path());
    ASSERT_FALSE(dpkg.isEmpty());

    tools.addToolFromFixture("snap", "commands/snap/desktop.stdout");
    tools.addToolFromFixture("flatpak", "commands/flatpak/desktop.stdout");
    const QJsonArray all = softwareReport(tools.path());
    const QJsonArray expected = QJsonDocument::fromJson(readFixture("expected/software/apps-desktop.json")).array();
    ASSERT_EQ(all.size(), dpkg.size() + expected.size());
    for (int i = 0; i < all.size(); ++i) {
        // This host has none of the fixture's snap files: compare what the tools said.
        const QJsonObject want = i < dpkg.size() ? dpkg.at(i).toObject() : expected.at(i - dpkg.size()).toObject();
        for (const char* key : {"Name", "PackageName", "Version"})
            EXPECT_EQ(all.at(i)[key], want[key]) << i << key;
    }

    // Hanging past the (scaled) limit and printing garbage: the dpkg packages alone.
    broken.addHangingTool("snap");
    broken.addTool("flatpak", "\x7f" "ELF\x02\x01\x01 not a listing\n");
    EXPECT_EQ(softwareReport(broken.path()), dpkg);
}
