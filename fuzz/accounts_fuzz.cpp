// Account files and who/last output -> user records. The input holds the
// passwd, shadow, group, login.defs and last texts separated by 0x1e.
#include "inventory/UsersAccountManager.h"

#include <QList>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QList<QByteArray> parts = bytes.split('\x1e');
    UsersAccountManager::AccountFiles files;
    files.passwd = parts.value(0);
    files.shadow = parts.value(1);
    files.group = parts.value(2);
    files.loginDefs = parts.value(3);
    files.last = parts.value(4);
    UsersAccountManager::parseAccounts(files, QDate(2024, 5, 20));
    UsersAccountManager::parseWhoOutput(bytes);
    UsersAccountManager::parseLastLogons(bytes);
    return 0;
}
