#include "comm/https_handler.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "comm/curl_api.h"
#include "comm/network_address.h"
#include "config/agent_config.h"
#include "config/server_url.h"
#include "foundation/console.h"
#include "foundation/log.h"
#include "foundation/process_role.h"

namespace {

constexpr char16_t kSendLabel[] = u"HttpsHandler::send";
constexpr char16_t kHandlerLabel[] = u"HttpsHandler";

// libcurl's global initialisation for SSL and for the Win32 socket layer.
constexpr long kGlobalInitFlags = 3;

// Error texts indexed by libcurl result code; the rows libcurl does not
// name (90, 91) and a few others carry this program's own words.
const char16_t* const kErrorTable[] = {
    u"CURLE_OK",                                                           // 0
    u"CURLE_UNSUPPORTED_PROTOCOL",                                         // 1
    u"CURLE_FAILED_INIT",                                                  // 2
    u"CURLE_URL_MALFORMAT",                                                // 3
    u"CURLE_URL_MALFORMAT_USER",                                           // 4
    u"CURLE_COULDNT_RESOLVE_PROXY",                                        // 5
    u"AGENT COULDNT RESOLVE HOST",                                         // 6
    u"AGENT COULDNT CONNECT. Verify server IP,port and server is running",  // 7
    u"CURLE_FTP_WEIRD_SERVER_REPLY",                                       // 8
    u"CURLE_FTP_ACCESS_DENIED",                                            // 9
    u"CURLE_FTP_USER_PASSWORD_INCORRECT",                                  // 10
    u"CURLE_FTP_WEIRD_PASS_REPLY",                                         // 11
    u"CURLE_FTP_WEIRD_USER_REPLY",                                         // 12
    u"CURLE_FTP_WEIRD_PASV_REPLY",                                         // 13
    u"CURLE_FTP_WEIRD_227_FORMAT",                                         // 14
    u"CURLE_FTP_CANT_GET_HOST",                                            // 15
    u"CURLE_FTP_CANT_RECONNECT",                                           // 16
    u"CURLE_FTP_COULDNT_SET_BINARY",                                       // 17
    u"CURLE_PARTIAL_FILE",                                                 // 18
    u"CURLE_FTP_COULDNT_RETR_FILE",                                        // 19
    u"CURLE_FTP_WRITE_ERROR",                                              // 20
    u"CURLE_FTP_QUOTE_ERROR",                                              // 21
    u"CURLE_HTTP_RETURNED_ERROR",                                          // 22
    u"CURLE_WRITE_ERROR",                                                  // 23
    u"CURLE_MALFORMAT_USER",                                               // 24
    u"CURLE_FTP_COULDNT_STOR_FILE",                                        // 25
    u"CURLE_READ_ERROR",                                                   // 26
    u"CURLE_OUT_OF_MEMORY",                                                // 27
    u"CONNECTION OPERATION TIMED OUT BETWEEN SERVER AND AGENT",            // 28
    u"CURLE_FTP_COULDNT_SET_ASCII",                                        // 29
    u"CURLE_FTP_PORT_FAILED",                                              // 30
    u"CURLE_FTP_COULDNT_USE_REST",                                         // 31
    u"CURLE_FTP_COULDNT_GET_SIZE",                                         // 32
    u"CURLE_HTTP_RANGE_ERROR",                                             // 33
    u"CURLE_HTTP_POST_ERROR",                                              // 34
    u"CURLE_SSL_CONNECT_ERROR. Generic SSL connection error.",             // 35
    u"CURLE_BAD_DOWNLOAD_RESUME",                                          // 36
    u"CURLE_FILE_COULDNT_READ_FILE",                                       // 37
    u"CURLE_LDAP_CANNOT_BIND",                                             // 38
    u"CURLE_LDAP_SEARCH_FAILED",                                           // 39
    u"CURLE_LIBRARY_NOT_FOUND",                                            // 40
    u"CURLE_FUNCTION_NOT_FOUND",                                           // 41
    u"CURLE_ABORTED_BY_CALLBACK",                                          // 42
    u"CURLE_BAD_FUNCTION_ARGUMENT",                                        // 43
    u"CURLE_BAD_CALLING_ORDER",                                            // 44
    u"CURLE_INTERFACE_FAILED",                                             // 45
    u"CURLE_BAD_PASSWORD_ENTERED",                                         // 46
    u"CURLE_TOO_MANY_REDIRECTS ",                                          // 47
    u"CURLE_UNKNOWN_TELNET_OPTION",                                        // 48
    u"CURLE_TELNET_OPTION_SYNTAX ",                                        // 49
    u"CURLE_OBSOLETE",                                                     // 50
    u"CURLE_SSL_PEER_CERTIFICATE",                                         // 51
    u"CURLE_GOT_NOTHING",                                                  // 52
    u"CURLE_SSL_ENGINE_NOTFOUND",                                          // 53
    u"CURLE_SSL_ENGINE_SETFAILED",                                         // 54
    u"CURLE_SEND_ERROR",                                                   // 55
    u"CURLE_RECV_ERROR",                                                   // 56
    u"CURLE_SHARE_IN_USE",                                                 // 57
    u"Certificate is bad",                                                 // 58
    u"CURLE_SSL_CIPHER",                                                   // 59
    u"Verify the agent certificate matches the server.",                   // 60
    u"CURLE_BAD_CONTENT_ENCODING",                                         // 61
    u"CURLE_LDAP_INVALID_URL",                                             // 62
    u"CURLE_FILESIZE_EXCEEDED",                                            // 63
    u"CURLE_FTP_SSL_FAILED",                                               // 64
    u"CURLE_SEND_FAIL_REWIND",                                             // 65
    u"CURLE_SSL_ENGINE_INITFAILED",                                        // 66
    u"CURLE_LOGIN_DENIED",                                                 // 67
    u"CURLE_TFTP_NOTFOUND",                                                // 68
    u"CURLE_TFTP_PERM",                                                    // 69
    u"CURLE_TFTP_DISKFULL",                                                // 70
    u"CURLE_TFTP_ILLEGAL",                                                 // 71
    u"CURLE_TFTP_UNKNOWNID",                                               // 72
    u"CURLE_TFTP_EXISTS",                                                  // 73
    u"CURLE_TFTP_NOSUCHUSER",                                              // 74
    u"CURLE_CONV_FAILED",                                                  // 75
    u"CURLE_CONV_REQD",                                                    // 76
    u"CURLE_SSL_CACERT_BADFILE",                                           // 77
    u"CURLE_REMOTE_FILE_NOT_FOUND",                                        // 78
    u"CURLE_SSH",                                                          // 79
    u"CURLE_SSL_SHUTDOWN_FAILED",                                          // 80
    u"CURLE_AGAIN",                                                        // 81
    u"CURLE_SSL_CRL_BADFILE",                                              // 82
    u"CURLE_SSL_ISSUER_ERROR",                                             // 83
    u"CURLE_FTP_PRET_FAILED",                                              // 84
    u"CURLE_RTSP_CSEQ_ERROR",                                              // 85
    u"CURLE_RTSP_SESSION_ERROR",                                           // 86
    u"CURLE_FTP_BAD_FILE_LIST",                                            // 87
    u"CURLE_CHUNK_FAILED",                                                 // 88
    u"CURLE_NO_CONNECTION_AVAILABLE",                                      // 89
    u"CURL_LAST",                                                          // 90
    u"Guid is blank.",                                                     // 91
};
constexpr int kErrorTableSize = static_cast<int>(sizeof kErrorTable / sizeof kErrorTable[0]);
static_assert(kErrorTableSize == 92, "one text per code 0 to 91");

// What all handlers of the process share.
struct ProcessState {
    // Guards the fields below except the send lock.
    std::recursive_mutex mutex;
    std::mutex sendLock;
    bool globalInitDone = false;
    CURL* handle = nullptr;
    long tlsSelector = HttpsHandler::kTls12;
    int64_t lastFailbackAttempt = 0;
    STRING lastServerAddress;
    std::vector<STRING> hostAddresses;
    bool lastCheckFailed = false;
    bool debugKnown = false;
    bool debug = false;
};

ProcessState& state() {
    static ProcessState s;
    return s;
}

// The shared handle, created (and libcurl initialised) on first need.
// Called with the state's mutex held.
void ensureHandle() {
    ProcessState& s = state();
    if (s.handle != nullptr) return;
    const CurlApi* api = curlApi();
    if (api == nullptr) return;
    if (!s.globalInitDone) {
        if (api->globalInit(kGlobalInitFlags) != CURLE_OK) trace(kSendLabel, u"Curl Global Init NULL\n");
        s.globalInitDone = true;
    }
    s.handle = api->easyInit();
}

int debugCallback(CURL*, curl_infotype type, char* data, size_t size, void*) {
    return HttpsHandler::debugPrinter(static_cast<int>(type), data, size);
}

// Frees a header list on every way out of a send.
class HeaderList {
public:
    explicit HeaderList(const CurlApi& api) : api_(api) {}
    ~HeaderList() {
        if (list_) api_.slistFreeAll(list_);
    }
    HeaderList(const HeaderList&) = delete;
    HeaderList& operator=(const HeaderList&) = delete;
    bool append(const std::string& line) {
        curl_slist* grown = api_.slistAppend(list_, line.c_str());
        if (grown == nullptr) return false;
        list_ = grown;
        return true;
    }
    curl_slist* get() const { return list_; }

private:
    const CurlApi& api_;
    curl_slist* list_ = nullptr;
};

}  // namespace

