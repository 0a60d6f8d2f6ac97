#include "comm/CurlLibrary.h"
#include "comm/DynamicSymbol.h"

#include <dlfcn.h>
#include <mutex>
#include <string>

namespace
{
CurlLibrary g_library;
const CurlLibrary* g_loaded = nullptr;
std::string g_error;

void load()
{
    void* handle = ::dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = ::dlerror();
        g_error = why ? why : "libcurl.so.4 not found";
        return;
    }
    CurlLibrary& l = g_library;
#define EDR_BIND(name) bindSymbol(handle, "curl_" #name, l.name, g_error)
    const bool ok = EDR_BIND(global_init) && EDR_BIND(easy_init) && EDR_BIND(easy_setopt) &&
                    EDR_BIND(easy_perform) && EDR_BIND(easy_cleanup) && EDR_BIND(slist_append) &&
                    EDR_BIND(slist_free_all) && EDR_BIND(mime_init) && EDR_BIND(mime_addpart) &&
                    EDR_BIND(mime_name) && EDR_BIND(mime_data) && EDR_BIND(mime_filedata) &&
                    EDR_BIND(mime_free) && EDR_BIND(easy_getinfo);
#undef EDR_BIND
    if (!ok)
        return;
    if (l.global_init(CURL_GLOBAL_ALL) != CURLE_OK) {
        g_error = "curl_global_init failed";
        return;
    }
    g_loaded = &g_library;
}
} // namespace

const CurlLibrary* CurlLibrary::get()
{
    static std::once_flag once;
    std::call_once(once, load);
    return g_loaded;
}

const char* CurlLibrary::error()
{
    return g_error.c_str();
}
