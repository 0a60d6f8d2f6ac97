#pragma once

#include "core/HostPaths.h"

#include <QString>

class SystemInformation
{
public:
    // The kernel's boot id (8-4-4-4-12 hex, 36 bytes). Returns false and leaves
    // id untouched unless exactly 36 bytes could be read.
    static bool bootUniqueId(QString& id, const HostPaths& host = HostPaths());
};
