// Helpers for the unit tests: a scratch folder per test, files with exact
// bytes, and what an action threw.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "foundation/ids_exception.h"
#include "foundation/string.h"

#ifdef _WIN32
#include <process.h>
#else
#include <unistd.h>
#endif

namespace testing_support {

// "Suite_Name" of the running test, usable in a file or key name.
inline std::string testName() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info ? info->test_suite_name() : "x") + "-" + (info ? info->name() : "y");
    for (auto& c : name)
        if (c == '/') c = '_';
    return name;
}

// The IDSException an action threw; thrown is false when it threw none.
struct Thrown {
    bool thrown = false;
    int code = 0;
    STRING operation;
    STRING message;
};

inline Thrown thrownBy(const std::function<void()>& action) {
    Thrown t;
    try {
        action();
    } catch (const IDSException& e) {
        t = {true, e.code(), e.operation(), e.message()};
    }
    return t;
}

// A fresh folder named after the running test and the process (two test
// runs side by side, from two checkouts, must not share one), removed at
// scope exit.
class ScratchDir {
public:
    ScratchDir() {
#ifdef _WIN32
        const int pid = _getpid();
#else
        const int pid = static_cast<int>(::getpid());
#endif
        std::string name = "zelips-" + std::to_string(pid) + "-" + testName();
        // A second folder alive beside the first gets a name of its own.
        if (live_ > 0) name += "-" + std::to_string(live_);
        ++live_;
        path_ = std::filesystem::temp_directory_path() / name;
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~ScratchDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
        --live_;
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    // The path of a file in the folder, as STRING.
    STRING file(const std::string& name) const { return STRING::fromUtf8((path_ / name).u8string()); }
    STRING dir() const { return STRING::fromUtf8(path_.u8string()); }

private:
    static inline int live_ = 0;
    std::filesystem::path path_;
};

inline void writeBytes(const STRING& path, const std::string& bytes) {
    std::ofstream f(std::filesystem::u8path(path.toUtf8()), std::ios::binary | std::ios::trunc);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string readBytes(const STRING& path) {
    std::ifstream f(std::filesystem::u8path(path.toUtf8()), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// UTF-16LE bytes of a text, optionally with the FF FE mark first.
inline std::string utf16le(const std::u16string& text, bool bom) {
    std::string out = bom ? std::string("\xFF\xFE", 2) : std::string();
    for (char16_t c : text) {
        out += static_cast<char>(c & 0xFF);
        out += static_cast<char>(c >> 8);
    }
    return out;
}

#ifndef _WIN32
// Makes the file PATH the registry of the Linux build; returns PATH.
inline STRING useRegistryFile(const STRING& path) {
    ::setenv("ZELIPS_REGISTRY", path.toUtf8().c_str(), 1);
    return path;
}
#endif

}  // namespace testing_support