// ---- Construction

HttpsHandler::HttpsHandler(AgentConfig& config) : config_(config) { initialise(config.getCurrentServer()); }

HttpsHandler::HttpsHandler(AgentConfig& config, const STRING& server) : config_(config) { initialise(server); }

void HttpsHandler::initialise(const STRING& server) {
    baseUrl_.clear();
    spare_.clear();
    lastResult_ = 0;
    std::memset(errorBuffer_, 0, sizeof errorBuffer_);
    httpStatus_ = 0;
    response_.reset();
    {
        std::lock_guard<std::recursive_mutex> lock(state().mutex);
        ensureHandle();
    }
    server_ = server;
    composeBaseUrl();
    certificatePath_ = config_.getSslTrustStore();
    connectionTimeout_ = config_.getAgentConnectionTimeout().toIntLenient();
}

void HttpsHandler::composeBaseUrl() {
    ServerUrl url = ServerUrl::parse(config_.getAgentHttpUrl());
    url.host = server_;
    baseUrl_ = url.compose();
}

std::string HttpsHandler::errorBuffer() const {
    return std::string(errorBuffer_, strnlen(errorBuffer_, sizeof errorBuffer_));
}

void HttpsHandler::setErrorBuffer(const std::string& text) {
    std::memset(errorBuffer_, 0, sizeof errorBuffer_);
    std::memcpy(errorBuffer_, text.data(), std::min(text.size(), sizeof errorBuffer_ - 1));
}

