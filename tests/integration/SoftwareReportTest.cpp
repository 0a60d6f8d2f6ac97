// `edr-agent report software` with fake snap and flatpak first on its PATH.

#include "support/AgentProcess.h"
#include "support/TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace edrtest;

namespace {

QJsonArray softwareReport(const QString& fakeDir = QString())
{
    AgentProcess command;
    if (!fakeDir.isEmpty())
        command.prependPath(fakeDir);
    EXPECT_TRUE(command.start({QStringLiteral("report"), QStringLiteral("software")}));
    EXPECT_TRUE(command.waitForExit(60000));
    EXPECT_EQ(command.exitCode(), 0) << command.standardError().constData();
    return QJsonDocument::fromJson(command.standardOutput()).object().value(QStringLiteral("InstallSoft")).toArray();
}

} // namespace

TEST(SoftwareReport, SnapsAndFlatpaksFollowTheDpkgPackages)
{
    // Only tools without snap or flatpak of their own compare cleanly.
    if (!ToolRunner().findProgram("snap").isEmpty() || !ToolRunner().findProgram("flatpak").isEmpty())
        GTEST_SKIP() << "this host has snap or flatpak installed";
    const QJsonArray dpkg = softwareReport();
    ASSERT_FALSE(dpkg.isEmpty());

    FakeToolDir tools;
    tools.addToolFromFixture("snap", "commands/snap/desktop.stdout");
    tools.addToolFromFixture("flatpak", "commands/flatpak/desktop.stdout");
    const QJsonArray all = softwareReport(tools.path());
    ASSERT_EQ(all.size(), dpkg.size() + 16);
    QStringList added;
    for (int i = 0; i < all.size(); ++i) {
        if (i < dpkg.size())
            EXPECT_EQ(all.at(i), dpkg.at(i)) << i;
        else
            added << all.at(i)["PackageName"].toString() + '=' + all.at(i)["Version"].toString();
    }
    EXPECT_EQ(added, (QStringList{"bare=1.0", "core20=20240227", "core22=20240408", "firefox=125.0.2-1",
                                  "gnome-42-2204=0+git.510a601", "gtk-common-themes=0.1-81-g442e511", "snapd=2.62",
                                  "thunderbird=115.10.1esr-1", "code=e170252f", "hello-world=6.4",
                                  "org.mozilla.firefox=125.0.3", "org.libreoffice.LibreOffice=24.2.3.2",
                                  "org.gnome.Calculator=46.1", "com.github.tchx84.Flatseal=2.2.0",
                                  "fr.example.Ecrivain=", "net.example.Kotoba=1.0.2"}));
    EXPECT_EQ(all.at(all.size() - 1)["Name"].toString(), QString::fromUtf8("言葉"));

    // Hanging past the (scaled) limit and failing: the dpkg packages alone.
    FakeToolDir broken;
    broken.addHangingTool("snap");
    broken.addTool("flatpak", "", 1);
    EXPECT_EQ(softwareReport(broken.path()), dpkg);
}
