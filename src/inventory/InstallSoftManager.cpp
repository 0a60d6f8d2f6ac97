#include "inventory/InstallSoftManager.h"

#include "comm/ReportSubmitter.h"
#include "core/CLogger.h"
#include "identity/SizeOperation.h"
#include "inventory/SnapFlatpakCollector.h"

#include <QFile>
#include <QJsonArray>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
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

namespace
{

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
enum Field { OTHER, PACKAGE, VERSION, DESCRIPTION, INSTALLED_SIZE, VENDOR, STATUS, ARCHITECTURE, MULTI_ARCH };

Field fieldOf(const char* name, int length)
{
    static const struct {
        const char* text;
        int length;
        Field field;
    } known[] = {{"Package", 7, PACKAGE},
                 {"Version", 7, VERSION},
                 {"Description", 11, DESCRIPTION},
                 {"Installed-Size", 14, INSTALLED_SIZE},
                 {"Original-Maintainer", 19, VENDOR},
                 {"Status", 6, STATUS},
                 {"Architecture", 12, ARCHITECTURE},
                 {"Multi-Arch", 10, MULTI_ARCH}};
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

// "want flag status": the third word alone says whether the package is on
// the system; a held ("hold ok installed") or to-be-removed one still is.
bool statusIsInstalled(const char* p, const char* end)
{
    int word = 0;
    while (p < end) {
        while (p < end && *p == ' ')
            ++p;
        const char* start = p;
        while (p < end && *p != ' ')
            ++p;
        if (p > start && ++word == 3)
            return p - start == 9 && std::memcmp(start, "installed", 9) == 0;
    }
    return false;
}

} // namespace

QJsonObject InstallSoftManager::Package::toJson(const QString& installDate) const
{
    // In key order: each insert then lands at the end of the object.
    QJsonObject o;
    if (hasDescription)
        o.insert(QLatin1String("Description"), description);
    if (hasPackageLine) {
        o.insert(QLatin1String("InstallDate"), installDate);
        o.insert(QLatin1String("Name"), name);
        o.insert(QLatin1String("PackageName"), name);
    }
    if (hasSize)
        o.insert(QLatin1String("Size"), size);
    if (hasVendor)
        o.insert(QLatin1String("Vendor"), vendor);
    if (hasVersion)
        o.insert(QLatin1String("Version"), version);
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
                installed = statusIsInstalled(value, value + length);
                break;
            case ARCHITECTURE:
                v.architecture = QString::fromUtf8(value, length);
                break;
            case MULTI_ARCH:
                v.multiArchSame = length == 4 && std::memcmp(value, "same", 4) == 0;
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

UniqueFd InstallSoftManager::openInfoDir() const
{
    return UniqueFd(::open(QFile::encodeName(m_host.root(QStringLiteral("/var/lib/dpkg/info"))).constData(),
                           O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

QString InstallSoftManager::installDate(const Package& package) const
{
    return installDate(package, openInfoDir().get());
}

// Looked up relative to the open info directory: one path walk for the
// directory instead of one per package. A missing name costs one failed
// lookup, far less than listing the directory's thousands of files first.
QString InstallSoftManager::installDate(const Package& package, int infoDir) const
{
    // A name that could leave the info directory is not looked up.
    if (infoDir < 0 || package.name.isEmpty() || package.name.contains(QLatin1Char('/')))
        return QString();
    // Multi-arch "same" packages keep their lists as name:arch.list, the
    // rest as name.list; the likelier one is tried first.
    const QByteArray plain = QFile::encodeName(package.name) + ".list";
    QByteArray qualified;
    if (!package.architecture.isEmpty() && !package.architecture.contains(QLatin1Char('/')))
        qualified = QFile::encodeName(package.name) + ':' + QFile::encodeName(package.architecture) + ".list";
    const QByteArray& first = package.multiArchSame && !qualified.isEmpty() ? qualified : plain;
    const QByteArray& second = &first == &plain ? qualified : plain;
    struct stat st;
    bool found = ::fstatat(infoDir, first.constData(), &st, 0) == 0;
    if (!found && !second.isEmpty())
        found = ::fstatat(infoDir, second.constData(), &st, 0) == 0;
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
    const UniqueFd infoDir = openInfoDir();
    for (const Package& package : packages)
        array.append(
            package.toJson(package.hasPackageLine ? installDate(package, infoDir.get()) : QString()));
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
