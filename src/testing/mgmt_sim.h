// Test support: the management-server simulator (tools/mgmt-server-sim) as a
// real HTTPS peer, with certificates made by scripts/make-test-certs.
//
// The simulator is a Linux program. The Linux tests start it beside
// themselves (<build>/bin). The Windows tests run under Wine, which starts a
// Linux program handed to CreateProcess as a Unix process: they find the
// simulator through ZELIPS_MGMT_SERVER_SIM (its Linux path), or else in
// <source>/build/linux/bin, and skip when there is none. Every file the two
// sides share lives under Wine's drive Z: (the Unix root), so each path has a
// native and a Unix form.
//
// The simulator is started through "/bin/sh launch.sh PROGRAM ARGS...", which
// first prints its process id: under Wine that is the only handle on a Unix
// process, which is stopped, paused and resumed with the shell's kill.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "foundation/string.h"
#include "testing/child_process.h"

namespace mgmt_sim {

// A file or folder as the test sees it and as a Unix peer sees it.
struct SharedPath {
    STRING native;
    std::string unix;
};

// The path for a Unix one (identity on Linux; Z: under Wine).
STRING nativeOf(const std::string& unixPath);

// The simulator program, or an empty path with the reason in why.
std::string simulatorPath(std::string& why);

// The test certificates (made once per build, shared by the test
// processes): ca, server, otherhost, other-ca, other-server (.pem, .key).
// Empty paths, with the reason in why, when they cannot be made.
SharedPath certificateFolder(std::string& why);

// A fresh folder for one test, named after it, removed at the end.
class Scratch {
public:
    Scratch();
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    SharedPath file(const std::string& name) const;
    // Writes the bytes to a file of the folder and returns its path.
    SharedPath write(const std::string& name, const std::string& bytes) const;

private:
    SharedPath path_;
};

// One request as the simulator recorded it.
struct Request {
    std::string tls, method, path, word;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // The value of a header (names compared without regard to case);
    // nullptr when absent.
    const std::string* header(const std::string& name) const;
};

// The requests' words ("testConnection", "update", ...), in order.
std::vector<std::string> words(const std::vector<Request>& requests);

// One simulator, with files of its own in the scratch folder.
class Server {
public:
    struct Options {
        std::string certificate = "server";  // a base name in the certificate folder
        std::string scenario;                // the scenario's text; empty: none
        std::string host = "127.0.0.1";
        int port = 0;                        // 0: a free one
        std::string tlsMax;                  // "1.1": refuse TLS 1.2 and later
    };

    Server(const Scratch& scratch, std::string name);
    ~Server() { stop(); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Starts the simulator and waits for its port. false, with the reason
    // in error(), when it did not come up.
    bool start(const Options& options);
    int port() const { return port_; }
    const std::string& error() const { return error_; }
    // The requests recorded so far.
    std::vector<Request> requests() const;
    // Holds the server still (it accepts connections but answers nothing)
    // and lets it go again.
    bool pause() { return signal("STOP"); }
    bool resume() { return signal("CONT"); }
    void stop() {
        if (pid_ > 0) signal("KILL");
    }

private:
    // Sends a signal ("KILL", "STOP", "CONT") and waits until it took effect.
    bool signal(const std::string& name);

    const Scratch& scratch_;
    std::string name_;
    ChildProcess process_;
    long long pid_ = -1;
    int port_ = 0;
    std::string error_;
};

}  // namespace mgmt_sim
