#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "testing/child_process.h"

extern char** environ;

ChildProcess::~ChildProcess() {
    if (running()) {
        kill();
        wait();
    }
}

bool ChildProcess::start(const std::vector<STRING>& argv, const STRING& outputFile) {
    std::vector<std::string> args;
    for (const auto& a : argv) args.push_back(a.toUtf8());
    std::vector<char*> ptrs;
    for (auto& a : args) ptrs.push_back(&a[0]);
    ptrs.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string out = outputFile.toUtf8();
    if (!out.empty()) {
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    }
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, ptrs[0], &actions, nullptr, ptrs.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return false;
    pid_ = pid;
    return true;
}

int ChildProcess::wait() {
    if (pid_ < 0) return -1;
    int status = 0;
    if (waitpid(static_cast<pid_t>(pid_), &status, 0) < 0) return -1;
    pid_ = -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
}

void ChildProcess::kill() {
    if (pid_ >= 0) ::kill(static_cast<pid_t>(pid_), SIGKILL);
}

bool ChildProcess::running() const { return pid_ >= 0; }

STRING testExecutableDir() {
    char buf[4096];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return STRING(u".");
    std::string path(buf, static_cast<size_t>(n));
    return STRING::fromUtf8(path.substr(0, path.rfind('/')));
}

STRING siblingProgram(const char* name) { return testExecutableDir() + u"/" + STRING::fromUtf8(name); }

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

void setEnv(const char* name, const STRING& value) {
    if (value.empty()) ::unsetenv(name);
    else ::setenv(name, value.toUtf8().c_str(), 1);
}
