#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <optional>

// Pure reader of `flatpak list --app --columns=application,version,size,name,description`,
// which prints one tab-separated line per application when its output is not a terminal.
class FlatpakList
{
public:
    struct App {
        QString id;
        QString version; // empty when flatpak shows none
        QString size;    // report size text, empty when the column cannot be read
        QString name;
        QString description;
    };

    // Applications in the tool's order. Lines without the five columns or
    // with an id that is not an application id are counted in *skipped and
    // left out; nullopt when there were lines but none could be read.
    static std::optional<QVector<App>> parse(const QByteArray& output, int* skipped = nullptr);

    // Bytes of a size as flatpak prints it: "1.2 GB", "145.8 MB", "8.2 kB",
    // "512 bytes" (decimal units), "3.0 GiB" (binary units); the space may be
    // a non-breaking one and the decimal mark a comma.
    static std::optional<long long> bytesOf(const QString& text);

    // Application ids end up in file paths: reverse-DNS names only.
    static bool isApplicationId(const QString& id);
};
