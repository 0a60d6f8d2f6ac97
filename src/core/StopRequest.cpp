#include "core/StopRequest.h"

#include <atomic>

namespace
{
std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");
} // namespace

void StopRequest::request()
{
    g_stop.store(true);
}

bool StopRequest::pending()
{
    return g_stop.load();
}
