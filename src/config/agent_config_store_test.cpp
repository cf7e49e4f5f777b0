#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "config/agent_config.h"
#include "foundation/file_util.h"
#include "foundation/ids_exception.h"
#include "foundation/message_catalog.h"
#include "foundation/process_role.h"
#include "testing/test_support.h"
#include "testing/child_process.h"

using testing_support::readBytes;
using testing_support::ScratchDir;
using testing_support::writeBytes;

namespace {

class AgentConfigStore : public ::testing::Test {
protected:
    void SetUp() override {
        ProcessRole::set(ProcessRole::ConfigTool);
        AgentType::resetForTests();
        AgentConfig::setRecordChanges(true);
        AgentConfig::setLockRetrySleep([this](int) { ++sleeps_; });
        ini_ = dir_.file("agent.ini");
        fallback_ = dir_.file("fallback.ini");
    }
    void TearDown() override {
        ProcessRole::set(0);
        AgentConfig::setLockRetrySleep([](int ms) { sleepMs(ms); });
    }

    // agent.ini and fallback.ini as a writer of this program leaves them,
    // with `name` set to `value` (UTF-8 files).
    void seed(const char16_t* name, const char16_t* value) {
        AgentConfig model(ini_);
        model.setAgentCharset(u"UTF-8");
        model.setValue(name, value);
        const std::string text = model.serialise().toUtf8();
        writeBytes(ini_, text);
        writeBytes(fallback_, text);
    }

    std::unique_ptr<AgentConfig> load(bool& usedFallback, bool& ok) {
        auto model = std::make_unique<AgentConfig>(ini_);
        ok = model->loadIniFile(usedFallback);
        return model;
    }

    // One of the two files as the next run reads it; it must verify.
    static std::unique_ptr<AgentConfig> readBack(const STRING& file) {
        auto check = std::make_unique<AgentConfig>(file);
        int64_t t = 0;
        EXPECT_TRUE(check->readIniFileInMem(t)) << file;
        EXPECT_FALSE(check->isCorrupt(true)) << file;
        return check;
    }

    // A config_peer holding the lock file (`hold` or `lock`) for `ms`,
    // started and seen ready.
    void startLockPeer(ChildProcess& peer, const char16_t* mode, const char16_t* ms) {
        const STRING ready = dir_.file(STRING(mode).toUtf8() + ".out");
        ASSERT_TRUE(peer.start({siblingProgram("config_peer"), mode, dir_.file("lockFile"), ms}, ready));
        for (int i = 0; i < 200 && readBytes(ready).find("ready") == std::string::npos; ++i) sleepMs(50);
        ASSERT_NE(readBytes(ready).find("ready"), std::string::npos);
    }

