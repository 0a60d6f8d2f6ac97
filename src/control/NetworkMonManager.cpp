#include "control/NetworkMonManager.h"

#include "comm/ApiManager.h"
#include "comm/ReportSubmitter.h"
#include "core/CLogger.h"

#include <QDir>
#include <QThread>

#include <memory>

#include <cerrno>

NetworkMonManager* NetworkMonManager::s_instance = nullptr;

namespace
{
const QString kProcessName = QStringLiteral("ProcessName");
const QString kFilePath = QStringLiteral("FilePath");
const QString kProtocol = QStringLiteral("Protocol");
const QString kState = QStringLiteral("State");
const QString kPid = QStringLiteral("PID");

bool isSpace(QChar c)
{
    const ushort u = c.unicode();
    return u == ' ' || u == '\t' || u == '\n' || u == '\v' || u == '\f' || u == '\r';
}

QString column(const QStringList& columns, int i)
{
    return i < columns.size() ? columns.at(i) : QString();
}

// "addr:port" split at its last ':'. Without a ':' the whole text is taken
// for both halves, the way the string functions behave at index -1.
void putEndpoint(QJsonObject& record, const QString& endpoint, const QString& ipKey, const QString& portKey)
{
    const int colon = endpoint.lastIndexOf(QLatin1Char(':'));
    record.insert(ipKey, endpoint.left(colon));
    record.insert(portKey, endpoint.mid(colon + 1).toInt(nullptr, 10));
}

const QString kLocalIP = QStringLiteral("LocalIP");
const QString kLocalPort = QStringLiteral("LocalPort");
const QString kRemoteIP = QStringLiteral("RemoteIP");
const QString kRemotePort = QStringLiteral("RemotePort");
} // namespace

NetworkMonManager* NetworkMonManager::getInstance()
{
    if (!s_instance)
        s_instance = new NetworkMonManager();
    return s_instance;
}

void NetworkMonManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

NetworkMonManager::NetworkMonManager(const HostPaths& host, const ToolRunner& runner)
    : m_host(host), m_runner(runner), m_info(host)
{
}

QStringList NetworkMonManager::splitWhitespace(const QString& line, bool keepEmpty)
{
    QStringList parts;
    int start = 0;
    const int n = line.size();
    int i = 0;
    while (i < n) {
        if (!isSpace(line.at(i))) {
            ++i;
            continue;
        }
        if (keepEmpty || i > start)
            parts << line.mid(start, i - start);
        while (i < n && isSpace(line.at(i)))
            ++i;
        start = i;
    }
    if (keepEmpty || n > start)
        parts << line.mid(start);
    return parts;
}

int NetworkMonManager::getState(const QString& state)
{
    if (state.isEmpty() || state == QLatin1String("(LISTEN)"))
        return 2;
    if (state == QLatin1String("(ESTABLISHED)"))
        return 5;
    if (state == QLatin1String("(CLOSE_WAIT)"))
        return 8;
    if (state == QLatin1String("(TIME_WAIT)"))
        return 11;
    return 1;
}

int NetworkMonManager::getState(int state)
{
    // The kernel's numbering to ours; deliberately not the inverse of the
    // lsof table above.
    static const int kMap[] = {5, 3, 4, 6, 7, 11, 1, 8, 10, 2, 9, 12};
    if (state < 0 || state > 11)
        return state;
    return kMap[state];
}

QString NetworkMonManager::hexToIPv4(const QString& hex)
{
    bool ok = false;
    const uint v = hex.toUInt(&ok, 16);
    if (!ok)
        return QString();
    // The kernel writes the address as one little-endian word.
    return QStringLiteral("%1.%2.%3.%4").arg(v & 255).arg((v >> 8) & 255).arg((v >> 16) & 255).arg(v >> 24);
}

QString NetworkMonManager::hexToIPv6(const QString& hex)
{
    QStringList groups;
    for (int i = 0; i < 8; ++i)
        groups << hex.mid(i * 4, 4);
    QString text = groups.join(QLatin1Char(':'));
    text.replace(QStringLiteral("0000:0000:0000:0000:0000:0000:0000:0000"), QStringLiteral("::"));
    return text;
}

bool NetworkMonManager::isNumeric(const QString& text)
{
    for (const QChar c : text)
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return false;
    return true;
}

