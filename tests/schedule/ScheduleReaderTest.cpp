#include "schedule/ScheduleManager.h"
#include "schedule/ScheduleReader.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

// The defaults overlaid with `file`; nothing when it did not parse.
std::optional<QList<ScheduleInfo>> overlay(const QByteArray& file)
{
    ScheduleReader reader(file);
    if (reader.parse() != ScheduleReader::Result::Parsed)
        return std::nullopt;
    QList<ScheduleInfo> s;
    ScheduleManager::fillDefaultSchedule(s, TasksManager::taskNames());
    ScheduleManager::overlaySchedule(reader, TasksManager::taskNames(), s);
    return s;
}

QByteArray nested(int depth)
{
    return QByteArray("<a>").repeated(depth) + QByteArray("</a>").repeated(depth);
}

} // namespace

TEST(ScheduleReader, NumbersConvertLikeStrtolCutTo32Bits)
{
    const struct {
        const char* text;
        unsigned int expected;
    } cases[] = {{"15", 15u}, {"-1", 4294967295u}, {" \n\t42abc", 42u}, {"+7", 7u}, {"abc", 0u}, {"", 0u},
                 {"4294967301", 5u}, {"99999999999999999999", static_cast<unsigned int>(LONG_MAX)}, {"0x10", 0u}};
    for (const auto& c : cases)
        EXPECT_EQ(ScheduleReader::toNumber(c.text), c.expected) << c.text;
}

TEST(ScheduleReader, OverlayChangesOnlyNamedEntriesAndChildren)
{
    QByteArray file = "<?xml version=\"1.0\"?>\n<!-- from the server -->\n"
                      "<Network><Enabled>4294967297</Enabled><Interval>-1</Interval></Network>\n"
                      "<Bogus><Enabled>1</Enabled></Bogus>\n"
                      "<Event_Logs><Enabled>4294967296</Enabled><Run_on_Start>word</Run_on_Start>"
                      "<Interval>0</Interval><Retry_Interval>7</Retry_Interval></Event_Logs>\n";
    for (int i = 0; i < 3000; ++i)
        file += "<Filler" + QByteArray::number(i) + "><Interval>1</Interval></Filler" + QByteArray::number(i) + ">";
    const auto s = overlay(file);
    ASSERT_TRUE(s);
    QList<ScheduleInfo> expected;
    ScheduleManager::fillDefaultSchedule(expected, TasksManager::taskNames());
    expected[TasksManager::Network].setEnable(true);
    expected[TasksManager::Network].setInterval(4294967295u);
    expected[TasksManager::Event_Logs].setEnable(false);
    expected[TasksManager::Event_Logs].setRunOnStart(false);
    expected[TasksManager::Event_Logs].setInterval(0);
    expected[TasksManager::Event_Logs].setRetryInterval(7);
    for (int i = 0; i < expected.size(); ++i) {
        const ScheduleInfo &a = s->at(i), &b = expected.at(i);
        EXPECT_TRUE(a.getEnable() == b.getEnable() && a.getRunOnStart() == b.getRunOnStart() &&
                    a.getInterval() == b.getInterval() && a.getRetryInterval() == b.getRetryInterval())
            << i;
    }
}

TEST(ScheduleReader, NamesAreExactFirstElementCountsZeroByteEnds)
{
    const struct {
        QByteArray file;
        unsigned int interval; // of task 0
    } cases[] = {
        {"<AgentInfo><Interval>5</Interval></AgentInfo>", 5u},
        {"<agentinfo><Interval>5</Interval></agentinfo>", 15u},
        {"<AgentInfo><interval>5</interval></AgentInfo>", 15u},
        {"<AgentInfoX><Interval>5</Interval></AgentInfoX>", 15u},
        {"<AgentInfo><Interval>5</Interval></AgentInfo><AgentInfo><Interval>9</Interval></AgentInfo>", 5u},
        {"<AgentInfo/><AgentInfo><Interval>9</Interval></AgentInfo>", 15u},
        {"<AgentInfo><Interval></Interval></AgentInfo>", 0u},
        {"<AgentInfo><Interval>&#51;3</Interval></AgentInfo>", 33u},
        {QByteArray("<X/>\0<AgentInfo><Interval>9</Interval></AgentInfo>", 50), 15u},
    };
    for (const auto& c : cases) {
        const auto s = overlay(c.file);
        ASSERT_TRUE(s) << c.file.constData();
        EXPECT_EQ(s->at(0).getInterval(), c.interval) << c.file.constData();
    }
}

TEST(ScheduleReader, MalformedDocumentsAreRefused)
{
    const QByteArray cases[] = {
        "<AgentInfo><Interval>5</Interval>", "AgentInfo", "<AgentInfo/> trailing", "</AgentInfo>",
        "<AgentInfo x=1/>", "<!-- open", "<A><![CDATA[5</A>", "<A>&#xZZ;</A>", "<>",
        QByteArray("<AgentInfo><Interval>5\0</Interval></AgentInfo>", 46),
    };
    for (const QByteArray& text : cases) {
        ScheduleReader reader(text);
        EXPECT_EQ(reader.parse(), ScheduleReader::Result::Malformed) << text.constData();
        EXPECT_FALSE(reader.task(QStringLiteral("AgentInfo"))) << text.constData();
    }
}

TEST(ScheduleReader, NestingDepthFollowsTheParsersLexicalRules)
{
    const struct {
        QByteArray text;
        int depth;
    } cases[] = {
        {"<a/><b></b>", 1},
        {nested(5), 5},
        {"\xEF\xBB\xBF<a><b></b></a>", 2},
        // Closing-looking text that closes nothing must not lower the count.
        {"<a x=\"</a>\"><a y='</a>'><a>", 3},
        {"<a><!-- </a> --><a><![CDATA[</a>]]><a><?pi </a> ?><a>", 4},
        {"<!DOCTYPE d [<!ENTITY e \"</a>\">]><a><a>", 2},
        {"<a\"b><a\"b><a\"b>", 3},
        {"<a><!x </a> ><a>", 2},
        // Where the parser would stop, the count stops too.
        {"<a></a></a><a><a>", 1},
        {"text<a><a>", 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ScheduleReader::nestingDepth(c.text.constData(), 1000), c.depth) << c.text.constData();
}

TEST(ScheduleReader, DeepNestingIsRefusedBeforeParsing)
{
    ScheduleReader atLimit(nested(ScheduleReader::kMaxDepth));
    EXPECT_EQ(atLimit.parse(), ScheduleReader::Result::Parsed);
    const QByteArray hostile[] = {nested(ScheduleReader::kMaxDepth + 1), QByteArray("<a>").repeated(200000),
                                  QByteArray("<a x='</a>'>").repeated(100000)};
    for (const QByteArray& text : hostile) {
        ScheduleReader reader(text);
        EXPECT_EQ(reader.parse(), ScheduleReader::Result::TooDeep);
    }
}