void HttpsHandler::saveConfiguration() { config_.UpdateAllIni(); }

// ---- Process-wide state

int64_t HttpsHandler::clockSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void HttpsHandler::processStart() {
    std::lock_guard<std::recursive_mutex> lock(state().mutex);
    state().lastFailbackAttempt = clockSeconds();
}

void HttpsHandler::processEnd() {
    ProcessState& s = state();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    // Nothing to end when no handler ever needed libcurl.
    if (!s.globalInitDone) return;
    const CurlApi* api = curlApi();
    if (s.handle != nullptr) api->easyCleanup(s.handle);
    s.handle = nullptr;
    api->globalCleanup();
    s.globalInitDone = false;
}

long HttpsHandler::tlsSelector() {
    std::lock_guard<std::recursive_mutex> lock(state().mutex);
    return state().tlsSelector;
}

void HttpsHandler::setCommDebug(bool on) {
    std::lock_guard<std::recursive_mutex> lock(state().mutex);
    state().debug = on;
    state().debugKnown = true;
}

bool HttpsHandler::commDebug() {
    ProcessState& s = state();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    if (!s.debugKnown) {
        s.debug = std::getenv("ZELIPS_DEBUG_COMM") != nullptr;
        s.debugKnown = true;
    }
    return s.debug;
}

void HttpsHandler::resetProcessStateForTests() {
    ProcessState& s = state();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    s.tlsSelector = kTls12;
    s.lastFailbackAttempt = clockSeconds();
    s.lastServerAddress.clear();
    s.hostAddresses.clear();
    s.lastCheckFailed = false;
}

void HttpsHandler::reinitialise() {
    ProcessState& s = state();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    const CurlApi* api = curlApi();
    if (api == nullptr) return;
    logMessage(catalog::COMM_REINIT, kHandlerLabel);
    if (s.handle != nullptr) api->easyCleanup(s.handle);
    s.handle = nullptr;
    ensureHandle();
    if (s.handle == nullptr) logMessage(catalog::COMM_REINIT_FAILED, kHandlerLabel);
}

