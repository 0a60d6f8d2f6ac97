#pragma once

// Lets long blocking work (HTTP transfers, child-process waits) notice that a
// termination signal arrived. The signal handler raises the flag for a stop
// (SIGTERM, SIGHUP) only: other signals the daemon catches, such as a request
// to deliver pending reports, must not abort whatever is running.
class StopRequest
{
public:
    // Async-signal-safe.
    static void request();
    static bool pending();
};
