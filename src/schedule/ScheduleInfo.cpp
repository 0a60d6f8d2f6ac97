#include "schedule/ScheduleInfo.h"

ScheduleInfo::ScheduleInfo() : m_scheduleName(QLatin1String("")) {}
