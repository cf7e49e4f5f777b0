// HttpsHandler: moves one message to the management server and its reply
// back, over HTTPS with libcurl's easy interface.
//
// Handlers are cheap and built per operation. What they share lives once per
// process:
//   - the libcurl easy handle, created by the first handler that needs it
//     (libcurl itself is loaded then, not before) and recreated after
//     communication errors;
//   - the TLS version selector: 6 (TLS 1.2 and later) until a connection test
//     fails, then 1 (TLS 1.0 and later) for the rest of the process;
//   - the time of the last attempt to return to the primary server, the
//     server address and host addresses last seen, and the outcome of the
//     last status check;
//   - the send lock, held by every transfer from the GUID check to its end.
//
// A send posts the request to <base URL><kind word> where the base URL is
//   scheme "://" <this handler's server> [":" port] "/" path
// taken from "agent.http.url". The server's certificate must chain to the
// trusted certificate file ("ssl.trustStore"); its host name is not
// compared. On a libcurl error (not for connection tests and log uploads)
// the handler re-resolves the server and, when its address has not changed,
// fails over to the next server of the list; on success it makes its own
// server the configuration's current one.
//
// Results: 0 success; a libcurl result code (positive); -1 for a setup
// failure (libcurl missing, an option refused) or a blank GUID (last result
// 91, error buffer "Guid is blank."). The status check turns a reply status
// above 200 into that status (positive) with the negated status as last
// result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "comm/https_message_generator.h"
#include "comm/protocol.h"
#include "comm/server_response.h"
#include "foundation/array.h"
#include "foundation/string.h"
#include "foundation/utils.h"

struct CurlApi;

class AgentConfig;

class HttpsHandler {
public:
    // The program's own result code for a request that needs a GUID the
    // agent does not have. It shares the error text table with libcurl's codes.
    static constexpr int kGuidBlank = 91;
    // libcurl's TLS version selectors: TLS 1.2 or later, TLS 1.0 or later.
    static constexpr long kTls12 = 6;
    static constexpr long kTls1x = 1;
    // The whole transfer may take this many seconds.
    static constexpr long kTransferTimeout = 300;
    static constexpr size_t kErrorBufferSize = 256;
    // The server name of a configuration that names none.
    static constexpr const char16_t* kUnknownServer = u"Unknown";

    // A handler for the configuration's current server.
    explicit HttpsHandler(AgentConfig& config);
    // A handler for the given server (host or address).
    HttpsHandler(AgentConfig& config, const STRING& server);

    HttpsHandler(const HttpsHandler&) = delete;
    HttpsHandler& operator=(const HttpsHandler&) = delete;

    // Posts the request (adding its GUID header where the kind needs one).
    // The reply is left in response(), the status in httpStatus(), libcurl's
    // text in errorBuffer().
    int send(MessageKind kind, HttpsMessageGenerator& request);

    // The status check that ends every exchange: -1 and libcurl codes pass
    // through (logged); a reply status above 200 fails with that status;
    // otherwise 0, and the reply body is parsed into response()'s sections.
    int statusCheck(int sendResult);

    // An empty testConnection request; when it fails while the TLS selector
    // is still 6, the selector becomes 1 and the request is sent once more.
    // With the status check, each send's result is replaced by the check's.
    int testConnection(bool withStatusCheck);

    // The words for a result code: -1 gives "Internal CURL Error : " and the
    // error buffer, 0 to 91 the error text table, anything else "Could not
    // understand the error " and the number.
    STRING errorText(int code) const;
    static STRING errorTableText(int code);
    // "Return status 400. Verify using Agent port versus Console port." for
    // 400, else "Return status " and the number.
    static STRING statusText(int status);
    // The reply's "Corvane-Error" (0 when it had none, text left alone);
    // otherwise the code, with text set to the reply's first "stacktrace"
    // text as one comma-separated-values field.
    int serverError(STRING& text) const;
    // A text as one field of a comma-separated-values line: enclosed in
    // double quotes (inner quotes doubled) when it holds a comma.
    static STRING csvField(const STRING& text);
    // What the front end shows for a failed exchange: the status text for a
    // failed reply status, else the error text of the code; followed by the
    // server's error code and text when the reply carried one.
    STRING failureText(int result) const;

    // Cleans the shared easy handle up and creates a new one.
    static void reinitialise();

    // ---- Message senders (https_handler_senders.cpp). Each builds its
    // request, sends it, runs the status check and returns the check's
    // result; what the reply brought is returned through the out arguments.

