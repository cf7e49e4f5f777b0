// Reading the message catalog: on first use (when the file is read, and what
// a lookup then finds), and the fields of a catalog line.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "foundation/message_catalog.h"
#include "foundation/test_support.h"

using testing_support::ScratchDir;
using testing_support::writeBytes;

namespace {

TEST(MessageCatalogOnFirstUse, TheFileIsReadAtTheFirstLookup) {
    ScratchDir dir;
    const STRING first = dir.file("first.txt");
    const STRING second = dir.file("second.txt");
    writeBytes(first, "10001,MCON,INFO,TYPE,SEND,ONE,\"one\"\r\n10002,MCON,INFO,TYPE,SEND,TWO,\"two\"\r\n");
    writeBytes(second, "10002,MCON,WARNING,TYPE,SEND,TWO,\"two again\"\r\n");

    struct Step {
        const char* label;
        std::function<void(MessageCatalog&)> act;
        int number;
        const char16_t* text;  // nullptr: not in the catalog
    };
    int pathAsked = 0;
    const Step steps[] = {
        {"nothing read before the first lookup",
         [&](MessageCatalog& c) {
             c.loadOnFirstUse([&] {
                 ++pathAsked;
                 return first;
             });
             EXPECT_EQ(pathAsked, 0);
         },
         10001, u"one"},
        {"read once", [&](MessageCatalog&) { EXPECT_EQ(pathAsked, 1); }, 10002, u"two"},
        {"a later file adds to the records and replaces by number",
         [&](MessageCatalog& c) { c.loadOnFirstUse([&] { return second; }); }, 10002, u"two again"},
        {"the earlier records stay", [](MessageCatalog&) {}, 10001, u"one"},
        {"a file still waiting is read before the next one is named",
         [&](MessageCatalog& c) {
             c.clear();
             c.loadOnFirstUse([&] { return first; });
             c.loadOnFirstUse([&] { return second; });
         },
         10001, u"one"},
        {"clear forgets a waiting file",
         [&](MessageCatalog& c) {
             c.clear();
             c.loadOnFirstUse([&] { return first; });
             c.clear();
         },
         10001, nullptr},
        {"loadPending reads it now",
         [&](MessageCatalog& c) {
             c.loadOnFirstUse([&] { return second; });
             c.loadPending();
             writeBytes(second, "");
         },
         10002, u"two again"},
    };
    MessageCatalog catalog;
    for (const auto& s : steps) {
        SCOPED_TRACE(s.label);
        s.act(catalog);
        const CatalogRecord* r = catalog.find(s.number);
        if (s.text == nullptr) {
            EXPECT_EQ(r, nullptr);
        } else {
            ASSERT_NE(r, nullptr);
            EXPECT_EQ(r->text, STRING(s.text));
        }
    }
}

}  // namespace

namespace {

TEST(MessageCatalogFields, QuotesCommasAndBlanks) {
    struct Case {
        const char16_t* line;
        std::vector<std::u16string> fields;
    };
    const Case cases[] = {
        {u"a,b", {u"a", u"b"}},
        {u" a , b ", {u"a", u"b"}},
        {u"\t x \t", {u"x"}},
        {u"", {u""}},
        {u"a,,b,", {u"a", u"", u"b", u""}},
        {u"\"x, y\",z", {u"x, y", u"z"}},
        // Blanks before the quote go; what follows the quote stays.
        {u" \"q\" ,w", {u"q ", u"w"}},
        {u"pre \"in\" post,x", {u"prein post", u"x"}},
        {u"  \"  spaced  \"  ", {u"  spaced    "}},
        {u"\"say \"\"hi\"\"\"", {u"say \"hi\""}},
        {u"\"\"", {u""}},
        {u"x,\"\",y", {u"x", u"", u"y"}},
        {u"\"a\"b\"c\"", {u"abc"}},
        {u"a\"b,c\"d, e", {u"ab,cd", u"e"}},
        {u"\"open, never closed", {u"open, never closed"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.line).toUtf8());
        std::vector<std::u16string> got;
        for (const STRING& f : MessageCatalog::splitFields(c.line)) got.push_back(f.str());
        EXPECT_EQ(got, c.fields);
    }
}

}  // namespace
