#include "inventory/InstallSoftManager.h"

#include "comm/ReportSubmitter.h"
#include "core/CLogger.h"
#include "identity/SizeOperation.h"
#include "inventory/SnapFlatpakCollector.h"

#include <QFile>
#include <QJsonArray>

#include <cerrno>
#include <climits>
#include <cstring>
#include <cstdio>
#include <dirent.h>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

InstallSoftManager* InstallSoftManager::s_instance = nullptr;

InstallSoftManager* InstallSoftManager::getInstance()
{
    if (!s_instance)
        s_instance = new InstallSoftManager();
    return s_instance;
}

void InstallSoftManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

InstallSoftManager::InstallSoftManager(const HostPaths& host, const ToolRunner& runner)
    : m_host(host), m_runner(runner)
{
}

namespace {

QString sizeText(const char* text, int length)
{
    bool ok = false;
    long long n = QByteArray::fromRawData(text, length).toLongLong(&ok, 10);
    if (!ok)
        n = 0;
    // Installed-Size is in KiB; keep the product in range.
    if (n > LLONG_MAX / 1024)
        n = LLONG_MAX / 1024;
    else if (n < LLONG_MIN / 1024)
        n = LLONG_MIN / 1024;
    return SizeOperation::getBytesSizeInString(n * 1024);
}

// The fields a package object is made of; the rest of a stanza is skipped
// without being copied (a status database runs to megabytes).
enum Field { OTHER, PACKAGE, VERSION, DESCRIPTION, INSTALLED_SIZE, VENDOR, STATUS, ARCHITECTURE };

Field fieldOf(const char* name, int length)
{
    static const struct {
        const char* text;
        int length;
        Field field;
    } known[] = {{"Package", 7, PACKAGE},          {"Version", 7, VERSION},
                 {"Description", 11, DESCRIPTION}, {"Installed-Size", 14, INSTALLED_SIZE},
                 {"Original-Maintainer", 19, VENDOR}, {"Status", 6, STATUS},
                 {"Architecture", 12, ARCHITECTURE}};
    for (const auto& k : known)
        if (k.length == length && std::memcmp(k.text, name, size_t(length)) == 0)
            return k.field;
    return OTHER;
}

const char* find(const char* from, const char* end, const char* needle, size_t n)
{
    while (from + n <= end) {
        const char* c = static_cast<const char*>(std::memchr(from, needle[0], size_t(end - from)));
        if (!c || c + n > end)
            return nullptr;
        if (std::memcmp(c, needle, n) == 0)
            return c;
        from = c + 1;
    }
    return nullptr;
}

} // namespace

QJsonObject InstallSoftManager::Package::toJson(const QString& installDate) const
{
    QJsonObject o;
    if (hasPackageLine) {
        o.insert(QLatin1String("Name"), name);
        o.insert(QLatin1String("PackageName"), name);
        o.insert(QLatin1String("InstallDate"), installDate);
    }
    if (hasVersion)
        o.insert(QLatin1String("Version"), version);
    if (hasDescription)
        o.insert(QLatin1String("Description"), description);
    if (hasSize)
        o.insert(QLatin1String("Size"), size);
    if (hasVendor)
        o.insert(QLatin1String("Vendor"), vendor);
    return o;
}

QVector<InstallSoftManager::Package> InstallSoftManager::parseDpkgStatus(const QByteArray& status)
{
    QVector<Package> packages;
    Package v;
    bool installed = false;
    bool open = false;
    const auto finish = [&]() {
        if (open && installed)
            packages.append(v);
        v = Package();
        installed = false;
        open = false;
    };

    const char* p = status.constData();
    const char* const end = p + status.size();
    while (p < end) {
        const char* eol = static_cast<const char*>(std::memchr(p, '\n', size_t(end - p)));
        if (!eol)
            eol = end;
        if (eol == p) {
            // An empty line ends the stanza.
            finish();
            p = eol + 1;
            continue;
        }
        open = true;
        // The name runs to the first ": " (or the end of the line) and the value
        // to the next ": ". Continuation lines start with a blank and name no field.
        const char* sep = (*p == ' ' || *p == '\t') ? nullptr : find(p, eol, ": ", 2);
        const Field field = (*p == ' ' || *p == '\t') ? OTHER : fieldOf(p, int((sep ? sep : eol) - p));
        if (field != OTHER) {
            const char* value = sep ? sep + 2 : eol;
            const char* next = find(value, eol, ": ", 2);
            const int length = int((next ? next : eol) - value);
            switch (field) {
            case PACKAGE:
                v.name = QString::fromUtf8(value, length);
                v.hasPackageLine = true;
                break;
            case VERSION:
                v.version = QString::fromUtf8(value, length);
                v.hasVersion = true;
                break;
            case DESCRIPTION:
                v.description = QString::fromUtf8(value, length);
                v.hasDescription = true;
                break;
            case INSTALLED_SIZE:
                v.size = sizeText(value, length);
                v.hasSize = true;
                break;
            case VENDOR:
                v.vendor = QString::fromUtf8(value, length);
                v.hasVendor = true;
                break;
            case STATUS:
                installed = length == 20 && std::memcmp(value, "install ok installed", 20) == 0;
                break;
            case ARCHITECTURE:
                v.architecture = QString::fromUtf8(value, length);
                break;
            case OTHER:
                break;
            }
        }
        p = eol + 1;
    }
    finish();
    return packages;
}

