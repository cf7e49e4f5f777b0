// curl_probe: one HTTPS request with libcurl's easy interface, set up as the
// agent's transport sets it up (peer verified against a CA file, host name
// not compared). Shows that the libcurl of a build can reach a server.
//
// Usage: curl_probe URL CAFILE [--tls1x] [--post BODY]
//   --tls1x  accept TLS 1.0 and later (libcurl's TLS 1.x selector, 1)
//            instead of TLS 1.2 and later (selector 6)
//   --post   POST BODY instead of a GET
//
// Prints "curl CODE http STATUS" (and libcurl's error text when CODE is not
// 0) and exits 0 when CODE is 0, else 1; 2 for a bad command line.
#include <curl/curl.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

size_t discard(char*, size_t size, size_t count, void*) { return size * count; }

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fputs("usage: curl_probe URL CAFILE [--tls1x] [--post BODY]\n", stderr);
        return 2;
    }
    long tls = CURL_SSLVERSION_TLSv1_2;
    const char* body = nullptr;
    for (int i = 3; i < argc; ++i) {
        if (std::strcmp(argv[i], "--tls1x") == 0) {
            tls = CURL_SSLVERSION_TLSv1;
        } else if (std::strcmp(argv[i], "--post") == 0 && i + 1 < argc) {
            body = argv[++i];
        } else {
            std::fprintf(stderr, "curl_probe: unknown option %s\n", argv[i]);
            return 2;
        }
    }

    if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK) {
        std::puts("curl_global_init failed");
        return 1;
    }
    CURL* curl = curl_easy_init();
    if (!curl) {
        std::puts("curl_easy_init failed");
        return 1;
    }
    char error[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl, CURLOPT_SSLVERSION, tls);
    curl_easy_setopt(curl, CURLOPT_URL, argv[1]);
    curl_easy_setopt(curl, CURLOPT_CAINFO, argv[2]);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
    if (body) {
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(std::strlen(body)));
    }
    CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    std::printf("curl %d http %ld\n", static_cast<int>(code), status);
    if (code != CURLE_OK) std::printf("error %s\n", error[0] ? error : curl_easy_strerror(code));
    curl_easy_cleanup(curl);
    curl_global_cleanup();
    return code == CURLE_OK ? 0 : 1;
}