int HttpsHandler::debugPrinter(int infoType, const char* data, size_t size) {
    const char16_t* title = u"Uknown CURL_INFOTYPE value : \n";
    bool binary = false;
    switch (infoType) {
    case CURLINFO_TEXT: title = u"Informational text : \n"; break;
    case CURLINFO_HEADER_IN: title = u"Header that server sent : \n"; break;
    case CURLINFO_HEADER_OUT: title = u"Header that agent is sending : \n"; break;
    case CURLINFO_DATA_IN: title = u"Data that the server sent : \n"; break;
    case CURLINFO_DATA_OUT: title = u"Data that the agent is sending : \n"; break;
    case CURLINFO_SSL_DATA_IN:
        title = u"Server has sent SSL/TLS (binary) data : \n";
        binary = true;
        break;
    case CURLINFO_SSL_DATA_OUT:
        title = u"Agent is sending SSL/TLS (binary) data : \n";
        binary = true;
        break;
    default: break;
    }
    STRING text(title);
    if (binary) text += u"!! SKIPPING BINARY DATA WHILE PRINTING !!\n\n";
    else if (data != nullptr) text += STRING::fromNarrow(std::string_view(data, size));
    consoleWrite(text);
    return 0;
}

// ---- Sending

void HttpsHandler::returnToPrimary(MessageKind kind) {
    if (kind == MessageKind::TestConnection || kind == MessageKind::BulkLog) return;
    const int interval = config_.getFailbackInterval();
    {
        std::lock_guard<std::recursive_mutex> lock(state().mutex);
        if (clockSeconds() - state().lastFailbackAttempt < interval) return;
    }
    const std::vector<STRING> servers = config_.getServerList();
    if (servers.empty() || servers.front().equalsIgnoreCase(server_)) return;
    const STRING primary = servers.front();
    HttpsHandler probe(config_, primary);
    if (probe.testConnection(false) == 0) {
        trace(kSendLabel, u"Connection to primary server successful");
        server_ = primary;
        composeBaseUrl();
        config_.setCurrentServer(primary);
        saveConfiguration();
    } else {
        trace(kSendLabel, u"Could not connect to the primary server");
    }
    std::lock_guard<std::recursive_mutex> lock(state().mutex);
    state().lastFailbackAttempt = clockSeconds();
}

bool HttpsHandler::requestBody(MessageKind kind, HttpsMessageGenerator& request, ByteArray& body,
                               std::unique_ptr<ByteArray>& bulkLog) {
    if (kind != MessageKind::BulkLog) {
        body = request.serialise();
        return true;
    }
    try {
        bulkLog = request.buildBulkLogMessage();
    } catch (const CommException& e) {
        setErrorBuffer((e.context() + u" : " + e.message()).toNarrow());
        return false;
    }
    if (!bulkLog) {
        setErrorBuffer("Unable to allocate memory for the buffer");
        return false;
    }
    return true;
}

bool HttpsHandler::setTransferOptions(const CurlApi& api, void* curl, long tlsSelector, const std::string& url,
                                      const std::string& caFile, void* headers, const uint8_t* postData,
                                      long postSize) {
    CURL* handle = static_cast<CURL*>(curl);
    const bool verbose = commDebug();
    auto set = [&](CURLoption option, auto value) { return api.easySetopt(handle, option, value) == CURLE_OK; };
    if (!set(CURLOPT_VERBOSE, verbose ? 1L : 0L)) return false;
    if (verbose) {
        if (!set(CURLOPT_DEBUGDATA, static_cast<void*>(this))) return false;
        if (!set(CURLOPT_DEBUGFUNCTION, &debugCallback)) return false;
    }
    const CURLcode bufferResult = api.easySetopt(handle, CURLOPT_ERRORBUFFER, errorBuffer_);
    if (bufferResult != CURLE_OK) {
        trace(kSendLabel, u"Error : Setting Error Buffer %d", static_cast<int>(bufferResult));
        return false;
    }
    if (!set(CURLOPT_SSLVERSION, tlsSelector)) return false;
    if (!set(CURLOPT_URL, url.c_str())) return false;
    trace(kSendLabel, u"Certificate Path : %s", certificatePath_);
    if (!set(CURLOPT_CAINFO, caFile.c_str())) return false;
    if (!set(CURLOPT_SSL_VERIFYPEER, 1L)) return false;
    if (!set(CURLOPT_SSL_VERIFYHOST, 0L)) return false;
    if (!set(CURLOPT_TIMEOUT, kTransferTimeout)) return false;
    if (!set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(connectionTimeout_))) return false;
    if (!set(CURLOPT_HTTPHEADER, static_cast<curl_slist*>(headers))) return false;
    if (!set(CURLOPT_POST, 1L)) return false;
    if (!set(CURLOPT_POSTFIELDS, static_cast<const void*>(postData))) return false;
    if (!set(CURLOPT_POSTFIELDSIZE, postSize)) return false;
    if (!set(CURLOPT_HEADERFUNCTION, &ServerResponse::headerInput)) return false;
    if (!set(CURLOPT_HEADERDATA, static_cast<void*>(&response_))) return false;
    if (!set(CURLOPT_WRITEFUNCTION, &ServerResponse::bodyInput)) return false;
    return set(CURLOPT_WRITEDATA, static_cast<void*>(&response_));
}

