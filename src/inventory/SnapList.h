#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <optional>

// Pure readers for what snapd tells about installed snaps: the table of
// `snap list --color=never --unicode=never` and a snap's meta/snap.yaml.
class SnapList
{
public:
    struct Snap {
        QString name;     // may carry an instance key: name_key
        QString version;  // empty when the table shows "-"
        QString revision; // digits, or x<digits> for a local install
    };

    // The active snaps in table order; revisions whose Notes say "disabled"
    // are left out. Columns are found by their header, so their order and
    // extra columns do not matter. nullopt when the first line is not a header
    // naming Name, Version and Rev. Rows that cannot be read are counted in
    // *skipped and left out.
    static std::optional<QVector<Snap>> parse(const QByteArray& output, int* skipped = nullptr);

    // The top-level "summary:" of a snap.yaml (plain, quoted or block
    // scalar), or empty when there is none.
    static QString summaryOf(const QByteArray& snapYaml);

    // Names and revisions end up in file paths: nothing that could leave a folder.
    static bool isSafeName(const QString& name);
    static bool isSafeRevision(const QString& revision);
};
