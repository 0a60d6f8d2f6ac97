#include "push/OrderPolicy.h"

#include <gtest/gtest.h>

TEST(OrderPolicy, EachOrderHasItsKeyAndNothingElseIsGoverned)
{
    const struct {
        const char* message;
        const char* key;
    } cases[] = {
        {"RPT#$#18#$#1|ls", "Terminal"}, {"RPT#$#$18", "Terminal"},     {"RPT#$#24#$#'1|select 1'", "Osquery"},
        {"ACT#$#3#$#1|9|x", "Kill"},     {"ACT#$#2#$#1|a|x", "ServiceOrders"}, {"ACT#$#1#$#1|a|x", "StartupApps"},
        {"ACT#$#22#$#1|1|1|x", "Firewall"}, {"UPD#$#AGENT", "Update"},  {"RESET#$#TRACE_LOG", "TraceLogReset"},
        // Reports of the same tasks, and everything else, are not orders.
        {"RPT#$#3", ""}, {"RPT#$#22", ""}, {"ACT#$#18#$#1|ls", ""}, {"MOD#$#AGENT_CONFIG_CHANGE", ""},
        {"UPD#$#OTHER", ""}, {"RESET", ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(OrderPolicy::keyFor(PushCommand::parse(QString::fromLatin1(c.message))), QLatin1String(c.key))
            << c.message;
}