int HttpsHandler::send(MessageKind kind, HttpsMessageGenerator& request) {
    returnToPrimary(kind);

    ProcessState& s = state();
    std::lock_guard<std::mutex> sendLock(s.sendLock);

    if (messageKindSendsGuid(kind)) {
        const STRING guid = config_.getAgentId();
        if (guid.empty()) {
            lastResult_ = kGuidBlank;
            setErrorBuffer("Guid is blank.");
            return -1;
        }
        request.addGuid(guid);
    }

    const CurlApi* api = curlApi();
    CURL* handle = nullptr;
    long selector = kTls12;
    {
        std::lock_guard<std::recursive_mutex> lock(s.mutex);
        handle = s.handle;
        selector = s.tlsSelector;
    }
    if (api == nullptr || handle == nullptr) {
        logMessage(catalog::COMM_NO_HANDLE, kHandlerLabel);
        if (api == nullptr) setErrorBuffer(curlApiError().toUtf8());
        return -1;
    }

    const std::string url = (baseUrl_ + messageKindWord(kind)).toNarrow();
    const std::string caFile = certificatePath_.toNarrow();

    // The body must outlive the transfer.
    ByteArray body;
    std::unique_ptr<ByteArray> bulkLog;
    if (!requestBody(kind, request, body, bulkLog)) return -1;
    const uint8_t* postData = bulkLog ? bulkLog->data() : body.data();
    const long postSize = bulkLog ? static_cast<long>(request.builtLength()) : static_cast<long>(body.length());

    HeaderList headers(*api);
    for (const NameValuePair& h : request.headers())
        if (!headers.append((h.name + u": " + h.value).toNarrow())) return -1;
    if (!setTransferOptions(*api, handle, selector, url, caFile, headers.get(), postData, postSize)) return -1;

    response_.reset();
    std::memset(errorBuffer_, 0, sizeof errorBuffer_);
    const int result = static_cast<int>(api->easyPerform(handle));
    long status = 0;
    api->easyGetinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    httpStatus_ = static_cast<int>(status);
    lastResult_ = result;
    // The options point into this handler and this call: none of them may
    // outlive it on the shared handle.
    api->easySetopt(handle, CURLOPT_ERRORBUFFER, static_cast<char*>(nullptr));
    api->easySetopt(handle, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));

    if (result > 0 && kind != MessageKind::TestConnection && kind != MessageKind::BulkLog) afterCommunicationError();
    else if (result == 0) afterSuccess(kind);
    return result;
}

void HttpsHandler::afterCommunicationError() {
    ProcessState& s = state();
    bool reinit = false;

    const std::vector<STRING> addresses = hostAddresses();
    {
        std::lock_guard<std::recursive_mutex> lock(s.mutex);
        if (addresses != s.hostAddresses) {
            s.hostAddresses = addresses;
            reinit = true;
        }
    }
    if (!reinit) trace(kHandlerLabel, u"No change in Agent IP");

    if (server_.equalsIgnoreCase(config_.getCurrentServer())) {
        const STRING address = resolveHostAddress(server_);
        bool changed = false;
        {
            std::lock_guard<std::recursive_mutex> lock(s.mutex);
            if (address != s.lastServerAddress) {
                s.lastServerAddress = address;
                changed = true;
            }
        }
        if (changed) {
            reinit = true;
        } else {
            trace(kHandlerLabel, u"No change in Server IP");
            const std::vector<STRING> servers = config_.getServerList();
            if (!servers.empty()) {
                size_t next = 0;
                for (size_t i = 0; i < servers.size(); ++i)
                    if (servers[i].equalsIgnoreCase(server_)) {
                        next = (i + 1) % servers.size();
                        break;
                    }
                trace(kSendLabel, u"Will Failover to Server %s", servers[next]);
                config_.setCurrentServer(servers[next]);
                saveConfiguration();
            }
        }
    }

    if (reinit) {
        trace(kHandlerLabel, u"Reinitializing Curl on COMM Error");
        reinitialise();
    }
}

