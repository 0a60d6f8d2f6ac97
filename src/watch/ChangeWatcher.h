#pragma once

#include <QObject>
#include <QString>

// One source of host changes. A watcher only says that something of its
// task's kind changed; whether and when that is reported is decided elsewhere.
class ChangeWatcher : public QObject
{
    Q_OBJECT
public:
    ChangeWatcher(int task, QObject* parent = nullptr) : QObject(parent), m_task(task) {}

    int task() const { return m_task; }

    // Starts watching; false (after one Info line) when the mechanism is
    // missing here, and the task keeps its schedule only.
    virtual bool start() = 0;

    // True while the source is in the middle of a change (a package manager
    // holding its lock): a report now would catch it half done.
    virtual bool holdsBack() const { return false; }

signals:
    void changed(int task, const QString& what);

protected:
    void notifyChanged(const QString& what) { emit changed(m_task, what); }

private:
    int m_task;
};
