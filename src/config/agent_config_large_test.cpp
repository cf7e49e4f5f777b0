// The model on files of some size: the checksum of what was read, the
// checksum line of what is written (which may reuse the read's checksum when
// the text is the same), the pairs the model keeps for other sections, and
// the lookup of every key by its name.
#include "config/agent_config.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "foundation/process_role.h"
#include "testing/test_support.h"

using testing_support::readBytes;
using testing_support::ScratchDir;
using testing_support::utf16le;
using testing_support::writeBytes;

namespace {

class LargeModel : public ::testing::Test {
protected:
    void SetUp() override {
        ProcessRole::set(ProcessRole::ConfigTool);
        AgentType::resetForTests();
        AgentType::record(1);
        AgentConfig::setRecordChanges(true);
    }
    void TearDown() override {
        ProcessRole::set(0);
        AgentType::resetForTests();
    }
};

// Pairs of a site's own settings, about `bytes` of them.
std::string pairs(size_t bytes, const char* prefix = "site.rule.") {
    std::string out;
    for (int i = 0; out.size() < bytes; ++i)
        out += prefix + std::to_string(i) + "=allow /opt/tool-" + std::to_string(i % 97) + "\r\n";
    return out;
}

// The text the store writes for a model read from `raw`: the store's order
// and a valid checksum line.
std::string storeText(const ScratchDir& dir, const std::string& raw) {
    const STRING path = dir.file("raw.ini");
    writeBytes(path, raw);
    AgentConfig model(path);
    int64_t modified = 0;
    EXPECT_TRUE(model.readIniFileInMem(modified));
    return model.serialise().toUtf8();
}

// The checksum line must be the MD5 of every line before it, however the
// model came to hold its text.
void expectValidChecksumLine(const STRING& text) {
    const STRING key(u"\r\nagentini.checksum=");
    const size_t at = text.str().rfind(key.str());
    ASSERT_NE(at, std::u16string::npos);
    const size_t from = at + key.length();
    const STRING sum = text.substr(from, text.length() - from - 2);
    EXPECT_EQ(sum, AgentConfig::checksumOf(text.substr(0, at + 2)));
}

struct ShapeCase {
    const char* label;
    std::function<std::string()> file;
    std::function<void(AgentConfig&)> change;  // after the read; may be empty
    bool sameText;                              // serialise() gives the file back
    const char* line = nullptr;                 // a line the text must hold
};

TEST_F(LargeModel, TheChecksumLineCoversTheTextBeforeItWhateverTheFile) {
    const ScratchDir dir;
    const std::string big = "[Other]\r\n" + pairs(40000);
    const std::string stored = storeText(dir, big);
    const std::string small = storeText(dir, "[Other]\r\na=1\r\n");
    // The large file as the store wrote it, with `text` put in before `where`.
    auto insert = [&stored](const char* where, const char* text) {
        return [&stored, where, text] { return std::string(stored).insert(stored.find(where), text); };
    };
    const ShapeCase cases[] = {
        {"large file as the store wrote it", [&] { return stored; }, nullptr, true},
        {"small file as the store wrote it", [&] { return small; }, nullptr, true},
        {"large file, then a setting changed", [&] { return stored; },
         [](AgentConfig& m) { m.setAgentName(u"changed"); }, false},
        {"large file, then a pair added", [&] { return stored; },
         [](AgentConfig& m) { m.setValue(u"late.pair", u"1"); }, false, "\r\nlate.pair=1\r\n"},
        {"large file in the file's own order", [&] { return big; }, nullptr, false},
        {"pairs with leading '='", insert("site.rule.0=", "==lead=1\r\n"), nullptr, false, "\r\nlead=1\r\n"},
        {"a name without '=' among the pairs", insert("site.rule.7=", "==bare\r\n"), nullptr, false,
         "\r\nbare=\r\nsite.rule.7="},
        {"lines that end in LF alone",
         [&] {
             std::string t = big;
             for (size_t at = t.find("\r\n"); at != std::string::npos; at = t.find("\r\n", at)) t.erase(at, 1);
             return t;
         },
         nullptr, false, "\r\nsite.rule.7=allow /opt/tool-7\r\n"},
        {"other pairs in two runs", insert("[Polling]", "[Odd]\r\nodd.pair=2\r\n\r\n"), nullptr, false},
        {"checksum line first",
         [&] {
             const size_t line = stored.rfind("agentini.checksum=");
             return stored.substr(line) + stored.substr(0, line);
         },
         nullptr, false},
        {"a value written back otherwise",
         [&] { return std::string(stored).replace(stored.find("fips.enabled=true"), 17, "fips.enabled=TRUE"); },
         nullptr, false},
        {"external logs and a blank line among the pairs",
         [&] {
             std::string t = storeText(dir, "[ExternalLogs]\r\nexternal.log=/a\r\n" + big);
             return t.insert(t.find("[Other]\r\n") + 9, "\r\n");
         },
         nullptr, false},
        // What is written stops short of the read's text.
        {"a section after the checksum line", [&] { return stored + "[Trailing]\r\n"; }, nullptr, false},
        {"small file, a section after the checksum line", [&] { return small + "[Trailing]\r\n"; }, nullptr, false},
        {"UTF-16 file",
         [&] {
             const std::string t = storeText(dir, "[Agent]\r\nagent.charset=UTF-16\r\n" + big);
             return utf16le(STRING::fromUtf8(t).str(), true);
         },
         nullptr, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const std::string file = c.file();
        const STRING path = dir.file("agent.ini");
        writeBytes(path, file);
        AgentConfig model(path);
        int64_t modified = 0;
        ASSERT_TRUE(model.readIniFileInMem(modified));
        if (c.change) c.change(model);
        const STRING text = model.serialise();
        expectValidChecksumLine(text);
        if (c.sameText) {
            EXPECT_EQ(text.toUtf8(), file);
        }
        // Written out in pieces, the text is the same.
        std::u16string pieces;
        model.serialiseTo([&pieces](std::u16string_view piece) { pieces += piece; });
        EXPECT_EQ(pieces, text.str());
        if (c.line) {
            EXPECT_NE(text.toUtf8().find(c.line), std::string::npos) << c.line;
        }
        // Read back, the text gives the same pairs and the same text.
        writeBytes(path, text.toUtf8());
        AgentConfig again(path);
        ASSERT_TRUE(again.readIniFileInMem(modified));
        EXPECT_FALSE(again.isCorrupt(true));
        EXPECT_EQ(again.getOtherPairs(), model.getOtherPairs());
        EXPECT_EQ(again.serialise(), text);
    }
}

TEST_F(LargeModel, ALargeFileIsCheckedAgainstItsChecksum) {
    struct Case { const char* label; size_t bytes; bool damaged; bool usesFallback; };
    const Case cases[] = {
        {"20 KB intact", 20000, false, false},     {"20 KB damaged", 20000, true, true},
        {"300 KB intact", 300000, false, false},   {"300 KB damaged", 300000, true, true},
        {"3 MB intact", 3000000, false, false},    {"3 MB damaged", 3000000, true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        ScratchDir dir;
        std::string text = storeText(dir, "[Other]\r\n" + pairs(c.bytes));
        // One character near the end of the pairs: the last blocks of the
        // text must reach the digest too.
        if (c.damaged) text[text.find("[Polling]") - 5] ^= 1;
        writeBytes(dir.file("agent.ini"), text);
        writeBytes(dir.file("fallback.ini"), storeText(dir, "[Agent]\r\nagent.name=fallback\r\n"));
        AgentConfig model(dir.file("agent.ini"));
        bool usedFallback = false;
        EXPECT_TRUE(model.loadIniFile(usedFallback));
        EXPECT_EQ(usedFallback, c.usesFallback);
        EXPECT_EQ(model.getAgentName(), STRING(c.usesFallback ? u"fallback" : u""));
    }
}

TEST_F(LargeModel, PairsOfOtherSectionsKeepTheirTextAndOrder) {
    ScratchDir dir;
    const STRING path = dir.file("agent.ini");
    writeBytes(path, "[Other]\r\nb=2\r\na==x=\r\nempty=\r\n\xC3\xA9=\xE2\x82\xAC\r\n[Odd]\r\nodd=3\r\n");
    AgentConfig model(path);
    int64_t modified = 0;
    ASSERT_TRUE(model.readIniFileInMem(modified));
    model.setValue(u"late", u"4");
    const PropertyList want = {
        {u"b", u"2"}, {u"a", u"=x="}, {u"empty", u""}, {u"\u00e9", u"\u20ac"}, {u"odd", u"3"}, {u"late", u"4"}};
    EXPECT_EQ(model.getOtherPairs(), want);
    // A second read replaces them.
    writeBytes(path, "[Other]\r\nonly=1\r\n");
    ASSERT_TRUE(model.readIniFileInMem(modified));
    EXPECT_EQ(model.getOtherPairs(), (PropertyList{{u"only", u"1"}}));
}

TEST_F(LargeModel, EveryKeyIsFoundByItsName) {
    for (int i = 0; i < AgentConfig::kKeyCount; ++i) {
        const AgentConfig::KeyInfo& k = AgentConfig::keyInfo(static_cast<AgentConfig::Key>(i));
        if (k.name == nullptr || k.type == AgentConfig::Type::ExternalLogs) continue;
        SCOPED_TRACE(STRING(k.name).toUtf8());
        AgentConfig model(u"agent.ini");
        const int result = model.setValue(k.name, u"1");
        EXPECT_EQ(result, k.type == AgentConfig::Type::Checksum ? 2 : 1);
        EXPECT_TRUE(model.getOtherPairs().empty());
        // A name that only resembles the key is no key.
        model.setValue(STRING(k.name) + u"x", u"1");
        model.setValue(STRING(u"x") + k.name, u"1");
        EXPECT_EQ(model.getOtherPairs().size(), 2u);
    }
}

}  // namespace
