#include "WebAssets.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <httplib.h>

#include <cctype>
#include <cstring>

// Generated at build time from www/: {path, bytes, size}, ended by a null path.
struct EmbeddedWebFile {
    const char* path;
    const unsigned char* data;
    size_t size;
};
extern const EmbeddedWebFile kEmbeddedWebFiles[];

namespace
{
constexpr qint64 kMaxFileBytes = 8 << 20;

bool safePath(const std::string& path)
{
    // Plain names only: no "..", no hidden files, no backslashes or NULs.
    if (path.empty() || path.size() > 200 || path[0] == '/')
        return false;
    for (const char c : path)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '/' || c == '.' || c == '-' || c == '_'))
            return false;
    return path.find("..") == std::string::npos && path.find("/.") == std::string::npos && path[0] != '.';
}
} // namespace

WebAssets::WebAssets(QString directory) : m_directory(std::move(directory)) {}

QString WebAssets::defaultDirectory()
{
    const QString env = qEnvironmentVariable("EDR_CONSOLE_WWW");
    return env.isEmpty() ? QStringLiteral("/usr/share/edr-console/www") : env;
}

const char* WebAssets::contentType(const std::string& path)
{
    static const std::pair<const char*, const char*> types[] = {{".html", "text/html; charset=utf-8"},
                                                                {".js", "text/javascript; charset=utf-8"},
                                                                {".css", "text/css; charset=utf-8"},
                                                                {".svg", "image/svg+xml"},
                                                                {".png", "image/png"},
                                                                {".ico", "image/x-icon"},
                                                                {".json", "application/json"},
                                                                {".txt", "text/plain; charset=utf-8"}};
    for (const auto& [ext, type] : types) {
        const size_t n = std::strlen(ext);
        if (path.size() >= n && path.compare(path.size() - n, n, ext) == 0)
            return type;
    }
    return "application/octet-stream";
}

bool WebAssets::serve(const std::string& requested, httplib::Response& res) const
{
    const std::string path = requested == "/" ? std::string("index.html") : requested.substr(1);
    if (requested.empty() || requested[0] != '/' || !safePath(path))
        return false;
    std::string body;
    bool found = false;
    if (!m_directory.isEmpty() && QFileInfo(m_directory).isDir()) {
        QFile f(QDir(m_directory).filePath(QString::fromStdString(path)));
        if (QFileInfo(f).isFile() && f.size() <= kMaxFileBytes && f.open(QIODevice::ReadOnly)) {
            body = f.readAll().toStdString();
            found = true;
        }
    } else {
        for (const EmbeddedWebFile* e = kEmbeddedWebFiles; e->path; ++e)
            if (path == e->path) {
                body.assign(reinterpret_cast<const char*>(e->data), e->size);
                found = true;
                break;
            }
    }
    if (!found)
        return false;
    res.status = 200;
    // Agents' data reaches these pages as text; the policy keeps anything
    // that slips through from running or loading from elsewhere.
    res.set_header("Content-Security-Policy", "default-src 'self'");
    res.set_header("X-Content-Type-Options", "nosniff");
    res.set_header("X-Frame-Options", "DENY");
    res.set_header("Referrer-Policy", "no-referrer");
    res.set_header("Cache-Control", "no-cache");
    res.set_content(body, contentType(path));
    return true;
}
