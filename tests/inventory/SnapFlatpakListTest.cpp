#include "inventory/FlatpakList.h"
#include "inventory/SnapList.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

QStringList rowsOf(const std::optional<QVector<SnapList::Snap>>& snaps)
{
    QStringList rows;
    for (const SnapList::Snap& s : snaps.value_or(QVector<SnapList::Snap>()))
        rows << s.name + '|' + s.version + '|' + s.revision;
    return rows;
}

TEST(SnapList, ActiveRevisionsFromTheTable)
{
    int skipped = -1;
    EXPECT_EQ(rowsOf(SnapList::parse(edrtest::readFixture("commands/snap/desktop.stdout"), &skipped)),
              (QStringList{"bare|1.0|5", "core20|20240227|2264", "core22|20240408|1380", "firefox|125.0.2-1|4173",
                           "gnome-42-2204|0+git.510a601|176", "gtk-common-themes|0.1-81-g442e511|1535",
                           "snapd|2.62|21465", "thunderbird|115.10.1esr-1|472", "code|e170252f|159",
                           "hello-world|6.4|29"}));
    EXPECT_EQ(skipped, 0);
}

// Cells found by the header's columns: order, empty cells, rows that do not
// line up, names that could leave a folder.
TEST(SnapList, ColumnsComeFromTheHeader)
{
    const struct {
        const char* table;
        QStringList rows;
        int skipped;
    } cases[] = {
        {"Rev  Notes     Name   Version\n"
         "12   disabled  old    1\n"
         "13   -         new    2\n",
         {"new|2|13"}, 0},
        {"Name   Version  Rev  Tracking  Publisher  Notes\n"
         "empty           7                         \n" // cells left blank, no "-"
         "more   1.0      8                         classic,disabled\n",
         {"empty||7"}, 0},
        {"Name   Version  Rev  Notes\n"
         "a b c d e\n"                // five words under four columns
         "../x   1        3    -\n"   // a name with a slash
         "ok     1        x9   -\n"
         "bad    1        9a   -\n",  // no such revision
         {"ok|1|x9"}, 3},
        {"\n\nName  Version  Rev\r\nhello  2.10  42\r\n", {"hello|2.10|42"}, 0},
        {"Name Version Rev\n", {}, 0},
        {"", {}, 0},
    };
    for (const auto& c : cases) {
        int skipped = -1;
        const auto snaps = SnapList::parse(c.table, &skipped);
        ASSERT_TRUE(snaps.has_value()) << c.table;
        EXPECT_EQ(rowsOf(snaps), c.rows) << c.table;
        EXPECT_EQ(skipped, c.skipped) << c.table;
    }
    for (const char* garbage : {"error: cannot communicate with server: connection refused\n",
                                "Name  Version\nfoo   1\n", "\xff\xfe\x00garbage"})
        EXPECT_FALSE(SnapList::parse(QByteArray(garbage)).has_value()) << garbage;
}

TEST(SnapList, SummaryOfSnapYaml)
{
    const std::pair<const char*, const char*> cases[] = {
        {"name: a\nsummary: Plain words # and a comment\n", "Plain words"},
        {"summary: 'It''s quoted'\n", "It's quoted"},
        {"summary: \"tab\\there \\u00e9 \\\"q\\\"\"\n", "tab\there \u00e9 \"q\""},
        {"summary: |\n  first\n  second\nversion: 1\n", "first\nsecond"},
        {"summary: folded\n  onto two lines\n", "folded onto two lines"},
        {"apps:\n  a:\n    summary: nested\n", ""},
        {"summary:\n", ""},
        {"summary: \"unterminated \\", "unterminated \\"},
        {"", ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(SnapList::summaryOf(c.first), QString::fromUtf8(c.second)) << c.first;
}

TEST(FlatpakList, SizesAsFlatpakPrintsThem)
{
    const std::pair<const char*, long long> sizes[] = {
        {"1.2 GB", 1200000000},       {"145.8 MB", 145800000},         {"8.2\xc2\xa0kB", 8200},
        {"512 bytes", 512},           {"1 byte", 1},                   {"3,4 MB", 3400000},
        {"2.0 GiB", 2147483648LL},    {"1.5\xe2\x80\xafMB", 1500000},  {"1.5?MB", 1500000},
        {"7 TB", 7000000000000LL},
    };
    for (const auto& s : sizes)
        EXPECT_EQ(FlatpakList::bytesOf(QString::fromUtf8(s.first)), std::optional<long long>(s.second)) << s.first;
    for (const char* bad : {"", "GB", "12 parsecs", "1.2 G B", "99999999 EB", "1 \xc3\xa9""B", "1 . . . MB"})
        EXPECT_FALSE(FlatpakList::bytesOf(QString::fromUtf8(bad)).has_value()) << bad;
}

TEST(FlatpakList, ApplicationLines)
{
    int skipped = -1;
    const auto apps = FlatpakList::parse(edrtest::readFixture("commands/flatpak/desktop.stdout"), &skipped);
    ASSERT_TRUE(apps.has_value());
    ASSERT_EQ(apps->size(), 6);
    EXPECT_EQ(skipped, 0);
    const FlatpakList::App& e = apps->at(4);
    EXPECT_EQ(QStringList({e.id, e.version, e.size, e.name, e.description}),
              (QStringList{"fr.example.Ecrivain", "", "792 KB", "Écrivain", "Éditeur de texte épuré"}));

    const QByteArray mixed = "Application ID\tVersion\tSize\tName\tDescription\n" // a header
                             "org.example.Good\t1\t?\tGood\tdesc\twith a tab\r\n"
                             "org.example.Short\t1\t2 MB\n"
                             "../../etc\t1\t2 MB\tEvil\t\n"
                             "org.example/evil\t1\t2 MB\tEvil\t\n"
                             "org..empty\t1\t2 MB\tEvil\t\n";
    const auto some = FlatpakList::parse(mixed, &skipped);
    ASSERT_TRUE(some.has_value());
    ASSERT_EQ(some->size(), 1);
    EXPECT_EQ(some->at(0).size, ""); // unreadable size
    EXPECT_EQ(some->at(0).description, "desc\twith a tab");
    EXPECT_EQ(skipped, 4);

    EXPECT_FALSE(FlatpakList::parse("error: unknown option\nUsage: flatpak list\n").has_value());
    EXPECT_EQ(FlatpakList::parse("\n").value_or(QVector<FlatpakList::App>{{}}).size(), 0);
}

} // namespace
