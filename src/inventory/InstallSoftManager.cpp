#include "inventory/InstallSoftManager.h"

#include "comm/ReportSubmitter.h"
#include "core/CLogger.h"
#include "identity/SizeOperation.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>

#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/stat.h>

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

InstallSoftManager::InstallSoftManager(const HostPaths& host) : m_host(host) {}

namespace {

// Field name and value of one stanza line: the text before the first ": "
// and the text up to the next ": ", if any.
void splitField(const char* begin, const char* end, QByteArray* name, QByteArray* value)
{
    const QByteArray line = QByteArray::fromRawData(begin, int(end - begin));
    const int sep = line.indexOf(": ");
    if (sep < 0) {
        *name = line;
        value->clear();
        return;
    }
    *name = line.left(sep);
    const int next = line.indexOf(": ", sep + 2);
    *value = line.mid(sep + 2, next < 0 ? -1 : next - sep - 2);
}

QString sizeText(const QByteArray& kib)
{
    bool ok = false;
    long long n = kib.toLongLong(&ok, 10);
    if (!ok)
        n = 0;
    // Installed-Size is in KiB; keep the product in range.
    if (n > LLONG_MAX / 1024)
        n = LLONG_MAX / 1024;
    else if (n < LLONG_MIN / 1024)
        n = LLONG_MIN / 1024;
    return SizeOperation::getBytesSizeInString(n * 1024);
}

} // namespace

QVector<InstallSoftManager::Package> InstallSoftManager::parseDpkgStatus(const QByteArray& status)
{
    static const QString kName = QStringLiteral("Name");
    static const QString kPackageName = QStringLiteral("PackageName");
    static const QString kVersion = QStringLiteral("Version");
    static const QString kDescription = QStringLiteral("Description");
    static const QString kSize = QStringLiteral("Size");
    static const QString kVendor = QStringLiteral("Vendor");

    QVector<Package> packages;
    Package current;
    bool installed = false;
    bool open = false;
    const auto finish = [&]() {
        if (open && installed)
            packages.append(current);
        current = Package();
        installed = false;
        open = false;
    };

    const char* p = status.constData();
    const char* const end = p + status.size();
    QByteArray name;
    QByteArray value;
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
        // Continuation lines start with a blank and name no field.
        if (*p != ' ' && *p != '\t') {
            splitField(p, eol, &name, &value);
            if (name == "Package") {
                current.name = QString::fromUtf8(value);
                current.hasPackageLine = true;
                current.object.insert(kName, current.name);
                current.object.insert(kPackageName, current.name);
            } else if (name == "Version") {
                current.object.insert(kVersion, QString::fromUtf8(value));
            } else if (name == "Description") {
                current.object.insert(kDescription, QString::fromUtf8(value));
            } else if (name == "Installed-Size") {
                current.object.insert(kSize, sizeText(value));
            } else if (name == "Original-Maintainer") {
                current.object.insert(kVendor, QString::fromUtf8(value));
            } else if (name == "Status") {
                installed = value == "install ok installed";
            } else if (name == "Architecture") {
                current.architecture = QString::fromUtf8(value);
            }
        }
        p = eol + 1;
    }
    finish();
    return packages;
}

QString InstallSoftManager::installDate(const Package& package) const
{
    // A name that could leave the info directory is not looked up.
    if (package.name.isEmpty() || package.name.contains(QLatin1Char('/')))
        return QString();
    const QString dir = m_host.root(QStringLiteral("/var/lib/dpkg/info/"));
    QStringList candidates{dir + package.name + QStringLiteral(".list")};
    // Multi-arch "same" packages keep their lists as name:arch.list.
    if (!package.architecture.isEmpty() && !package.architecture.contains(QLatin1Char('/')))
        candidates << dir + package.name + QLatin1Char(':') + package.architecture + QStringLiteral(".list");
    for (const QString& path : candidates) {
        struct stat st;
        if (::stat(QFile::encodeName(path).constData(), &st) == 0)
            return QDateTime::fromSecsSinceEpoch(st.st_mtime).toString(QStringLiteral("yyyyMMdd"));
    }
    return QString();
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
    static const QString kInstallDate = QStringLiteral("InstallDate");
    for (const Package& package : packages) {
        QJsonObject object = package.object;
        if (package.hasPackageLine)
            object.insert(kInstallDate, installDate(package));
        array.append(object);
    }
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
