// Netlink sock_diag replies into socket records.
#include "core/SockDiag.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<SockDiag::Socket> out;
    int error = 0;
    SockDiag::parseReply(reinterpret_cast<const char*>(data), size, &out, &error);
    for (const SockDiag::Socket& s : out)
        if (s.localAddress.size() != s.remoteAddress.size() ||
            (s.localAddress.size() != 4 && s.localAddress.size() != 16))
            std::abort();
    return 0;
}
