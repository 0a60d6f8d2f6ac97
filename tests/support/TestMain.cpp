#include <QCoreApplication>

#include <gtest/gtest.h>

#include <csignal>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // Timers, QProcess and queued signals need an application object.
    QCoreApplication app(argc, argv);
    std::signal(SIGPIPE, SIG_IGN);
    return RUN_ALL_TESTS();
}
