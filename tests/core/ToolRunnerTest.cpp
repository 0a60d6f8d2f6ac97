#include "core/ToolRunner.h"

#include "support/TestSupport.h"

#include <unistd.h>

#include <gtest/gtest.h>

TEST(ToolRunner, RunsByNameFromItsSearchPathOnlyInTheCLocaleWithCappedOutput)
{
    edrtest::FakeToolDir tools;
    const QByteArray output("line one\n\0binary\xff tail", 21);
    tools.addTool("lister", output, 3);
    const ToolResult r = tools.runner().run("lister", {"-a", "b c"}, 5000);
    EXPECT_TRUE(r.started && r.finished && !r.ok());
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_EQ(r.standardOutput, output);
    EXPECT_EQ(tools.invocations("lister"), (QList<QStringList>{{"-a", "b c"}}));

    // Only the search path counts: a tool elsewhere on PATH is not found.
    const ToolResult missing = ToolRunner(QStringList()).run("sh", {}, 1000);
    EXPECT_TRUE(!missing.started && !missing.errorText.isEmpty());

    tools.addScript("locale-echo", "printf '%s' \"$LC_ALL\"\n");
    EXPECT_EQ(tools.runner().run("locale-echo", {}, 5000).standardOutput, "C");

    // Output beyond the cap is cut; stderr is not read.
    tools.addScript("flood", "echo to-stderr >&2\nhead -c 300000 /dev/zero | tr '\\0' a\n");
    const ToolResult flood = tools.runner().run("flood", {}, 10000, 1000);
    EXPECT_TRUE(flood.finished && flood.outputTruncated);
    EXPECT_EQ(flood.standardOutput, QByteArray(1000, 'a'));
}

TEST(ToolRunner, EndsTheChildsWholeProcessGroupAtItsLimit)
{
    edrtest::FakeToolDir tools;
    const QByteArray marker = "sleep 987." + QByteArray::number(::getpid());
    // A shell waiting on a grandchild; the grandchild ignores SIGTERM.
    tools.addScript("stuck", "sh -c 'trap \"\" TERM; exec " + marker + "' &\n" + marker + "; true\n");
    const ToolResult r = tools.runner().run("stuck", {}, 300);
    EXPECT_TRUE(r.started && r.timedOut && !r.finished);
    EXPECT_EQ(edrtest::livingProcesses(marker), 0);
}
