// The part of libcurl's easy interface that the HTTPS transport uses, as a
// table of functions.
//
// Windows links the static libcurl and fills the table with its functions.
// Linux loads "libcurl.so.4" the first time a transfer needs it: linking
// libcurl would cost every run of the tool the library's start-up, also the
// runs that never talk to a server. A missing library or function is an
// error text, never a crash.
//
// Internal to src/comm: only the transport includes it.
#pragma once

#include <curl/curl.h>

#include "foundation/string.h"

struct CurlApi {
    CURLcode (*globalInit)(long flags);
    void (*globalCleanup)();
    CURL* (*easyInit)();
    void (*easyCleanup)(CURL* handle);
    CURLcode (*easySetopt)(CURL* handle, CURLoption option, ...);
    CURLcode (*easyPerform)(CURL* handle);
    CURLcode (*easyGetinfo)(CURL* handle, CURLINFO info, ...);
    curl_slist* (*slistAppend)(curl_slist* list, const char* line);
    void (*slistFreeAll)(curl_slist* list);
};

// The table, loading libcurl on the first call. nullptr when libcurl cannot
// be had; curlApiError() then says why. Later calls repeat the first
// answer.
const CurlApi* curlApi();
STRING curlApiError();

// Whether this process has loaded libcurl (always true on Windows).
bool curlApiLoaded();

#ifndef _WIN32
// Loads the table from the named shared library. false, with the reason in
// error, when the library or one of the functions is missing.
bool loadCurlApi(const char* library, CurlApi& api, STRING& error);
#endif
