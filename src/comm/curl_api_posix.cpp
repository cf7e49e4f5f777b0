// Linux: libcurl is loaded at run time, on first need.
#include <dlfcn.h>

#include <clocale>
#include <mutex>

#include "comm/curl_api.h"

namespace {

constexpr char kLibrary[] = "libcurl.so.4";

struct Loaded {
    std::once_flag once;
    bool ok = false;
    CurlApi api{};
    STRING error;
};

Loaded& loaded() {
    static Loaded state;
    return state;
}

template <class F>
bool bind(void* library, const char* name, F& slot, STRING& error) {
    void* symbol = dlsym(library, name);
    if (symbol == nullptr) {
        error = STRING(u"libcurl has no function ") + STRING::fromUtf8(name);
        return false;
    }
    slot = reinterpret_cast<F>(symbol);
    return true;
}

}  // namespace

bool loadCurlApi(const char* library, CurlApi& api, STRING& error) {
    // The library stays loaded for the rest of the process: its handles and
    // global state may live until exit.
    void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* why = dlerror();
        error = STRING(u"libcurl could not be loaded: ") + STRING::fromUtf8(why ? why : library);
        return false;
    }
    CurlApi table{};
    const bool ok = bind(handle, "curl_global_init", table.globalInit, error) &&
                    bind(handle, "curl_global_cleanup", table.globalCleanup, error) &&
                    bind(handle, "curl_easy_init", table.easyInit, error) &&
                    bind(handle, "curl_easy_cleanup", table.easyCleanup, error) &&
                    bind(handle, "curl_easy_setopt", table.easySetopt, error) &&
                    bind(handle, "curl_easy_perform", table.easyPerform, error) &&
                    bind(handle, "curl_easy_getinfo", table.easyGetinfo, error) &&
                    bind(handle, "curl_slist_append", table.slistAppend, error) &&
                    bind(handle, "curl_slist_free_all", table.slistFreeAll, error);
    if (!ok) {
        error += STRING(u" (") + STRING::fromUtf8(library) + u")";
        dlclose(handle);
        return false;
    }
    api = table;
    return true;
}

const CurlApi* curlApi() {
    Loaded& s = loaded();
    std::call_once(s.once, [&s] {
        // libcurl reads host names in the environment's character encoding;
        // nothing else in the program depends on the C library's character
        // type locale, so it is taken from the environment only now.
        std::setlocale(LC_CTYPE, "");
        s.ok = loadCurlApi(kLibrary, s.api, s.error);
    });
    return s.ok ? &s.api : nullptr;
}

STRING curlApiError() {
    curlApi();
    return loaded().error;
}

bool curlApiLoaded() {
    // Asks the dynamic linker without loading anything.
    void* handle = dlopen(kLibrary, RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) return false;
    dlclose(handle);
    return true;
}
