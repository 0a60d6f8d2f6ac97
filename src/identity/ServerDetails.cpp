#include "identity/ServerDetails.h"

#include "core/CLogger.h"
#include "core/Common.h"

#include <QFile>
#include <QSettings>
#include <QVariant>

#include <cctype>
#include <cerrno>

ServerDetails* ServerDetails::s_instance = nullptr;

ServerDetails* ServerDetails::getInstance()
{
    if (!s_instance)
        s_instance = new ServerDetails();
    return s_instance;
}

void ServerDetails::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

QString ServerDetails::settingsFilePath()
{
    return Common::getSettingsPath() + QStringLiteral("/serverip.ini");
}

// The address keys live in group "server", the ports and version in "Server":
// INI groups are case-sensitive, so these are two groups of the file.
QString ServerDetails::readText(const char* group, const char* key, const char* defaultValue)
{
    QSettings settings(settingsFilePath(), QSettings::IniFormat);
    settings.beginGroup(QLatin1String(group));
    const QVariant v = settings.value(QLatin1String(key), QLatin1String(defaultValue));
    settings.endGroup();
    if (v.type() == QVariant::StringList)
        return v.toStringList().join(QLatin1Char(','));
    return v.toString();
}

// A port that is not a number in 1-65535 is refused with a line naming the
// key; 0 tells the caller there is no usable port (never "any port").
int ServerDetails::readPort(const char* key, const char* defaultValue)
{
    const QString text = readText("Server", key, defaultValue).trimmed();
    bool ok = false;
    const int port = text.toInt(&ok, 10);
    if (ok && port >= 1 && port <= 65535)
        return port;
    EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "%s in serverip.ini is not a port number (1-65535): '%s'", key,
                   qUtf8Printable(text));
    return 0;
}

QString ServerDetails::getServerIP() const
{
    QString ip = readText("server", "EDRIP", "NA");
    if (ip == QLatin1String("NA"))
        ip = readText("server", "ACIP", "NA");
    return ip;
}

int ServerDetails::getServerPort() const
{
    return readPort("EDRPORT", "7777");
}

QString ServerDetails::getServerAPIVersion() const
{
    return readText("Server", "EDRSAPIVER", "v1");
}

int ServerDetails::getServerSocketPort() const
{
    return readPort("EDRSPORT", "3098");
}

int ServerDetails::getAgentListenPort() const
{
    return readPort("EDRSLPORT", "3097");
}

bool ServerDetails::getTlsEnabled() const
{
    const QString v = readText("Server", "EDRTLS", "0").trimmed();
    return !v.isEmpty() && v != QLatin1String("0");
}

QString ServerDetails::getTlsCaFile() const
{
    return readText("Server", "EDRCAFILE", "").trimmed();
}

// Read from the file's own lines: the INI reader ends a value at its first
// ';', which would keep only the first of several pins.
QString ServerDetails::getTlsPinnedKeys() const
{
    QFile file(settingsFilePath());
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return pinnedKeysFromIni(file.read(kMaxIniBytes));
}

namespace
{
// "word//..." is a pin entry, whatever its algorithm (a wrong one is refused
// later, by name); anything else after a ';' starts a comment.
bool looksLikePin(const QByteArray& entry)
{
    const int slashes = entry.indexOf("//");
    if (slashes <= 0)
        return false;
    for (int i = 0; i < slashes; ++i)
        if (!std::isalnum(static_cast<unsigned char>(entry.at(i))))
            return false;
    return true;
}

QByteArray pinsFromValue(const QByteArray& raw)
{
    const QByteArray value = raw.trimmed();
    if (value.startsWith('"')) {
        const int end = value.indexOf('"', 1);
        return value.mid(1, end < 0 ? -1 : end - 1).trimmed();
    }
    const QList<QByteArray> parts = value.split(';');
    QByteArray pins = parts.first().trimmed();
    for (int i = 1; i < parts.size(); ++i) {
        const QByteArray entry = parts.at(i).trimmed();
        if (entry.isEmpty())
            continue;
        if (!looksLikePin(entry))
            break;
        pins += ';' + entry;
    }
    return pins;
}
} // namespace

QString ServerDetails::pinnedKeysFromIni(const QByteArray& ini)
{
    QByteArray pins;
    bool inGroup = false;
    const QList<QByteArray> lines = ini.split('\n');
    for (int n = 0; n < lines.size(); ++n) {
        QByteArray line = lines.at(n).trimmed(); // CR included
        if (n == 0 && line.startsWith("\xEF\xBB\xBF"))
            line = line.mid(3).trimmed();
        if (line.startsWith('[')) {
            const int end = line.indexOf(']');
            inGroup = end > 0 && line.mid(1, end - 1) == "Server";
            continue;
        }
        const int equals = line.indexOf('=');
        if (inGroup && equals > 0 && line.left(equals).trimmed() == "EDRPINNEDKEY")
            pins = pinsFromValue(line.mid(equals + 1)); // the last one counts, as for the INI reader
    }
    return QString::fromUtf8(pins);
}

QStringList ServerDetails::getConfiguredServerAddresses() const
{
    QStringList out;
    for (const char* key : {"EDRIP", "ACIP"}) {
        const QString v = readText("server", key, "NA");
        if (v != QLatin1String("NA") && !v.isEmpty())
            out << v;
    }
    return out;
}