void NetworkMonManager::parseLsofOutput(const QByteArray& output, QJsonArray& listening,
                                        QJsonArray& connections)
{
    QStringList lines = QString::fromUtf8(output).split(QLatin1Char('\n'));
    // The column header goes, and so does whatever follows the last line feed.
    if (!lines.isEmpty())
        lines.removeFirst();
    if (!lines.isEmpty())
        lines.removeLast();
    for (const QString& line : qAsConst(lines)) {
        // COMMAND PID USER FD TYPE DEVICE SIZE/OFF NODE NAME [state]
        const QStringList columns = splitWhitespace(line, true);
        QJsonObject record;
        record.insert(kPid, column(columns, 1).toInt(nullptr, 10));
        record.insert(kProcessName, column(columns, 0));
        record.insert(kFilePath, column(columns, 0));
        record.insert(kProtocol, column(columns, 7));
        const int state = getState(column(columns, 9));
        record.insert(kState, state);
        const QString address = column(columns, 8);
        if (state == 2) {
            putEndpoint(record, address, kLocalIP, kLocalPort);
            listening.append(record);
        } else {
            const QStringList ends = address.split(QStringLiteral("->"));
            putEndpoint(record, column(ends, 0), kLocalIP, kLocalPort);
            putEndpoint(record, column(ends, 1), kRemoteIP, kRemotePort);
            connections.append(record);
        }
    }
}

void NetworkMonManager::parseSsOutput(const QByteArray& output, QJsonArray& listening,
                                      const std::function<QString(int)>& pathOfPid)
{
    const QStringList lines = QString::fromUtf8(output).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString& line : lines) {
        // Netid State Recv-Q Send-Q Local Peer [Process]
        const QStringList columns = splitWhitespace(line, false);
        QJsonObject record;
        // The process part is looked for in column 5, and only read when it
        // is really there: "(...)" with a name and a "pid=" piece.
        const QString peer = column(columns, 5);
        const int paren = peer.lastIndexOf(QLatin1Char('('));
        if (paren >= 0) {
            QString inner = peer.mid(paren + 1);
            inner.chop(2);
            const QStringList pieces = inner.split(QLatin1Char(','));
            if (pieces.size() >= 2) {
                const QString& pidPiece = pieces.at(1);
                const int pid = pidPiece.mid(pidPiece.indexOf(QLatin1Char('=')) + 1).toInt(nullptr, 10);
                record.insert(kProcessName, pieces.at(0));
                record.insert(kPid, pid);
                record.insert(kFilePath, pathOfPid ? pathOfPid(pid) : QString());
            }
        }
        putEndpoint(record, column(columns, 4), kLocalIP, kLocalPort);
        putEndpoint(record, peer, kRemoteIP, kRemotePort);
        record.insert(kProtocol, column(columns, 0));
        const QString state = column(columns, 1);
        if (state == QLatin1String("LISTEN") || state == QLatin1String("UNCONN"))
            record.insert(kState, 2);
        listening.append(record);
    }
}

void NetworkMonManager::parseConnectionTable(const QByteArray& table, int pid, const QString& protocol,
                                             const QString& processName, const QString& filePath,
                                             QJsonArray& listening, QJsonArray& connections)
{
    const bool v6 = protocol.endsWith(QLatin1Char('6'));
    const bool udp = protocol.startsWith(QLatin1String("UPD"));
    QStringList lines = QString::fromUtf8(table).split(QLatin1Char('\n'));
    if (!lines.isEmpty())
        lines.removeFirst(); // header
    for (const QString& line : qAsConst(lines)) {
        // "sl: local rem st ...": the slot number is right-aligned and loses
        // its leading blanks once it has 4 (TCP) or 5 (UDP) digits.
        const QStringList fields = splitWhitespace(line, false);
        if (fields.size() < 4)
            continue;
        const QString& local = fields.at(1);
        const QString& remote = fields.at(2);
        const int localColon = local.lastIndexOf(QLatin1Char(':'));
        const int remoteColon = remote.lastIndexOf(QLatin1Char(':'));
        if (localColon < 0 || remoteColon < 0)
            continue;
        const int kernelState = fields.at(3).toInt(nullptr, 16);
        QJsonObject record;
        record.insert(kPid, pid);
        record.insert(kProcessName, processName);
        record.insert(kFilePath, filePath);
        record.insert(kProtocol, protocol);
        record.insert(kState, getState(kernelState));
        const QString localHex = local.left(localColon);
        record.insert(kLocalIP, v6 ? hexToIPv6(localHex) : hexToIPv4(localHex));
        record.insert(kLocalPort, static_cast<int>(local.mid(localColon + 1).toUInt(nullptr, 16)));
        // Listening: a TCP socket in LISTEN (10), or a UDP socket that is not
        // connected (7).
        if (kernelState == 10 || (udp && kernelState == 7)) {
            listening.append(record);
        } else {
            const QString remoteHex = remote.left(remoteColon);
            record.insert(kRemoteIP, v6 ? hexToIPv6(remoteHex) : hexToIPv4(remoteHex));
            record.insert(kRemotePort, static_cast<int>(remote.mid(remoteColon + 1).toUInt(nullptr, 16)));
            connections.append(record);
        }
    }
}

