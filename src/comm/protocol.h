// Words of the agent's message protocol with the management server.
//
// Every word is compared case-sensitively and exactly. They are plain UTF-16
// literals: each converts to STRING, formats with "%s" and concatenates with
// STRING, and needs no construction at start-up.
#pragma once

#include <cstddef>

namespace protocol {

// ---- HTTP header lines of a request and of a reply

inline constexpr char16_t kHeaderGuid[] = u"Corvane-GUID";
inline constexpr char16_t kHeaderCharset[] = u"Corvane-Charset";
inline constexpr char16_t kHeaderContentType[] = u"Content-Type";
inline constexpr char16_t kContentType[] = u"application/x-corvane";
inline constexpr char16_t kHeaderFormatVersion[] = u"Corvane-Format-Version";
inline constexpr char16_t kFormatVersion[] = u"1.0";
// Reply only: the server's numeric error code.
inline constexpr char16_t kHeaderError[] = u"Corvane-Error";

// Character set words. A reply whose charset header is exactly kCharsetWide
// carries its error texts as UTF-16LE.
inline constexpr char16_t kCharsetWide[] = u"UTF-16LE";
inline constexpr char16_t kCharsetDefault[] = u"UTF-8";

// ---- Section header lines ("key=value")

inline constexpr char16_t kDataFormat[] = u"Data-Format";
inline constexpr char16_t kDataType[] = u"Data-Type";
inline constexpr char16_t kDataLength[] = u"Data-Length";
// The line that closes a message.
inline constexpr char16_t kEofFlag[] = u"EOF_FLAG";

// Data-Format values.
inline constexpr char16_t kFormatTextPlain[] = u"text/plain";
inline constexpr char16_t kFormatTextXml[] = u"text/xml";
inline constexpr char16_t kFormatBinaryZip[] = u"binary/zip";

// Data-Type values.
inline constexpr char16_t kTypeProperties[] = u"properties";
inline constexpr char16_t kTypePolicy[] = u"policy";
inline constexpr char16_t kTypeZipData[] = u"zipdata";
inline constexpr char16_t kTypeStackTrace[] = u"stacktrace";
inline constexpr char16_t kTypeLogRule[] = u"logrule";

// The key of the name-value text that follows an uploaded log file.
inline constexpr char16_t kFileName[] = u"file.name";

// The error text of a "stacktrace" section that came with no text.
inline constexpr char16_t kNoServerErrorText[] = u"Server did not return any error string.";

// ---- Name-value keys exchanged in "properties" sections

inline constexpr char16_t kUpdateConfigModTime[] = u"update.config.modtime";
inline constexpr char16_t kUpdateConfigModTimeIds[] = u"update.config.modtime.ids";
inline constexpr char16_t kPolicyName[] = u"policy.name";
inline constexpr char16_t kPolicyPath[] = u"policy.path";
inline constexpr char16_t kResultErrorCode[] = u"result.errorcode";
inline constexpr char16_t kResultErrorMessage[] = u"result.errormessage";
inline constexpr char16_t kResultType[] = u"result.type";
inline constexpr char16_t kRidApplied[] = u"rid.applied";
inline constexpr char16_t kRidGroup[] = u"rid.group";
inline constexpr char16_t kVersionSoftware[] = u"version.software";
inline constexpr char16_t kGuid[] = u"guid";

// Request flags of the update poll (sent with the value kTrue; the reply
// answers with the same name, and a download follows as the next section).
inline constexpr char16_t kTrue[] = u"true";
inline constexpr char16_t kFalse[] = u"false";
inline constexpr char16_t kUpdateConfiguration[] = u"update.configuration";
inline constexpr char16_t kUpdatePolicy[] = u"update.policy";
inline constexpr char16_t kUpdateSoftware[] = u"update.software";
inline constexpr char16_t kUpdatePolicyIds[] = u"update.policy.ids";
inline constexpr char16_t kUpdateConfigurationIds[] = u"update.configuration.ids";
inline constexpr char16_t kAvStopScan[] = u"av.stop.scan";
inline constexpr char16_t kAvStartScan[] = u"av.start.scan";
inline constexpr char16_t kUpdateQel[] = u"update.qel";
inline constexpr char16_t kUpdateVeltriumRevocation[] = u"update.veltrium.revocation";
inline constexpr char16_t kUpdateVeltriumSettings[] = u"update.veltrium.settings";
inline constexpr char16_t kUpdateVeltriumTesvt[] = u"update.veltrium.tesvt";

// Application data results.
inline constexpr char16_t kAppData[] = u"app.data";
inline constexpr char16_t kApplicationRequestId[] = u"application.requestID";
inline constexpr char16_t kApplicationRequestComplete[] = u"application.request.complete";

// Short key words of the protocol's vocabulary. Nothing in this program
// sends them; they are kept so that the vocabulary is complete.
inline constexpr char16_t kTid[] = u"tid";
inline constexpr char16_t kEc[] = u"ec";
inline constexpr char16_t kEm[] = u"em";
inline constexpr char16_t kAn[] = u"an";
inline constexpr char16_t kAv[] = u"av";
inline constexpr char16_t kAa[] = u"aa";
inline constexpr char16_t kAgp[] = u"agp";
inline constexpr char16_t kAos[] = u"aos";
inline constexpr char16_t kAcp[] = u"acp";
inline constexpr char16_t kCpe[] = u"cpe";
inline constexpr char16_t kCpi[] = u"cpi";
inline constexpr char16_t kCte[] = u"cte";
inline constexpr char16_t kCtp[] = u"ctp";
inline constexpr char16_t kCre[] = u"cre";
inline constexpr char16_t kCrt[] = u"crt";
inline constexpr char16_t kCrv[] = u"crv";
inline constexpr char16_t kCce[] = u"cce";
inline constexpr char16_t kCcd[] = u"ccd";
inline constexpr char16_t kEt[] = u"et";
inline constexpr char16_t kEs[] = u"es";

}  // namespace protocol

// The kind of a request. Its URL word is appended directly (no separator) to
// the server's base URL.
enum class MessageKind : int {
    Register = 0,        // registration; no GUID header
    Update = 1,          // polls for configuration, policy, software and content
    Result = 2,          // the result of an applied update
    Log = 3,             // single and multiple log messages
    TestConnection = 4,  // no GUID header; a failure never fails over
    BulkLog = 5,         // one log file (buildBulkLogMessage); no failover
    ApplicationData = 6  // a second result kind, same word as Result
};

inline constexpr int kMessageKindCount = 7;

// The URL words, indexed by MessageKind.
inline constexpr const char16_t* kMessageKindWords[kMessageKindCount] = {
    u"register", u"update", u"result", u"log", u"testConnection", u"bulk-log", u"result"};

// An empty word for a value outside the table.
inline constexpr const char16_t* messageKindWord(MessageKind kind) {
    const int i = static_cast<int>(kind);
    return i >= 0 && i < kMessageKindCount ? kMessageKindWords[i] : u"";
}

// Whether a request of this kind carries the agent's GUID header.
inline constexpr bool messageKindSendsGuid(MessageKind kind) {
    return kind != MessageKind::Register && kind != MessageKind::TestConnection;
}
