// Windows: libcurl is linked statically (Schannel for TLS).
#include "comm/curl_api.h"

namespace {

const CurlApi kApi = {
    &curl_global_init, &curl_global_cleanup, &curl_easy_init,   &curl_easy_cleanup,    &curl_easy_setopt,
    &curl_easy_perform, &curl_easy_getinfo,  &curl_slist_append, &curl_slist_free_all,
};

}  // namespace

const CurlApi* curlApi() { return &kApi; }

STRING curlApiError() { return STRING(); }

bool curlApiLoaded() { return true; }
