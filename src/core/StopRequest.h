#pragma once

// Lets long blocking work (HTTP transfers, child-process waits) notice that a
// termination signal arrived: the signal handler writes to a self-pipe whose
// read end is registered here, and pending() polls it without consuming.
class StopRequest
{
public:
    static void setSignalFd(int fd);
    static bool pending();
};
