#pragma once

// The web view's static files (HTML, CSS, JavaScript modules), compiled into
// the binary; a directory holding the same names (the package's
// /usr/share/edr-console/www, or $EDR_CONSOLE_WWW) is served instead when present.

#include <QString>

#include <string>

namespace httplib
{
struct Response;
}

class WebAssets
{
public:
    explicit WebAssets(QString directory = defaultDirectory());
    static QString defaultDirectory();

    // Fills the response for a page path ("/" is index.html); false when
    // there is no such file.
    bool serve(const std::string& path, httplib::Response& res) const;

    static const char* contentType(const std::string& path);

private:
    QString m_directory;
};