void HttpsHandler::afterSuccess(MessageKind kind) {
    const STRING current = config_.getCurrentServer();
    if (server_ == current) return;
    if (current != STRING(kUnknownServer)) {
        const auto moved =
            kind == MessageKind::TestConnection ? catalog::COMM_TEST_SERVER_CHANGED : catalog::COMM_SERVER_CHANGED;
        logMessage(moved, kSendLabel, server_, current);
    }
    config_.setCurrentServer(server_);
    saveConfiguration();
}

// ---- Status check and connection test

int HttpsHandler::statusCheck(int sendResult) {
    ProcessState& s = state();
    int result = sendResult;
    if (sendResult == -1) {
        const std::string narrow = errorBuffer();
        logMessage(catalog::COMM_INTERNAL, kHandlerLabel, STRING::fromNarrow(narrow));
    } else if (sendResult != 0) {
        lastResult_ = sendResult;
        logMessage(catalog::COMM_ERROR, kHandlerLabel, errorText(sendResult));
    } else if (httpStatus_ > 200) {
        // Any status above 200, also 201 to 299, is a failure.
        lastResult_ = -httpStatus_;
        logMessage(catalog::COMM_HTTP_STATUS, kHandlerLabel, statusText(httpStatus_));
        result = httpStatus_;
    } else {
        lastResult_ = 0;
        bool writeBack = false;
        STRING address;
        {
            std::lock_guard<std::recursive_mutex> lock(s.mutex);
            writeBack = s.lastCheckFailed;
            address = s.lastServerAddress;
        }
        if (writeBack && AgentType::get() != 4) saveConfiguration();
        logMessage(catalog::COMM_OK, kHandlerLabel, address);
        response_.parseBody();
    }
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    s.lastCheckFailed = result != 0;
    return result;
}

int HttpsHandler::testConnection(bool withStatusCheck) {
    trace(kSendLabel, u"Testing Connection");
    int result = 0;
    {
        HttpsMessageGenerator request(config_);
        result = send(MessageKind::TestConnection, request);
        if (withStatusCheck) result = statusCheck(result);
    }
    bool retry = false;
    {
        std::lock_guard<std::recursive_mutex> lock(state().mutex);
        if (result != 0 && state().tlsSelector == kTls12) {
            state().tlsSelector = kTls1x;
            retry = true;
        }
    }
    if (retry) {
        logMessage(catalog::COMM_ERROR, kHandlerLabel, u"SSL connection with TLS v1.2 failed. Retrying with TLS v1.x protocol");
        HttpsMessageGenerator request(config_);
        result = send(MessageKind::TestConnection, request);
        if (withStatusCheck) result = statusCheck(result);
    }
    return result;
}

// ---- Texts

STRING HttpsHandler::errorTableText(int code) {
    if (code >= 0 && code < kErrorTableSize) return kErrorTable[code];
    return STRING(u"Could not understand the error ") + STRING::number(code);
}

STRING HttpsHandler::errorText(int code) const {
    if (code == -1) {
        const std::string narrow = errorBuffer();
        STRING wide = STRING::fromNarrow(narrow);
        if (wide.empty() && !narrow.empty()) return u"Multibyte to wide char conversion error ";
        return STRING(u"Internal CURL Error : ") + wide;
    }
    return errorTableText(code);
}

STRING HttpsHandler::statusText(int status) {
    if (status == 400) return u"Return status 400. Verify using Agent port versus Console port.";
    return STRING(u"Return status ") + STRING::number(status);
}

STRING HttpsHandler::csvField(const STRING& text) {
    if (!text.contains(u',')) return text;
    return STRING(u"\"") + text.replaceAll(u"\"", u"\"\"") + u"\"";
}

int HttpsHandler::serverError(STRING& text) const {
    const int code = response_.errorCode();
    if (code == 0) return 0;
    text = csvField(response_.stackTrace());
    return code;
}

STRING HttpsHandler::failureText(int result) const {
    STRING text = lastResult_ < 0 && result == -lastResult_ ? statusText(result) : errorText(result);
    STRING serverText;
    const int code = serverError(serverText);
    if (code != 0) {
        text += STRING(u" (server error ") + STRING::number(code);
        if (!serverText.empty()) text += STRING(u": ") + serverText;
        text += u")";
    }
    return text;
}
