#include "core/CLogger.h"
#include "core/Common.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // Timers, QProcess and queued signals need an application object.
    QCoreApplication app(argc, argv);
    std::signal(SIGPIPE, SIG_IGN);
    // A test without a scratch prefix of its own must still never write into
    // the host's agent directories: the system test reads the real log.
    QTemporaryDir prefix;
    Common::setPrefix(prefix.path());
    QDir().mkpath(Common::getEdrDirPath());
    EDR_LOG->setFilePath(Common::getEdrDirPath() + QStringLiteral("/EDR_Track.log"));
    return RUN_ALL_TESTS();
}
