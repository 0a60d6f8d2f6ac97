// Schedule file reader: any bytes, including zero bytes and deep nesting,
// must parse or be refused without crashing, and an overlay must keep the
// schedule at 25 entries with counters untouched.
#include "schedule/ScheduleManager.h"
#include "schedule/ScheduleReader.h"
#include "schedule/TasksManager.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const QStringList names = TasksManager::taskNames();
    const QByteArray content(reinterpret_cast<const char*>(data), static_cast<int>(size));
    ScheduleReader reader(content);
    if (reader.parse() != ScheduleReader::Result::Parsed)
        return 0;
    QList<ScheduleInfo> schedules;
    ScheduleManager::fillDefaultSchedule(schedules, names);
    ScheduleManager::overlaySchedule(reader, names, schedules);
    if (schedules.size() != names.size())
        std::abort();
    for (const ScheduleInfo& entry : schedules)
        if (entry.getCurrentInterval() != 0)
            std::abort();
    return 0;
}
