#include "schedule/ScheduleReader.h"

#include <gtest/gtest.h>

#include <utility>

TEST(ScheduleReader, MalformedEmptyAndDeepDocumentsAreRefused)
{
    using R = ScheduleReader::Result;
    auto nested = [](int depth) {
        return QByteArray("<a>").repeated(depth) + QByteArray("</a>").repeated(depth);
    };
    const std::pair<QByteArray, R> cases[] = {
        {"<AgentInfo><Interval>5</Interval>", R::Malformed},
        {"AgentInfo", R::Malformed},
        {"<AgentInfo/> trailing", R::Malformed},
        {"<AgentInfo x=1/>", R::Malformed},
        {"<A><![CDATA[5</A>", R::Malformed},
        {"<A>&#xZZ;</A>", R::Malformed},
        {QByteArray("<AgentInfo><Interval>5\0</Interval></AgentInfo>", 46), R::Malformed},
        // An empty download is no schedule, although the parser would take it.
        {"", R::Malformed},
        {QByteArray("\0<AgentInfo/>", 13), R::Malformed},
        {nested(ScheduleReader::kMaxDepth + 1), R::TooDeep},
        {QByteArray("<a>").repeated(200000), R::TooDeep},
        {QByteArray("<a x='</a>'>").repeated(100000), R::TooDeep},
        {nested(ScheduleReader::kMaxDepth), R::Parsed},
    };
    for (const auto& [text, result] : cases) {
        ScheduleReader reader(text);
        EXPECT_EQ(reader.parse(), result) << text.left(40).constData();
        EXPECT_FALSE(reader.task(QStringLiteral("AgentInfo"))) << text.left(40).constData();
    }
}

TEST(ScheduleReader, NestingDepthFollowsTheParsersLexicalRules)
{
    // Closing-looking text inside attributes, comments, CDATA, PIs and DOCTYPEs
    // closes nothing; where the parser would stop, the count stops too.
    const std::pair<QByteArray, int> cases[] = {
        {"\xEF\xBB\xBF<a/><a><b></b></a>", 2},
        {"<a x=\"</a>\"><a y='</a>'><a>", 3},
        {"<a><!-- </a> --><a><![CDATA[</a>]]><a><?pi </a> ?><a><!x </a> >", 4},
        {"<!DOCTYPE d [<!ENTITY e \"</a>\">]><a><a>", 2},
        {"<a></a></a><a><a>", 1},
        {"text<a><a>", 0},
    };
    for (const auto& [text, depth] : cases)
        EXPECT_EQ(ScheduleReader::nestingDepth(text.constData(), 1000), depth) << text.constData();
}