    enum class UpdatePoll { Configuration, Policy, Software, PolicyIds, ConfigurationIds, AvStopScan, AvStartScan };
    enum class ContentUpdate { Qel, VeltriumRevocation, VeltriumSettings, VeltriumTesvt };

    // Polls with one of the update flags; the reply stays in response().
    int sendUpdatePoll(UpdatePoll which);
    // New configuration pairs when the server answered
    // "update.configuration=true"; changed is false otherwise.
    int getConfiguration(PropertyList& pairs, bool& changed);
    // The policy archive that follows "update.policy=true" (or the IDS flag).
    int getPolicy(bool ids, ByteArray& policy, bool& received);
    int getSoftware(ByteArray& package, bool& received);
    int getCompUpdate(ContentUpdate which, ByteArray& content, bool& received);
    // One log record (one properties section), or several.
    int sendSingleLog(const PropertyList& record);
    int sendMultipleLogs(const std::vector<PropertyList>& records);
    // "result.type", "result.errorcode", "result.errormessage" and more pairs.
    int sendUpdateResult(const STRING& type, int errorCode, const STRING& errorMessage,
                         const PropertyList& extra = PropertyList());
    // The applied policy and the host's time zone, domain and OS version.
    int sendAgentStatus(int status, const STRING& statusText);
    // The applied policy and the configuration's policy state.
    int sendPolicyState();
    // "result.type=app.data" with the request id and whether it is complete,
    // and the data (when there is any) as a "zipdata" section.
    int sendApplicationData(const STRING& requestId, const STRING& data, bool moreData);
    // Uploads the file at path; the result of the status check.
    int sendBulkLog(const STRING& path);

    // ---- What the last exchange left

    const STRING& baseUrl() const { return baseUrl_; }
    const STRING& server() const { return server_; }
    const STRING& certificatePath() const { return certificatePath_; }
    int connectionTimeout() const { return connectionTimeout_; }
    int lastResult() const { return lastResult_; }
    std::string errorBuffer() const;
    int httpStatus() const { return httpStatus_; }
    const ServerResponse& response() const { return response_; }
    ServerResponse& response() { return response_; }
    AgentConfig& config() const { return config_; }

    // ---- Process-wide state

    // At the start of the communication component: the return-to-primary
    // clock starts now. libcurl is initialised later, by the first handler.
    static void processStart();
    // At its end: the shared handle is cleaned up and libcurl ended.
    static void processEnd();
    static long tlsSelector();
    // The communication debug switch: libcurl's verbose output goes to
    // standard output through debugPrinter. Initially on when the
    // environment variable ZELIPS_DEBUG_COMM is set.
    static void setCommDebug(bool on);
    static bool commDebug();
    // Prints one piece of libcurl's verbose output (its info type 0 to 6)
    // under a title line; TLS records are not printed. Returns 0.
    static int debugPrinter(int infoType, const char* data, size_t size);
    // The seconds since an arbitrary start (the return-to-primary clock).
    static int64_t clockSeconds();
    // Tests: the TLS selector back to 6, the remembered addresses and check
    // outcome forgotten, the return-to-primary clock restarted.
    static void resetProcessStateForTests();

private:
    void initialise(const STRING& server);
    void composeBaseUrl();
    void returnToPrimary(MessageKind kind);
    void afterCommunicationError();
    void afterSuccess(MessageKind kind);
    void setErrorBuffer(const std::string& text);
    void saveConfiguration();
    int sendProperties(MessageKind kind, const PropertyList& pairs);
    // The request's body: the serialised sections, or for a log upload the
    // file framed by its sections (kept in bulkLog); false, with the error
    // buffer set, when it cannot be made.
    bool requestBody(MessageKind kind, HttpsMessageGenerator& request, ByteArray& body,
                     std::unique_ptr<ByteArray>& bulkLog);
    // The transfer's options on the shared handle (a CURL*); false at the
    // first that libcurl refuses.
    bool setTransferOptions(const CurlApi& api, void* handle, long tlsSelector, const std::string& url,
                            const std::string& caFile, void* headers, const uint8_t* postData, long postSize);

    STRING baseUrl_;
    STRING server_;
    STRING certificatePath_;
    int connectionTimeout_ = 0;
    STRING spare_;
    int lastResult_ = 0;
    char errorBuffer_[kErrorBufferSize] = {};
    int httpStatus_ = 0;
    ServerResponse response_;
    AgentConfig& config_;
};