int InstallSoftManager::openInfoDir() const
{
    return ::open(QFile::encodeName(m_host.root(QStringLiteral("/var/lib/dpkg/info"))).constData(),
                  O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

QSet<QByteArray> InstallSoftManager::listFiles(int infoDir)
{
    QSet<QByteArray> names;
    const int fd = infoDir >= 0 ? ::dup(infoDir) : -1;
    DIR* dir = fd >= 0 ? ::fdopendir(fd) : nullptr;
    if (!dir) {
        if (fd >= 0)
            ::close(fd);
        return names;
    }
    names.reserve(4096);
    while (const struct dirent* entry = ::readdir(dir)) {
        const size_t length = std::strlen(entry->d_name);
        if (length > 5 && std::memcmp(entry->d_name + length - 5, ".list", 5) == 0)
            names.insert(QByteArray(entry->d_name, int(length)));
    }
    ::closedir(dir);
    return names;
}

QString InstallSoftManager::installDate(const Package& package) const
{
    const int dir = openInfoDir();
    const QString date = installDate(package, dir, nullptr);
    if (dir >= 0)
        ::close(dir);
    return date;
}

// Looked up relative to the open info directory: one path walk for the
// directory instead of one per package. lists, when given, names the *.list
// files there, so a name that is not there costs no system call.
QString InstallSoftManager::installDate(const Package& package, int infoDir, const QSet<QByteArray>* lists) const
{
    // A name that could leave the info directory is not looked up.
    if (infoDir < 0 || package.name.isEmpty() || package.name.contains(QLatin1Char('/')))
        return QString();
    QByteArray file = QFile::encodeName(package.name);
    const int nameLength = file.size();
    file += ".list";
    struct stat st;
    bool found = (!lists || lists->contains(file)) && ::fstatat(infoDir, file.constData(), &st, 0) == 0;
    // Multi-arch "same" packages keep their lists as name:arch.list.
    if (!found && !package.architecture.isEmpty() && !package.architecture.contains(QLatin1Char('/'))) {
        file.truncate(nameLength);
        file += ':' + QFile::encodeName(package.architecture) + ".list";
        found = (!lists || lists->contains(file)) && ::fstatat(infoDir, file.constData(), &st, 0) == 0;
    }
    if (!found)
        return QString();
    // Local date, as QDateTime would give it, without its per-call time zone work.
    struct tm local;
    const time_t when = st.st_mtime;
    if (!::localtime_r(&when, &local))
        return QString();
    char text[32];
    std::snprintf(text, sizeof text, "%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
    return QString::fromLatin1(text);
}

bool InstallSoftManager::getInstalledSoftwares(QJsonObject& report)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    const QString path = m_host.root(QStringLiteral("/var/lib/dpkg/status"));
    bool ok = false;
    const QByteArray status = HostPaths::readFile(path, &ok, kMaxStatusBytes);
    if (!ok)
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Could not read %s", qUtf8Printable(path));

    const QVector<Package> packages = parseDpkgStatus(status);
    QJsonArray array;
    ::tzset();
    const int infoDir = openInfoDir();
    const QSet<QByteArray> lists = listFiles(infoDir);
    for (const Package& package : packages)
        array.append(package.toJson(package.hasPackageLine ? installDate(package, infoDir, &lists) : QString()));
    if (infoDir >= 0)
        ::close(infoDir);
    SnapFlatpakCollector(m_host, m_runner).appendTo(array);
    if (array.isEmpty()) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Installed Software Not Found!");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    report.insert(QStringLiteral("InstallSoft"), array);
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return true;
}

bool InstallSoftManager::collectReport(QJsonObject& body)
{
    return getInstalledSoftwares(body);
}

bool InstallSoftManager::sendRptToServer(const QString&)
{
    return ReportSubmitter::submitReport(Q_FUNC_INFO, m_reportBusy, INSTALLED_SOFTWARE,
                                         {"Failed to Installed Softwares Info.",
                                          "Successfully send Installed software to server.",
                                          "Failed to send Installed software to server."},
                                         [this](QJsonObject& body) { return collectReport(body); });
}
