#include "push/PushCommand.h"
#include "push/OrderPolicy.h"

#include <gtest/gtest.h>

TEST(PushCommand, ParsesTheCommandTable)
{
    using K = PushCommand::Kind;
    const struct {
        const char* message;
        K kind;
        int task;
        const char* parameter;
    } cases[] = {
        {"RPT#$#$7#$#0", K::Report, 7, ""},
        {"RPT#$#7", K::Report, 7, ""},
        {"RPT#$#$7#$#$0", K::Report, 7, ""},
        {"RPT#$#$3#$#$$x|y", K::Report, 3, "$x|y"},
        {"RPT#$#x", K::Report, 0, ""},
        {"RPT#$#99999999999999999999", K::Report, 0, ""},
        {"RPT#$##$#", K::Report, 0, ""},
        {"ACT#$#22#$#$enable", K::Action, 22, "$enable"},
        {"ACT#$#$3#$#1|42|r", K::Action, 0, "1|42|r"},
        {"ACT#$#3#$#0", K::Action, 3, ""},
        {"MOD#$#AGENT_CONFIG_CHANGE#$#whatever", K::ConfigChange, 0, ""},
        {"UPD#$#AGENT", K::Update, 0, ""},
        {"RESET#$#TRACE_LOG", K::ResetTraceLog, 0, ""},
        {"MOD#$#agent_config_change", K::Ignored, 0, ""},
        {"RESET#$#trace_log", K::Ignored, 0, ""},
        {"rpt#$#0", K::Ignored, 0, ""},
        {"keep-alive", K::Ignored, 0, ""},
        {"", K::Ignored, 0, ""},
        {"RPT", K::TooShort, 0, ""},
        {"RESET", K::TooShort, 0, ""},
    };
    for (const auto& c : cases) {
        const PushCommand command = PushCommand::parse(QString::fromUtf8(c.message));
        EXPECT_EQ(command.kind, c.kind) << c.message;
        EXPECT_EQ(command.task, c.task) << c.message;
        EXPECT_EQ(command.parameter, QString::fromUtf8(c.parameter)) << c.message;
    }
}

TEST(OrderPolicy, EachOrderHasItsKeyAndNothingElseIsGoverned)
{
    const struct {
        const char* message;
        const char* key;
    } cases[] = {
        {"RPT#$#18#$#1|ls", "Terminal"},
        {"RPT#$#$18", "Terminal"},
        {"RPT#$#24#$#'1|select 1'", "Osquery"},
        {"ACT#$#3#$#1|9|x", "Kill"},
        {"ACT#$#2#$#1|a|x", "ServiceOrders"},
        {"ACT#$#1#$#1|a|x", "StartupApps"},
        {"ACT#$#22#$#1|1|1|x", "Firewall"},
        {"UPD#$#AGENT", "Update"},
        {"RESET#$#TRACE_LOG", "TraceLogReset"},
        // Reports of the same tasks, and everything else, are not orders.
        {"RPT#$#3", ""},
        {"RPT#$#22", ""},
        {"ACT#$#18#$#1|ls", ""},
        {"MOD#$#AGENT_CONFIG_CHANGE", ""},
        {"UPD#$#OTHER", ""},
        {"RESET", ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(OrderPolicy::keyFor(PushCommand::parse(QString::fromLatin1(c.message))),
                  QLatin1String(c.key))
            << c.message;
}
