#include "foundation/log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/file_util.h"
#include "foundation/process_role.h"
#include "testing/test_support.h"

using testing_support::readBytes;
using testing_support::ScratchDir;

namespace {

TEST(RotatingLog, RecordLayout) {
    EXPECT_EQ(RotatingLog::formatRecord(u"INFO", 3, u"2026-01-02T03:04:05.006", u"AgentConfigTool::port", 10300,
                                        u"said \"x\"\r\nnext"),
              STRING(u"INFO,3,2026-01-02T03:04:05.006,AgentConfigTool::port,10300,\"said \"\"x\"\"#&nl!next\""));
    EXPECT_EQ(RotatingLog::formatRecord(u"TEXT", 1, u"t", u"l", -1, u""), STRING(u"TEXT,1,t,l,,\"\""));
}

TEST(RotatingLog, RotatesThroughFiveGenerations) {
    ScratchDir dir;
    const STRING path = dir.file("tool.log");
    RotatingLog log(path, 200);
    // About four records fit in a file: 60 records rotate many times.
    for (int i = 1; i <= 60; ++i) ASSERT_TRUE(log.write(u"INFO", u"T::t", i, u"record"));
    EXPECT_FALSE(fileExists(path + u".6"));
    // Oldest generation first, then the current file: the records read back
    // as one unbroken, ascending run that ends with the newest.
    std::string all;
    for (int g = RotatingLog::kGenerations; g >= 1; --g) {
        const STRING gen = path + u"." + STRING::number(g);
        ASSERT_TRUE(fileExists(gen)) << gen;
        EXPECT_LE(fileSize(gen), 200);
        all += readBytes(gen);
    }
    EXPECT_LE(fileSize(path), 200);
    all += readBytes(path);
    std::vector<int> numbers;
    size_t pos = 0;
    while ((pos = all.find("T::t,", pos)) != std::string::npos) {
        pos += 5;
        numbers.push_back(std::stoi(all.substr(pos)));
    }
    ASSERT_GT(numbers.size(), 10u);
    EXPECT_EQ(numbers.back(), 60);
    for (size_t i = 1; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], numbers[i - 1] + 1);
}

TEST(RotatingLog, CreatesItsFolder) {
    ScratchDir dir;
    const STRING path = joinPath(joinPath(dir.dir(), u"sub"), u"x.log");
    RotatingLog log(path, 1000);
    EXPECT_TRUE(log.write(u"INFO", u"A::b", -1, u"hello"));
    EXPECT_NE(readBytes(path).find("\"hello\""), std::string::npos);
}

TEST(AgentLog, KeepsRecordsOnlyForTheAgentRole) {
    struct Case { int role; bool trace; bool traceRecord; bool kept; };
    const Case cases[] = {
        {ProcessRole::ConfigTool, true, false, false}, {ProcessRole::ConfigTool, true, true, false},
        {ProcessRole::Agent, false, false, true},      {ProcessRole::Agent, false, true, false},
        {ProcessRole::Agent, true, true, true},        {0, true, false, false},
    };
    for (const auto& c : cases) {
        ProcessRole::set(c.role);
        AgentLog::setTraceEnabled(c.trace);
        EXPECT_EQ(AgentLog::wouldWrite(c.traceRecord), c.kept) << c.role << c.trace << c.traceRecord;
    }
    ProcessRole::set(0);
    AgentLog::setTraceEnabled(false);
}

}  // namespace
