// Starting and waiting for another program, for tests that need real peer
// processes (lock holders, concurrent writers).
#pragma once

#include <vector>

#include "foundation/string.h"

class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // argv[0] is the program's path. Standard output goes to outputFile
    // when one is given.
    bool start(const std::vector<STRING>& argv, const STRING& outputFile = STRING());
    // The exit status, or -1 when the process could not be waited for.
    int wait();
    void kill();
    bool running() const;

private:
    long long pid_ = -1;
    void* handle_ = nullptr;
};

// The folder of the running test executable.
STRING testExecutableDir();
// The path of a program built beside the tests ("config_peer" gets ".exe" on Windows).
STRING siblingProgram(const char* name);
void sleepMs(int ms);
// Sets (or, with an empty value, removes) an environment variable of this process.
void setEnv(const char* name, const STRING& value);