bool NetworkMonManager::getNetworkPortList(QJsonObject& report)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    try {
        // ss runs beside lsof: the report then waits for the slower of the two
        // only. The helper thread is joined before anything is parsed, and on
        // every way out: a running QThread must never be destroyed.
        ToolResult ss;
        const auto joinAndDelete = [](QThread* thread) {
            thread->wait();
            delete thread;
        };
        std::unique_ptr<QThread, decltype(joinAndDelete)> ssThread(
            QThread::create([this, &ss] { ss = runSs(); }), joinAndDelete);
        ssThread->start();
        const ToolResult lsof =
            m_runner.run(QStringLiteral("lsof"),
                         {QStringLiteral("-P"), QStringLiteral("-n"), QStringLiteral("-i")}, m_toolTimeoutMs);
        ssThread.reset();

        QJsonArray listening;
        QJsonArray connections;
        if (!lsof.started || lsof.timedOut)
            EDR_LOG->Error(Q_FUNC_INFO, ENOENT, "lsof gave no answer (%s); no ports from it",
                           qUtf8Printable(lsof.errorText));
        else
            parseLsofOutput(lsof.standardOutput, listening, connections);
        appendListeningPorts(ss, listening);
        insertPortLists(report, listening, connections);
    } catch (...) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "CATCHED");
        return false;
    }
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return true;
}

// Each list goes into the report only when it has entries.
void NetworkMonManager::insertPortLists(QJsonObject& report, const QJsonArray& listening,
                                        const QJsonArray& connections)
{
    if (!listening.isEmpty())
        report.insert(QStringLiteral("ListeningPorts"), listening);
    if (!connections.isEmpty())
        report.insert(QStringLiteral("TCPConnections"), connections);
}

ToolResult NetworkMonManager::runSs() const
{
    return m_runner.run(QStringLiteral("ss"), {QStringLiteral("-tulnpH")}, m_toolTimeoutMs);
}

void NetworkMonManager::appendListeningPorts(const ToolResult& ss, QJsonArray& listening) const
{
    if (!ss.started || ss.timedOut) {
        EDR_LOG->Error(Q_FUNC_INFO, ENOENT, "ss gave no answer (%s); no ports from it",
                       qUtf8Printable(ss.errorText));
        return;
    }
    parseSsOutput(ss.standardOutput, listening, [this](int pid) { return m_info.getProcessPathByPID(pid); });
}

void NetworkMonManager::getListeningPorts(QJsonArray& listening)
{
    appendListeningPorts(runSs(), listening);
}

bool NetworkMonManager::getUsedPortList(QJsonObject& report)
{
    try {
        QDir proc(m_host.proc(QString()));
        if (!proc.exists() || !proc.isReadable()) {
            EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to open /proc directory.");
            return false;
        }
        QJsonArray listening;
        QJsonArray connections;
        const QStringList entries = proc.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::NoSort);
        for (const QString& entry : entries) {
            if (isNumeric(entry))
                getProcessDetails(entry.toInt(), listening, connections);
        }
        if (listening.isEmpty() && connections.isEmpty())
            EDR_LOG->Trace(Q_FUNC_INFO, "No Ports found!");
        insertPortLists(report, listening, connections);
    } catch (...) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "CATCHED");
        return false;
    }
    return true;
}

bool NetworkMonManager::getProcessDetails(int pid, QJsonArray& listening, QJsonArray& connections)
{
    const QString name = m_info.getProcessNameByPID(pid);
    const QString path = m_info.getProcessPathByPID(pid);
    const QString base = m_host.proc(QString::number(pid)) + QStringLiteral("/net/");
    parseConnectionFile(pid, base + QStringLiteral("tcp"), QStringLiteral("TCP"), name, path, listening,
                        connections);
    parseConnectionFile(pid, base + QStringLiteral("tcp6"), QStringLiteral("TCP6"), name, path, listening,
                        connections);
    // "UPD" is how the server spells it.
    parseConnectionFile(pid, base + QStringLiteral("udp"), QStringLiteral("UPD"), name, path, listening,
                        connections);
    parseConnectionFile(pid, base + QStringLiteral("udp6"), QStringLiteral("UPD6"), name, path, listening,
                        connections);
    return true;
}

bool NetworkMonManager::parseConnectionFile(int pid, const QString& path, const QString& protocol,
                                            const QString& processName, const QString& filePath,
                                            QJsonArray& listening, QJsonArray& connections)
{
    bool ok = false;
    const QByteArray table = HostPaths::readFile(path, &ok);
    if (!ok)
        return false;
    parseConnectionTable(table, pid, protocol, processName, filePath, listening, connections);
    return true;
}

bool NetworkMonManager::sendRptToServer(const QString&)
{
    return ReportSubmitter::submitReport(Q_FUNC_INFO, m_reportBusy, NETWORK_MONITORING,
                                         {"Failed to Network Ports Info.",
                                          "Successfully send Network Ports to server.",
                                          "Failed to send Network Ports to server."},
                                         [this](QJsonObject& body) { return collectReport(body); });
}
