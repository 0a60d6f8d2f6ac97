#include "core/CLogger.h"

#include "core/Common.h"

#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <QMutexLocker>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace LOGGER
{

CLogger* CLogger::s_instance = nullptr;

namespace
{
QMutex g_instanceMutex;

const char* levelName(CLogger::Level level)
{
    switch (level) {
    case CLogger::LEVEL_TRACE:
        return "TRACE";
    case CLogger::LEVEL_DEBUG:
        return "DEBUG";
    case CLogger::LEVEL_INFO:
        return "INFO";
    case CLogger::LEVEL_ERROR:
        return "ERROR";
    }
    return "?";
}

bool isControl(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

// Values from outside (orders, tool output, file names) end up in messages:
// a control character among them must not start a line of its own.
QByteArray escapeControls(const QByteArray& message)
{
    if (std::none_of(message.cbegin(), message.cend(), isControl))
        return message;
    static const char hex[] = "0123456789abcdef";
    QByteArray out;
    out.reserve(message.size() + 16);
    for (const char c : message) {
        if (!isControl(c)) {
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else {
            out += "\\x";
            out += hex[(static_cast<unsigned char>(c) >> 4) & 0xF];
            out += hex[c & 0xF];
        }
    }
    return out;
}
} // namespace

CLogger* CLogger::getInstance()
{
    QMutexLocker lock(&g_instanceMutex);
    if (!s_instance)
        s_instance = new CLogger();
    return s_instance;
}

void CLogger::releaseInstance()
{
    QMutexLocker lock(&g_instanceMutex);
    delete s_instance;
    s_instance = nullptr;
}

CLogger::CLogger() : m_file(Common::getEdrDirPath() + QStringLiteral("/EDR_Track.log")) {}

CLogger::~CLogger() = default;

void CLogger::setLevel(Level level)
{
    m_level.store(level);
}

bool CLogger::parseLevel(const QString& text, Level* out)
{
    static const struct {
        const char* name;
        Level level;
    } names[] = {
        {"trace", LEVEL_TRACE}, {"debug", LEVEL_DEBUG}, {"info", LEVEL_INFO}, {"error", LEVEL_ERROR}};
    for (const auto& n : names) {
        if (text.compare(QLatin1String(n.name), Qt::CaseInsensitive) == 0) {
            *out = n.level;
            return true;
        }
    }
    return false;
}

void CLogger::setFilePath(const QString& path)
{
    QMutexLocker lock(&m_mutex);
    m_file.setPath(path);
    m_warnedStderr = false;
}

QString CLogger::filePath() const
{
    QMutexLocker lock(&m_mutex);
    return m_file.path();
}

void CLogger::setRotation(qint64 maxBytes, int keptFiles)
{
    QMutexLocker lock(&m_mutex);
    m_file.setRotation(maxBytes, keptFiles);
}

void CLogger::write(Level level, const char* origin, const int* err, const char* format, va_list args)
{
    if (!isEnabled(level))
        return;

    char stackBuf[1024];
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(stackBuf, sizeof stackBuf, format, copy);
    va_end(copy);
    QByteArray message;
    if (needed < 0) {
        message = "(unformattable message)";
    } else if (static_cast<size_t>(needed) < sizeof stackBuf) {
        message = QByteArray(stackBuf, needed);
    } else {
        message.resize(needed + 1);
        std::vsnprintf(message.data(), static_cast<size_t>(needed) + 1, format, args);
        message.resize(needed);
    }

    QByteArray line =
        QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")).toLatin1();
    line += ' ';
    line += levelName(level);
    line += " [";
    line += QByteArray::number(static_cast<qlonglong>(::syscall(SYS_gettid)));
    line += "] ";
    line += origin ? origin : "";
    line += " | ";
    line += escapeControls(message);
    if (err) {
        line += " (errno ";
        line += QByteArray::number(*err);
        line += ": ";
        line += std::strerror(*err);
        line += ')';
    }
    line += '\n';

    QMutexLocker lock(&m_mutex);
    if (m_file.append(line)) {
        m_lastOnStderr = false;
        return;
    }
    if (!m_warnedStderr) {
        m_warnedStderr = true;
        const QByteArray warn =
            "edr-agent: cannot write " + QFile::encodeName(m_file.path()) + ", logging to stderr\n";
        RotatingFile::writeAll(STDERR_FILENO, warn.constData(), static_cast<size_t>(warn.size()));
    }
    RotatingFile::writeAll(STDERR_FILENO, line.constData(), static_cast<size_t>(line.size()));
    m_lastOnStderr = true;
}

void CLogger::Trace(const char* origin, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    write(LEVEL_TRACE, origin, nullptr, format, args);
    va_end(args);
}

void CLogger::Debug(const char* origin, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    write(LEVEL_DEBUG, origin, nullptr, format, args);
    va_end(args);
}

void CLogger::Info(const char* origin, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    write(LEVEL_INFO, origin, nullptr, format, args);
    va_end(args);
}

void CLogger::Error(const char* origin, int err, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    write(LEVEL_ERROR, origin, &err, format, args);
    va_end(args);
}

} // namespace LOGGER
