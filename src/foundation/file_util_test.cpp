#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "foundation/file_util.h"
#include "testing/test_support.h"

using testing_support::readBytes;
using testing_support::ScratchDir;
using testing_support::writeBytes;

namespace {

namespace fs = std::filesystem;

enum class AtName { Nothing, File, Folder, HardLink, LinkToFile, DanglingLink };

// What stands at the name decides: a file is written only when it is a
// plain file of its own (or a new one), never through a link, and never
// where the mode forbids it. `outside` is a file beside it that a link
// points to; it must never change, nor come into being.
TEST(OpenForWriting, NeverWritesThroughWhatStandsAtTheName) {
    struct Case {
        AtName at;
        WriteMode mode;
        int error;             // 0: opened; -1: fails with some error
        const char* contents;  // of the name afterwards, when opened
    };
    const Case cases[] = {
        {AtName::Nothing, WriteMode::CreateNew, 0, "new"},
        {AtName::Nothing, WriteMode::Truncate, 0, "new"},
        {AtName::Nothing, WriteMode::Append, 0, "new"},
        {AtName::File, WriteMode::CreateNew, EEXIST, nullptr},
        {AtName::File, WriteMode::Truncate, 0, "new"},
        {AtName::File, WriteMode::Append, 0, "oldnew"},
        {AtName::Folder, WriteMode::CreateNew, EEXIST, nullptr},
        {AtName::Folder, WriteMode::Truncate, -1, nullptr},
        {AtName::Folder, WriteMode::Append, -1, nullptr},
        {AtName::HardLink, WriteMode::CreateNew, EEXIST, nullptr},
        {AtName::HardLink, WriteMode::Truncate, EMLINK, nullptr},
        {AtName::HardLink, WriteMode::Append, EMLINK, nullptr},
#ifndef _WIN32
        {AtName::LinkToFile, WriteMode::CreateNew, EEXIST, nullptr},
        {AtName::LinkToFile, WriteMode::Truncate, ELOOP, nullptr},
        {AtName::LinkToFile, WriteMode::Append, ELOOP, nullptr},
        {AtName::DanglingLink, WriteMode::CreateNew, EEXIST, nullptr},
        {AtName::DanglingLink, WriteMode::Truncate, ELOOP, nullptr},
        {AtName::DanglingLink, WriteMode::Append, ELOOP, nullptr},
#endif
    };
    int row = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "row " << row++);
        ScratchDir dir;
        const STRING name = dir.file("name");
        const STRING outside = dir.file("outside");
        const fs::path namePath = fs::u8path(name.toUtf8());
        const fs::path outsidePath = fs::u8path(outside.toUtf8());
        if (c.at != AtName::DanglingLink) writeBytes(outside, "precious");
        switch (c.at) {
        case AtName::Nothing: break;
        case AtName::File: writeBytes(name, "old"); break;
        case AtName::Folder: fs::create_directory(namePath); break;
        case AtName::HardLink: fs::create_hard_link(outsidePath, namePath); break;
        case AtName::LinkToFile:
        case AtName::DanglingLink: fs::create_symlink(outsidePath, namePath); break;
        }

        errno = 0;
        FILE* fp = openForWriting(name, c.mode);
        if (c.error == 0) {
            ASSERT_NE(fp, nullptr) << "errno " << errno;
            ASSERT_EQ(std::fwrite("new", 1, 3, fp), 3u);
            ASSERT_EQ(std::fclose(fp), 0);
            EXPECT_EQ(readBytes(name), c.contents);
        } else {
            EXPECT_EQ(fp, nullptr);
            if (fp != nullptr) std::fclose(fp);
            if (c.error > 0) EXPECT_EQ(errno, c.error);
            else EXPECT_NE(errno, 0);
        }
        if (c.at == AtName::DanglingLink) {
            EXPECT_FALSE(fs::exists(outsidePath));
        } else {
            EXPECT_EQ(readBytes(outside), "precious");
        }
        // A link is removed itself, never what it points to.
        if (c.at == AtName::LinkToFile || c.at == AtName::DanglingLink) {
            EXPECT_EQ(removeFile(name), 0);
            EXPECT_FALSE(fs::is_symlink(namePath));
            EXPECT_EQ(fs::exists(outsidePath), c.at == AtName::LinkToFile);
        }
    }
}

// The command folder of a hand-over is one the caller made itself.
TEST(OpenForWriting, CreateNewFolderOnlyWhenNothingStandsThere) {
    ScratchDir dir;
    const STRING folder = dir.file("f");
    EXPECT_TRUE(Directory::createNew(folder));
    errno = 0;
    EXPECT_FALSE(Directory::createNew(folder));
    EXPECT_EQ(errno, EEXIST);
#ifndef _WIN32
    const STRING link = dir.file("l");
    fs::create_directory_symlink(fs::u8path(folder.toUtf8()), fs::u8path(link.toUtf8()));
    errno = 0;
    EXPECT_FALSE(Directory::createNew(link));
    EXPECT_EQ(errno, EEXIST);
#endif
}

}  // namespace
