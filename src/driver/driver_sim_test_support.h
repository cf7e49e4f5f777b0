// Tests against the driver simulator (tools/driver-sim) behind the real
// device protocol of the Linux build: a simulator on a socket in the test's
// scratch folder, with ZELIPS_DEVICE pointing at it.
#pragma once

#ifndef _WIN32

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "foundation/test_support.h"
#include "testing/child_process.h"

namespace testing_support {

class DriverSimulator {
public:
    // The device path of a scratch folder; the channel is pointed at it.
    explicit DriverSimulator(const ScratchDir& dir)
        : socket_(dir.path() / "dev"), scenario_(dir.path() / "scenario.txt"), log_(dir.path() / "sim.log") {
        setEnv("ZELIPS_DEVICE", path(socket_));
    }
    ~DriverSimulator() { stop(); }
    DriverSimulator(const DriverSimulator&) = delete;
    DriverSimulator& operator=(const DriverSimulator&) = delete;

    // Starts the simulator with these scenario lines and waits until it
    // accepts openers. The log of a previous run is kept and added to.
    ::testing::AssertionResult start(const std::vector<std::string>& scenario) {
        stop();
        {
            std::ofstream out(scenario_, std::ios::binary | std::ios::trunc);
            for (const auto& line : scenario) out << line << '\n';
        }
        std::error_code ec;
        std::filesystem::remove(socket_, ec);
        if (!child_.start({siblingProgram("driver_sim"), path(socket_), u"--scenario", path(scenario_), u"--log",
                           path(log_)})) {
            return ::testing::AssertionFailure() << "driver_sim did not start";
        }
        running_ = true;
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!std::filesystem::exists(socket_)) {
            if (std::chrono::steady_clock::now() > until) return ::testing::AssertionFailure() << "no socket";
            sleepMs(5);
        }
        return ::testing::AssertionSuccess();
    }

    // Ends the simulator; its socket file may stay, refusing openers.
    void stop() {
        if (!running_) return;
        child_.kill();
        child_.wait();
        running_ = false;
    }

    // The simulator's record, one event a line.
    std::vector<std::string> log() const {
        std::ifstream in(log_, std::ios::binary);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    // The request lines only.
    std::vector<std::string> requests() const {
        std::vector<std::string> out;
        for (const auto& line : log())
            if (line.rfind("request ", 0) == 0) out.push_back(line);
        return out;
    }

    // The "out=" capacity of each request line.
    std::vector<unsigned long> capacities() const {
        std::vector<unsigned long> out;
        for (const auto& line : requests()) {
            const size_t at = line.find(" out=");
            out.push_back(at == std::string::npos ? 0 : std::stoul(line.substr(at + 5)));
        }
        return out;
    }

    // Waits until a line equal to `line` is in the record.
    bool waitForLine(const std::string& line, int ms = 5000) const {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            for (const auto& l : log())
                if (l == line) return true;
            if (std::chrono::steady_clock::now() > until) return false;
            sleepMs(5);
        }
    }

    // How many lines equal `line`.
    size_t count(const std::string& line) const {
        size_t n = 0;
        for (const auto& l : log())
            if (l == line) ++n;
        return n;
    }

    // Waits until exactly `n` lines equal `line` (the simulator records some
    // events just after the channel has moved on).
    bool waitForCount(const std::string& line, size_t n, int ms = 5000) const {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            const size_t have = count(line);
            if (have == n) return true;
            if (have > n || std::chrono::steady_clock::now() > until) return false;
            sleepMs(5);
        }
    }

    std::filesystem::path socketPath() const { return socket_; }

private:
    static STRING path(const std::filesystem::path& p) { return STRING::fromUtf8(p.u8string()); }

    std::filesystem::path socket_;
    std::filesystem::path scenario_;
    std::filesystem::path log_;
    ChildProcess child_;
    bool running_ = false;
};

}  // namespace testing_support

#endif
