// Server connection settings: -host, -port, -protocol, -certfile,
// -failbackinterval, -forcereg and the connection test.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "comm/agent_comm.h"
#include "config/agent_config.h"
#include "configtool/agent_config_tool.h"
#include "foundation/console.h"
#include "foundation/file_util.h"
#include "foundation/ids_exception.h"
#include "foundation/log.h"

namespace {


STRING trimSpaces(const STRING& s) {
    size_t b = 0, e = s.length();
    while (b < e && s[b] == u' ') ++b;
    while (e > b && s[e - 1] == u' ') --e;
    return s.substr(b, e - b);
}

// Copies the certificate byte for byte over the keystore; false on any failure.
bool copyCertificate(const STRING& source, const STRING& keystore) {
    // A folder opens for reading on Linux, and its "size" may be anything.
    FILE* in = WinFileAttributes().isDirectory(source) ? nullptr : openFile(source, "rb");
    long size = -1;
    if (in != nullptr && std::fseek(in, 0, SEEK_END) == 0) size = std::ftell(in);
    if (in == nullptr || size < 0) {
        if (in) std::fclose(in);
        ConsolePrint(u"Error in modifying cert file. Please check that the cert file exists and has the correct "
                     u"permissions.\n");
        return false;
    }
    std::string bytes(static_cast<size_t>(size), '\0');
    std::rewind(in);
    const size_t got = size > 0 ? std::fread(&bytes[0], 1, bytes.size(), in) : 0;
    std::fclose(in);
    bytes.resize(got);
    FILE* out = openFile(keystore, "wb");
    if (out == nullptr) {
        ConsolePrint(u"Error in modifying cert file. Could not open keystore.\n");
        return false;
    }
    const size_t written = bytes.empty() ? 0 : std::fwrite(bytes.data(), 1, bytes.size(), out);
    const bool closed = std::fclose(out) == 0;
    const bool complete = written == bytes.size() && closed && got == static_cast<size_t>(size);
    if (!complete) ConsolePrint(u"Error in modifying cert file. Could not write keystore.\n");
    ConsolePrint(u"The cert file has been modified \n");
    return complete;
}

}  // namespace

void AgentConfigTool::serverSettings(int index, const STRING& value) {
    if (value == STRING(u"HELP")) {
        printDetailedHelp(index, Table::Server);
        return;
    }
    bool ok = true;
    switch (index) {
    case kHost:
        config_->setServerList(trimSpaces(value));
        ConsolePrint(u"The Management Server host list has been modified \n");
        break;
    case kPort: {
        int port = 0;
        try {
            port = value.toInt();
        } catch (const IDSException&) {
            port = 0;
        }
        if (port < 1 || port > 65535) {
            ConsolePrint(u"The port number is invalid. Please specify a port between 1 and 65535.\n");
        } else {
            config_->setPort(port);
            ConsolePrint(u"The port setting has been modified.\n");
        }
        break;
    }
    case kProtocol: {
        const STRING protocol = value.toLower();
        if (protocol == STRING(u"http") || protocol == STRING(u"https")) {
            config_->setProtocol(protocol);
            ConsolePrint(u"The protocol has been modified. \n");
            ConsolePrint(u"You must restart the IPS Service to complete the change. \n");
        } else {
            printDetailedHelp(kProtocol, Table::Server);
        }
        break;
    }
    case kCertfile:
        ok = copyCertificate(value, config_->getSslTrustStore());
        break;
    case kFailbackInterval:
        // Minutes to seconds in the 32-bit arithmetic of the agent's
        // integers: there is no range check, a product out of range wraps.
        config_->setFailbackInterval(static_cast<int>(static_cast<uint32_t>(value.toIntLenient()) * 60u));
        ConsolePrint(u"The Failback Interval setting has been modified \n");
        break;
    case kForceReg:
        if (comm_ != nullptr) comm_->forceRegistration();
        else config_->setAgentId(STRING());
        ConfigToolLog::instance().logNumbered(catalog::FORCE_REREGISTER, u"AgentConfigTool::serverSettings");
        ConsolePrint(u"The agent will be forced to reregister \n");
        break;
    default:
        break;
    }
    const Option* setting = option(Table::Server, index);
    ConfigToolLog::instance().logNumbered(ok ? catalog::SETTING_CHANGED : catalog::SETTING_FAILED,
                                          u"AgentConfigTool::serverSettings", setting ? setting->longName : u"",
                                          value);
}

bool AgentConfigTool::testConnection(int entry) {
    const std::vector<STRING> servers = config_->getServerList();
    const STRING server = entry >= 1 && entry <= static_cast<int>(servers.size()) ? servers[entry - 1] : STRING();
    ConsolePrint(u"\nTesting connection to server %s\n", server);
    STRING error = u"The communication component is not available.";
    const int rc = comm_ != nullptr ? comm_->testServer(server, error) : -1;
    if (rc == 0) {
        ConsolePrint(u"\nConnection to server successful\n");
        return true;
    }
    ConsolePrint(u"\nCould not connect to server: %s\n", error);
    return false;
}
