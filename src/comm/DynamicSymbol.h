#pragma once

#include <dlfcn.h>
#include <string>

// Looks one symbol up in a library opened with dlopen; on failure the missing
// name goes to error, so the caller can log why the library is unusable.
template <typename T> bool bindSymbol(void* handle, const char* name, T& slot, std::string& error)
{
    slot = reinterpret_cast<T>(::dlsym(handle, name));
    if (!slot)
        error = std::string("missing symbol ") + name;
    return slot != nullptr;
}