    ScratchDir dir_;
    STRING ini_;
    STRING fallback_;
    int sleeps_ = 0;
};

TEST_F(AgentConfigStore, LoadingAndTheFallbackRule) {
    struct Case {
        const char* label;
        std::function<void(std::string&)> tamper;  // applied to agent.ini's bytes
        bool usedFallback;
        const char16_t* name;  // agent.name as loaded
    };
    const Case cases[] = {
        {"LF-only line ends still verify", [](std::string& t) { t.erase(std::remove(t.begin(), t.end(), '\r'), t.end()); },
         false, u"disk"},
        {"hand-edited value with checking off",
         [](std::string& t) {
             t.replace(t.find("agent.name=disk"), 15, "agent.name=hand");
             const size_t at = t.find("agentini.checksum=") + 18;
             t.replace(at, 32, "Not Computed");
         },
         false, u"hand"},
        // A file that lost its checksum line is damaged, whatever it holds.
        {"no checksum line at all", [](std::string& t) { t.erase(t.find("agentini.checksum=")); }, true, u"disk"},
        {"cut before its checksum line", [](std::string& t) { t.resize(t.find("[Checksum]")); }, true, u"disk"},
        {"cut inside the checksum line", [](std::string& t) { t.resize(t.size() - 10); }, true, u"disk"},
        {"empty", [](std::string& t) { t.clear(); }, true, u"disk"},
        {"a byte-order mark alone", [](std::string& t) { t = "\xFF\xFE"; }, true, u"disk"},
        {"random bytes", [](std::string& t) { t = std::string("\x9C\x01\xE7=\n\x00[\xFF\r\x7F", 10); }, true, u"disk"},
        {"missing file", [this](std::string&) { removeFile(ini_); }, true, u"disk"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        seed(u"agent.name", u"disk");
        std::string bytes = readBytes(ini_);
        c.tamper(bytes);
        if (fileExists(ini_)) writeBytes(ini_, bytes);
        bool usedFallback = false, ok = false;
        auto model = load(usedFallback, ok);
        EXPECT_TRUE(ok);
        EXPECT_EQ(usedFallback, c.usedFallback);
        EXPECT_EQ(model->getAgentName(), STRING(c.name));
    }
}

TEST_F(AgentConfigStore, LoadingTwiceWithoutAChangeReadsOnce) {
    seed(u"agent.name", u"a");
    bool usedFallback = false, ok = false;
    auto model = load(usedFallback, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(model->readCount(), 1);
    EXPECT_TRUE(model->loadIniFile(usedFallback));
    EXPECT_EQ(model->readCount(), 1);
    // Our own write does not count as a change either.
    model->setAgentName(u"b");
    ASSERT_TRUE(model->UpdateAllIni());
    const int afterWrite = model->readCount();
    EXPECT_TRUE(model->loadIniFile(usedFallback));
    EXPECT_EQ(model->readCount(), afterWrite);
}

TEST_F(AgentConfigStore, MergeKeepsOtherWritersChangesAndOurOwn) {
    seed(u"agent.name", u"start");
    bool usedFallback = false, ok = false;
    auto ours = load(usedFallback, ok);
    ASSERT_TRUE(ok);
    ours->setAgentName(u"ours");
    ours->setAutoretransInterval(11);

    // Another writer changes one key we changed and one we did not.
    {
        AgentConfig other(ini_);
        other.setAgentName(u"theirs");
        other.setIdsSignalTimeout(99);
        ASSERT_TRUE(other.UpdateAllIni());
    }
    ASSERT_TRUE(ours->UpdateAllIni());

    for (const STRING& file : {ini_, fallback_}) {
        auto check = readBack(file);
        EXPECT_EQ(check->getAgentName(), STRING(u"ours"));
        EXPECT_EQ(check->getAutoretransInterval(), 11);
        EXPECT_EQ(check->getIdsSignalTimeout(), 99);
    }
    EXPECT_TRUE(ours->changes().empty());
}

TEST_F(AgentConfigStore, SafeReplaceKeepsThePreviousVersion) {
    seed(u"agent.name", u"one");
    const std::string before = readBytes(ini_);
    AgentConfig model(ini_);
    model.setAgentName(u"two");
    ASSERT_TRUE(model.UpdateAllIni());
    EXPECT_EQ(readBytes(ini_ + u".1"), before);
    EXPECT_NE(readBytes(ini_).find("agent.name=two\r\n"), std::string::npos);
    EXPECT_FALSE(fileExists(ini_ + u".2"));
    EXPECT_EQ(readBytes(fallback_), readBytes(ini_));
}

TEST_F(AgentConfigStore, FirstWriteWithoutAgentIniFailsAtTheRename) {
    AgentConfig model(ini_);
    model.setAgentCharset(u"UTF-8");
    const auto t = testing_support::thrownBy([&] { model.updateIniFile(false, false); });
    EXPECT_EQ(t.code, 256);
    EXPECT_EQ(t.operation, STRING(u"WriteToFile12"));
    EXPECT_TRUE(t.message.startsWith(u"Cannot rename file : " + ini_ + u" to " + ini_ + u".1 Error Code : ")) << t.message;
    EXPECT_FALSE(fileExists(ini_));
    EXPECT_NE(readBytes(ini_ + u".2").find("agent.charset=UTF-8\r\n"), std::string::npos);
    EXPECT_FALSE(model.UpdateAllIni());
}

TEST_F(AgentConfigStore, CharsetChoosesTheEncoding) {
    struct Case { const char16_t* charset; bool utf16; };
    const Case cases[] = {{u"UTF-8", false}, {u"", true}, {u"UTF-16LE", true}, {u"utf-8", true}};
    for (const auto& c : cases) {
        seed(u"agent.name", u"x");
        AgentConfig model(ini_);
        model.setAgentCharset(c.charset);
        ASSERT_TRUE(model.UpdateAllIni());
        const std::string bytes = readBytes(ini_);
        EXPECT_EQ(bytes.compare(0, 2, "\xFF\xFE") == 0, c.utf16) << STRING(c.charset);
        bool usedFallback = false, ok = false;
        auto again = load(usedFallback, ok);
        EXPECT_TRUE(ok);
        EXPECT_FALSE(usedFallback);
        EXPECT_EQ(again->getAgentCharset(), STRING(c.charset));
    }
}

TEST_F(AgentConfigStore, NewConfigurationFromTheServerSurvivesTheMerge) {
    seed(u"agent.name", u"a");
    AgentConfig model(ini_);
    ASSERT_TRUE(model.newConfiguration({{u"autoretrans.interval", u"77"}, {u"agent.name", u"srv"}}));
    auto check = readBack(ini_);
    EXPECT_EQ(check->getAutoretransInterval(), 77);
    EXPECT_EQ(check->getAgentName(), STRING(u"srv"));
}

// ---- Real peer processes

TEST_F(AgentConfigStore, ExclusiveHolderMakesTheWriterGiveUpAfterTenTries) {
    seed(u"agent.name", u"kept");
    const std::string ini = readBytes(ini_), fb = readBytes(fallback_);
    ChildProcess holder;
    ASSERT_NO_FATAL_FAILURE(startLockPeer(holder, u"hold", u"20000"));

    AgentConfig model(ini_);
    model.setAgentName(u"lost");
    EXPECT_FALSE(model.UpdateAllIni());
    EXPECT_EQ(sleeps_, 10);
    EXPECT_EQ(readBytes(ini_), ini);
    EXPECT_EQ(readBytes(fallback_), fb);
    bool usedFallback = false;
    EXPECT_FALSE(model.loadIniFile(usedFallback));
    // Without the lock file nothing was read: the defaults are no
    // configuration to act on.
    EXPECT_FALSE(model.isAccessible());
    EXPECT_EQ(sleeps_, 20);
    holder.kill();
    holder.wait();

    // Once the holder is gone the same model writes.
    EXPECT_TRUE(model.UpdateAllIni());
    EXPECT_NE(readBytes(ini_).find("agent.name=lost\r\n"), std::string::npos);
}

TEST_F(AgentConfigStore, WriterWaitsForTheByteRangeLock) {
    seed(u"agent.name", u"a");
    ChildProcess locker;
    ASSERT_NO_FATAL_FAILURE(startLockPeer(locker, u"lock", u"1500"));
    const auto start = std::chrono::steady_clock::now();
    AgentConfig model(ini_);
    model.setAgentName(u"b");
    EXPECT_TRUE(model.UpdateAllIni());
    const auto waited = std::chrono::steady_clock::now() - start;
    // The write could only happen once the peer released its lock.
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(waited).count(), 900);
    EXPECT_EQ(locker.wait(), 0);
    EXPECT_EQ(sleeps_, 0);
}

TEST_F(AgentConfigStore, ConcurrentWritersLoseNoChange) {
    seed(u"agent.name", u"base");
    const char16_t* keys[] = {u"autoretrans.interval", u"ids.signal.timeout", u"log.reader.limit",
                              u"override.timeout"};
    const int count = 15;
    std::vector<std::unique_ptr<ChildProcess>> writers;
    for (const char16_t* key : keys) {
        writers.push_back(std::make_unique<ChildProcess>());
        ASSERT_TRUE(writers.back()->start(
            {siblingProgram("config_peer"), u"update", ini_, key, STRING::number(count)}));
    }
    for (auto& w : writers) EXPECT_EQ(w->wait(), 0);
    for (const STRING& file : {ini_, fallback_}) {
        auto check = readBack(file);
        EXPECT_EQ(check->getAgentName(), STRING(u"base"));
        EXPECT_EQ(check->getAutoretransInterval(), count);
        EXPECT_EQ(check->getIdsSignalTimeout(), count);
        EXPECT_EQ(check->getLogReaderLimit(), count);
        EXPECT_EQ(check->getOverrideTimeout(), count);
    }
}

TEST_F(AgentConfigStore, RebootStateIsMirroredIntoTheDriverKey) {
#ifndef _WIN32
    setEnv("ZELIPS_REGISTRY", dir_.file("registry.reg"));
#endif
    AgentConfig model(ini_);
    struct Step { bool ipsDone; bool fimDone; bool expectDone; };
    const Step steps[] = {{false, true, false}, {true, false, false}, {true, true, true}, {false, false, false}};
    for (const auto& s : steps) {
        model.setIpsRebootDone(s.ipsDone);
        model.setFimRebootDone(s.fimDone);
        EXPECT_EQ(model.updateRebootRequiredFlag(), 0);
        EXPECT_EQ(AgentConfig::isRebootDone(), s.expectDone);
    }
#ifndef _WIN32
    // Nothing is written while the state stays the same.
    removeFile(dir_.file("registry.reg"));
    EXPECT_EQ(model.updateRebootRequiredFlag(), 0);
    EXPECT_FALSE(fileExists(dir_.file("registry.reg")));
    EXPECT_TRUE(AgentConfig::isRebootDone());  // no value: the reboot counts as done
    setEnv("ZELIPS_REGISTRY", STRING());
#endif
}

// What a writer killed inside its replace leaves behind, and what the next
// load makes of it. With ".1" present the writer got past its first rename:
// the ".2" beside it is complete and is installed. A ".1" alone is an
// agent.ini removed from outside; the backup is newer, the load falls back.
// A ".2" beside no ".1" is a write that never reached
// its renames (killed while it wrote, or stopped by a full disk): it may be
// cut short, and a file cut short before its checksum line would pass for a
// whole one, so it must not replace a missing agent.ini; the load falls back.
TEST_F(AgentConfigStore, AReplaceInterruptedByAKillIsFinishedOrIgnoredOnLoad) {
    struct Case {
        const char* label;
        bool withOld;    // agent.ini.1 holds the previous version
        bool withNew;    // agent.ini.2 holds the new version...
        bool cutShort;   // ...only up to just after the changed line
        const char16_t* name;
        bool usedFallback;
    };
    const Case cases[] = {
        {"new version complete", true, true, false, u"new", false},
        {"only the previous version", true, false, false, u"old", true},
        {"new version never renamed", false, true, true, u"old", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        seed(u"agent.name", u"old");
        const std::string oldText = readBytes(ini_);
        AgentConfig writer(ini_);
        writer.setAgentName(u"new");
        std::string newText = writer.serialise().toUtf8();
        if (c.cutShort) newText.resize(newText.find("agent.name=new") + 20);
        removeFile(ini_);
        removeFile(ini_ + u".1");
        removeFile(ini_ + u".2");
        if (c.withOld) writeBytes(ini_ + u".1", oldText);
        if (c.withNew) writeBytes(ini_ + u".2", newText);
        bool usedFallback = false, ok = false;
        auto model = load(usedFallback, ok);
        EXPECT_TRUE(ok);
        EXPECT_EQ(usedFallback, c.usedFallback);
        EXPECT_EQ(model->getAgentName(), STRING(c.name));
        // A load that falls back leaves the files as they were.
        EXPECT_EQ(fileExists(ini_), !c.usedFallback);
        EXPECT_EQ(fileExists(ini_ + u".2"), c.usedFallback && c.withNew);
        if (c.usedFallback && c.withNew) {
            EXPECT_EQ(readBytes(ini_ + u".2"), newText);
        }
        EXPECT_EQ(fileExists(ini_ + u".1"), c.withOld);
    }
}

#ifndef _WIN32
// The store's catalog messages, as the agent's log receives them (it is
// written in the agent's role only): the operation's name comes first, as
// the catalog's texts expect.
TEST_F(AgentConfigStore, CatalogMessagesInTheAgentLogNameTheOperationFirst) {
    const std::string root = dir_.path().u8string();
    writeBytes(dir_.file("registry.reg"),
               "Windows Registry Editor Version 5.00\r\n\r\n"
               "[HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node\\Tessaly\\Zelshield\\agent]\r\n"
               "\"LogInstallRoot\"=\"" + root + "\"\r\n");
    testing_support::useRegistryFile(dir_.file("registry.reg"));
    const char* source = std::getenv("ZELIPS_SOURCE_DIR");
    ASSERT_TRUE(MessageCatalog::instance().load(STRING::fromUtf8(source ? source : ZELIPS_SOURCE_DIR) +
                                                u"/examples/demo/IPS/Message.txt"));
    ProcessRole::set(ProcessRole::Agent);
    AgentConfig model(dir_.file("missing.ini"));
    int64_t modified = 0;
    EXPECT_FALSE(model.readIniFileInMem(modified));
    model.setValue(u"no.such.key", u"1");
    ProcessRole::set(ProcessRole::ConfigTool);
    const std::string log = readBytes(dir_.file("agentinitial.log"));
    for (const std::string& text :
         {"AgentConfig::readIniFileInMem: cannot open configuration file " + root + "/missing.ini (errno 2)",
          std::string("AgentConfig::setValue: unknown configuration key no.such.key is kept under [Other]")}) {
        EXPECT_NE(log.find(text), std::string::npos) << text << "\nnot in:\n" << log;
    }
}
#endif

}  // namespace
