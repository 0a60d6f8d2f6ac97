#pragma once

#include <QString>
#include <QStringList>

// Where the management server is. Every value comes from serverip.ini in the
// settings directory, read again on every call and never written.
class ServerDetails
{
public:
    static ServerDetails* getInstance();
    static void releaseInstance();

    QString getServerIP() const;         // [server] EDRIP, else ACIP, default "NA"
    int getServerPort() const;           // [Server] EDRPORT, default 7777
    QString getServerAPIVersion() const; // [Server] EDRSAPIVER, default "v1"
    int getServerSocketPort() const;     // [Server] EDRSPORT, default 3098
    int getAgentListenPort() const;      // [Server] EDRSLPORT, default 3097

    // TLS for both channels: [Server] EDRTLS (anything but "0" or absent turns
    // it on, so a mistyped value never falls back to plain), EDRCAFILE (PEM
    // bundle, empty: the system's trust store), EDRPINNEDKEY (every entry of
    // "sha256//A;sha256//B", joined by ';'; not checked here).
    bool getTlsEnabled() const;
    QString getTlsCaFile() const;
    QString getTlsPinnedKeys() const;

    // EDRPINNEDKEY of group [Server] in serverip.ini's text. Unquoted, each
    // ';' followed by "word//..." separates entries and any other ';' starts
    // a comment; a quoted value is taken whole.
    static QString pinnedKeysFromIni(const QByteArray& ini);

    // EDRIP and ACIP as configured (values other than "NA"), for the listener's allow-list.
    QStringList getConfiguredServerAddresses() const;

    static QString settingsFilePath();

private:
    ServerDetails() = default;
    static QString readText(const char* group, const char* key, const char* defaultValue);
    static int readPort(const char* key, const char* defaultValue);
    static constexpr qint64 kMaxIniBytes = 1024 * 1024;
    static ServerDetails* s_instance;
};
