#pragma once

#include "core/RotatingFile.h"

#include <QMutex>
#include <QString>
#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace LOGGER
{

// Trace log of the agent: "yyyy-MM-dd hh:mm:ss.zzz LEVEL [tid] origin | message".
// Thread-safe; the file is re-created when somebody deletes it and rotated by size.
// When the file cannot be written the lines go to standard error instead.
class CLogger
{
public:
    enum Level { LEVEL_TRACE = 0, LEVEL_DEBUG = 1, LEVEL_INFO = 2, LEVEL_ERROR = 3 };

    static CLogger* getInstance();
    static void releaseInstance();

    void Trace(const char* origin, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void Debug(const char* origin, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void Info(const char* origin, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void Error(const char* origin, int err, const char* format, ...) __attribute__((format(printf, 4, 5)));

    void setLevel(Level level);
    Level level() const { return m_level.load(); }
    bool isEnabled(Level level) const { return level >= m_level.load(); }
    static bool parseLevel(const QString& text, Level* out);

    // Defaults to Common::getEdrDirPath() + "/EDR_Track.log".
    void setFilePath(const QString& path);
    QString filePath() const;
    void setRotation(qint64 maxBytes, int keptFiles);
    // Whether the latest line went to standard error (the file was not writable).
    bool lastLineOnStderr() const { return m_lastOnStderr.load(); }

private:
    CLogger();
    ~CLogger();
    CLogger(const CLogger&) = delete;
    CLogger& operator=(const CLogger&) = delete;

    void write(Level level, const char* origin, const int* err, const char* format, va_list args);

    static CLogger* s_instance;
    mutable QMutex m_mutex;
    RotatingFile m_file;
    std::atomic<Level> m_level{LEVEL_INFO};
    bool m_warnedStderr = false;
    std::atomic<bool> m_lastOnStderr{false};
};

} // namespace LOGGER

// The origin of every line is the caller's full signature.
#define EDR_LOG LOGGER::CLogger::getInstance()
