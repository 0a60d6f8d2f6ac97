#include "comm/CurlLibrary.h"

#include <dlfcn.h>
#include <mutex>
#include <string>

namespace {
CurlLibrary g_library;
const CurlLibrary* g_loaded = nullptr;
std::string g_error;

template <typename T>
bool bind(void* handle, const char* name, T& slot)
{
    slot = reinterpret_cast<T>(::dlsym(handle, name));
    if (!slot)
        g_error = std::string("missing symbol ") + name;
    return slot != nullptr;
}

void load()
{
    void* handle = ::dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = ::dlerror();
        g_error = why ? why : "libcurl.so.4 not found";
        return;
    }
    CurlLibrary& l = g_library;
    const bool ok = bind(handle, "curl_global_init", l.global_init) && bind(handle, "curl_easy_init", l.easy_init) &&
                    bind(handle, "curl_easy_setopt", l.easy_setopt) &&
                    bind(handle, "curl_easy_perform", l.easy_perform) &&
                    bind(handle, "curl_easy_cleanup", l.easy_cleanup) &&
                    bind(handle, "curl_slist_append", l.slist_append) &&
                    bind(handle, "curl_slist_free_all", l.slist_free_all) &&
                    bind(handle, "curl_mime_init", l.mime_init) && bind(handle, "curl_mime_addpart", l.mime_addpart) &&
                    bind(handle, "curl_mime_name", l.mime_name) && bind(handle, "curl_mime_data", l.mime_data) &&
                    bind(handle, "curl_mime_filedata", l.mime_filedata) && bind(handle, "curl_mime_free", l.mime_free) &&
                    bind(handle, "curl_easy_getinfo", l.easy_getinfo);
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
