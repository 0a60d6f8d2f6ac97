#pragma once

#include <QString>

// One entry of the schedule. Intervals count scheduler ticks (minutes); the
// task number of an entry is its position in the schedule list, not its ID.
class ScheduleInfo
{
public:
    ScheduleInfo();

    QString getScheduleName() const { return m_scheduleName; }
    void setScheduleName(const QString& name) { m_scheduleName = name; }

    unsigned int getScheduleID() const { return m_scheduleId; }
    void setScheduleID(unsigned int id) { m_scheduleId = id; }

    bool getEnable() const { return m_enable; }
    void setEnable(bool enable) { m_enable = enable; }

    bool getRunOnStart() const { return m_runOnStart; }
    void setRunOnStart(bool runOnStart) { m_runOnStart = runOnStart; }

    unsigned int getInterval() const { return m_interval; }
    void setInterval(unsigned int interval) { m_interval = interval; }

    unsigned int getRetryInterval() const { return m_retryInterval; }
    void setRetryInterval(unsigned int retryInterval) { m_retryInterval = retryInterval; }

    unsigned int getCurrentInterval() const { return m_currentInterval; }
    void setCurrentInterval(unsigned int currentInterval) { m_currentInterval = currentInterval; }

    // Wraps after 2^32 ticks, like the counter it models.
    void increaseCurrentInterval() { ++m_currentInterval; }

private:
    QString m_scheduleName;
    // Everything but the name is filled by the default schedule before use.
    unsigned int m_scheduleId = 0;
    bool m_enable = false;
    bool m_runOnStart = false;
    unsigned int m_interval = 0;
    unsigned int m_retryInterval = 0;
    unsigned int m_currentInterval = 0;
};
