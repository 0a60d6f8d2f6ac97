#include "inventory/FlatpakList.h"
#include "inventory/SnapList.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

// Cells found by the header's columns: wide tables, order, blank cells, rows
// that do not line up, names that could leave a folder, disabled revisions.
TEST(SnapList, ColumnsComeFromTheHeader)
{
    const struct {
        QByteArray table;
        QStringList rows;
        int skipped;
    } cases[] = {
        {edrtest::readFixture("commands/snap/long-names.stdout"),
         {"bare|1.0|5", "core22|20240408|1380", "intellij-idea-community|2024.1.1|505",
          "my-private-tool-with-a-very-long-snap-name||x3", "lxd|5.21.1-2d13beb|28373",
          "hello-world_work|6.4|29", "signal-desktop|7.8.0|655", "microk8s|v1.29.4|6809",
          "chromium|124.0.6367.201|2842"},
         0},
        {"Rev  Notes     Name   Version\n"
         "12   disabled  old    1\n"
         "13   -         new    2\n",
         {"new|2|13"},
         0},
        {"Name   Version  Rev  Tracking  Publisher  Notes\n"
         "empty           7                         \n"
         "more   1.0      8                         classic,disabled\n",
         {"empty||7"},
         0},
        {"Name   Version  Rev  Notes\n"
         "a b c d e\n"
         "../x   1        3    -\n"
         "ok     1        x9   -\n"
         "bad    1        9a   -\n",
         {"ok|1|x9"},
         3},
        {"\n\nName  Version  Rev\r\nhello  2.10  42\r\n", {"hello|2.10|42"}, 0},
        {"", {}, 0},
    };
    for (const auto& c : cases) {
        int skipped = -1;
        const auto snaps = SnapList::parse(c.table, &skipped);
        ASSERT_TRUE(snaps.has_value()) << c.table.constData();
        QStringList rows;
        for (const SnapList::Snap& s : *snaps)
            rows << s.name + '|' + s.version + '|' + s.revision;
        EXPECT_EQ(rows, c.rows) << c.table.constData();
        EXPECT_EQ(skipped, c.skipped) << c.table.constData();
    }
    for (const char* garbage : {"error: cannot communicate with server: connection refused\n",
                                "Name  Version\nfoo   1\n", "\xff\xfe"})
        EXPECT_FALSE(SnapList::parse(QByteArray(garbage)).has_value()) << garbage;
}

// Beyond the styles of the fixture tree's snap.yaml files.
TEST(SnapList, SummaryOfSnapYaml)
{
    const std::pair<const char*, const char*> cases[] = {
        {"summary: |\n  first\n  second\nversion: 1\n", "first\nsecond"},
        {"summary:\n", ""},
        {"summary: \"unterminated \\", "unterminated \\"},
        {"name: none\n", ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(SnapList::summaryOf(c.first), QString::fromUtf8(c.second)) << c.first;
}

TEST(FlatpakList, SizesAsFlatpakPrintsThem)
{
    const std::pair<const char*, long long> sizes[] = {
        {"1.2 GB", 1200000000}, {"8.2\xc2\xa0kB", 8200},   {"512 bytes", 512},
        {"3,4 MB", 3400000},    {"2.0 GiB", 2147483648LL}, {"1.5\xe2\x80\xafMB", 1500000},
        {"1.5?MB", 1500000},    {"7 TB", 7000000000000LL},
    };
    for (const auto& s : sizes)
        EXPECT_EQ(FlatpakList::bytesOf(QString::fromUtf8(s.first)), std::optional<long long>(s.second))
            << s.first;
    for (const char* bad : {"", "GB", "12 parsecs", "1.2 G B", "99999999 EB",
                            "1 \xc3\xa9"
                            "B",
                            "1 . . . MB"})
        EXPECT_FALSE(FlatpakList::bytesOf(QString::fromUtf8(bad)).has_value()) << bad;
}

TEST(FlatpakList, ApplicationLines)
{
    int skipped = -1;
    QStringList rows;
    const auto apps =
        FlatpakList::parse(edrtest::readFixture("commands/flatpak/long-names.stdout"), &skipped);
    for (const FlatpakList::App& a : apps.value_or(QVector<FlatpakList::App>()))
        rows << QStringList{a.id, a.version, a.size, a.name}.join('|');
    EXPECT_EQ(
        rows,
        (QStringList{
            "io.github.an_unusually_long_organisation_name.AnEvenLongerApplicationNameForTesting|"
            "0.9.1-beta+build.2024.05.18|8 KB|An Even Longer Application Name For Testing Column Widths",
            "org.example.Tiny|1|512 Bytes|Tiny", "org.example.Comma|2.0|3 MB|Comma",
            "org.freedesktop.Platform.Sdk.Extension.Example||953 MB|Example SDK Extension",
            "org.gnome.Boxes|46.1|10 MB|Boxes"}));
    EXPECT_EQ(skipped, 0);

    const QByteArray mixed = "Application ID\tVersion\tSize\tName\tDescription\n"
                             "org.example.Good\t1\t?\tGood\tdesc\twith a tab\r\n"
                             "org.example.Short\t1\t2 MB\n"
                             "../../etc\t1\t2 MB\tEvil\t\n"
                             "org.example/evil\t1\t2 MB\tEvil\t\n"
                             "org..empty\t1\t2 MB\tEvil\t\n";
    const QVector<FlatpakList::App> some =
        FlatpakList::parse(mixed, &skipped).value_or(QVector<FlatpakList::App>());
    ASSERT_EQ(some.size(), 1);
    EXPECT_EQ(QStringList({some[0].id, some[0].size, some[0].description}).join('|'),
              "org.example.Good||desc\twith a tab");
    EXPECT_EQ(skipped, 4);
    EXPECT_FALSE(FlatpakList::parse("error: unknown option\nUsage: flatpak list\n").has_value());
}
