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
    const bool ok = bindSymbol(handle, "curl_global_init", l.global_init, g_error) &&
                    bindSymbol(handle, "curl_easy_init", l.easy_init, g_error) &&
                    bindSymbol(handle, "curl_easy_setopt", l.easy_setopt, g_error) &&
                    bindSymbol(handle, "curl_easy_perform", l.easy_perform, g_error) &&
                    bindSymbol(handle, "curl_easy_cleanup", l.easy_cleanup, g_error) &&
                    bindSymbol(handle, "curl_slist_append", l.slist_append, g_error) &&
                    bindSymbol(handle, "curl_slist_free_all", l.slist_free_all, g_error) &&
                    bindSymbol(handle, "curl_mime_init", l.mime_init, g_error) &&
                    bindSymbol(handle, "curl_mime_addpart", l.mime_addpart, g_error) &&
                    bindSymbol(handle, "curl_mime_name", l.mime_name, g_error) &&
                    bindSymbol(handle, "curl_mime_data", l.mime_data, g_error) &&
                    bindSymbol(handle, "curl_mime_filedata", l.mime_filedata, g_error) &&
                    bindSymbol(handle, "curl_mime_free", l.mime_free, g_error) &&
                    bindSymbol(handle, "curl_easy_getinfo", l.easy_getinfo, g_error);
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
