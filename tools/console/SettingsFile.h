#pragma once

// The console's settings file: one "name = value" line per option, named as
// the long command-line option without its dashes ("admin-port = 7780").
// Lines starting with '#' or ';' and blank lines are ignored. Pure function.

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

namespace SettingsFile
{

// The settings as command-line arguments ("--admin-port=7780"), in file
// order, so that arguments given after them win. Nothing, and the reason with
// its line number in `error`, for a name not in `known`, a name given twice,
// a line without '=' or without a value.
std::optional<QStringList> toArguments(const QByteArray& text, const QStringList& known, QString* error);

} // namespace SettingsFile
