#include <windows.h>

#include <cstdlib>

#include "testing/child_process.h"

ChildProcess::~ChildProcess() {
    if (running()) {
        kill();
        wait();
    }
    if (handle_) CloseHandle(static_cast<HANDLE>(handle_));
}

bool ChildProcess::start(const std::vector<STRING>& argv, const STRING& outputFile) {
    STRING cmd;
    for (const auto& a : argv) {
        if (!cmd.empty()) cmd += u' ';
        cmd += u'"';
        cmd += a;
        cmd += u'"';
    }
    std::wstring line = cmd.toNative();
    STARTUPINFOW si{};
    si.cb = sizeof si;
    HANDLE out = INVALID_HANDLE_VALUE;
    if (!outputFile.empty()) {
        SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
        out = CreateFileW(outputFile.wc_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa, CREATE_ALWAYS,
                          FILE_ATTRIBUTE_NORMAL, nullptr);
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdOutput = out;
        si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
        si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    }
    PROCESS_INFORMATION pi{};
    const BOOL ok = CreateProcessW(nullptr, &line[0], nullptr, nullptr, out != INVALID_HANDLE_VALUE, 0, nullptr,
                                   nullptr, &si, &pi);
    if (out != INVALID_HANDLE_VALUE) CloseHandle(out);
    if (!ok) return false;
    CloseHandle(pi.hThread);
    handle_ = pi.hProcess;
    pid_ = pi.dwProcessId;
    return true;
}

int ChildProcess::wait() {
    if (handle_ == nullptr) return -1;
    WaitForSingleObject(static_cast<HANDLE>(handle_), INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(static_cast<HANDLE>(handle_), &code);
    CloseHandle(static_cast<HANDLE>(handle_));
    handle_ = nullptr;
    pid_ = -1;
    return static_cast<int>(code);
}

void ChildProcess::kill() {
    if (handle_) TerminateProcess(static_cast<HANDLE>(handle_), 137);
}

bool ChildProcess::running() const { return handle_ != nullptr; }

STRING testExecutableDir() {
    wchar_t buf[MAX_PATH];
    const DWORD n = GetModuleFileNameW(nullptr, buf, MAX_PATH);
    STRING path(buf, n);
    const size_t cut = path.rfind(u'\\');
    return cut == STRING::npos ? STRING(u".") : path.substr(0, cut);
}

STRING siblingProgram(const char* name) {
    return testExecutableDir() + u"\\" + STRING::fromUtf8(name) + u".exe";
}

void sleepMs(int ms) { Sleep(static_cast<DWORD>(ms)); }

void setEnv(const char* name, const STRING& value) {
    const STRING n = STRING::fromUtf8(name);
    SetEnvironmentVariableW(n.wc_str(), value.empty() ? nullptr : value.wc_str());
    _wputenv_s(n.wc_str(), value.wc_str());
}
