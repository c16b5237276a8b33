#include <gtest/gtest.h>

#include "host/Containers.h"
#include "host/LightweightString.h"
#include "host/Logger.h"
#include "host/OS.h"

namespace {

TEST(LightweightString, CopiesShareUntilOneChanges) {
    LightweightString<char> a("take");
    LightweightString<char> b = a;
    EXPECT_EQ(a.c_str(), b.c_str());
    b += " two";
    EXPECT_EQ(a, "take");
    EXPECT_EQ(b, "take two");
}

TEST(LightweightString, GrowingInPlaceLeavesSharersAndItselfWhole) {
    LightweightString<wchar_t> a(L"ab");
    a += L"cd";  // held by no other string: grows in place
    LightweightString<wchar_t> shared = a;
    a += L"ef";
    EXPECT_EQ(shared, L"abcd") << "a copy keeps its text";
    EXPECT_EQ(a, L"abcdef");
    a += a.view();  // its own text, while it grows
    EXPECT_EQ(a, L"abcdefabcdef");
    LightweightString<wchar_t> joined = a + a.view();
    EXPECT_EQ(joined, L"abcdefabcdefabcdefabcdef");
    EXPECT_EQ(a, L"abcdefabcdef");
    LightweightString<char> none;
    EXPECT_TRUE((none + "").is_null());
}

TEST(LightweightString, NullAndEmptyBehaveAlike) {
    LightweightString<wchar_t> null;
    LightweightString<wchar_t> empty(L"");
    EXPECT_TRUE(null.is_null());
    EXPECT_TRUE(empty.is_null());  // an empty text keeps no representation
    EXPECT_EQ(null, empty);
    EXPECT_STREQ(null.c_str(), L"");
    EXPECT_EQ(null + L"x", L"x");
}

TEST(LightweightString, Utf8RoundTripAndRepair) {
    LightweightString<wchar_t> wide(L"Spor i sn\u00f8 \u65e5\u672c \U0001F3AC");
    EXPECT_EQ(fromUTF8(toUTF8(wide)), wide);
    // A stray continuation byte and a truncated sequence become U+FFFD; the
    // text around them survives.
    LightweightString<wchar_t> repaired = fromUTF8(
        "a\x80"
        "b\xE6\x97",
        -1);
    EXPECT_EQ(repaired, L"a\uFFFDb\uFFFD\uFFFD");
    // Overlong forms are refused.
    EXPECT_EQ(fromUTF8("\xC0\xAF", -1), L"\uFFFD\uFFFD");
}

TEST(LightweightString, StringsAllocateThroughTheOsLayer) {
    std::int64_t before = OS()->memory()->liveBlocks();
    {
        LightweightString<char> s("counted");
        EXPECT_EQ(OS()->memory()->liveBlocks(), before + 1);
    }
    EXPECT_EQ(OS()->memory()->liveBlocks(), before);
}

struct Item : DLListRec {
    explicit Item(int v, int* alive) : value(v), alive(alive) { ++*alive; }
    ~Item() override { --*alive; }
    int value;
    int* alive;
};

TEST(DLList, OwnsAndWalksInOrder) {
    int alive = 0;
    {
        DLList list;
        for (int i = 0; i < 4; ++i)
            list.append(new Item(i, &alive));
        EXPECT_EQ(list.size(), 4u);
        int expect = 0;
        for (DLListIterator<Item> it(list); it; ++it)
            EXPECT_EQ(it->value, expect++);
        delete list.remove(list.first()->getNext());
        std::vector<int> seen;
        for (Item* item : each<Item>(list))
            seen.push_back(item->value);
        EXPECT_EQ(seen, (std::vector<int>{0, 2, 3}));
        EXPECT_EQ(alive, 3);
    }
    EXPECT_EQ(alive, 0);
}

TEST(LightweightVector, CopyOnWrite) {
    LightweightVector<int> a{1, 2};
    LightweightVector<int> b = a;
    b.push_back(3);
    EXPECT_EQ(a.size(), 2u);
    EXPECT_EQ(b.size(), 3u);
}

TEST(FormatText, WideArgumentsBecomeUtf8WhateverTheLocale) {
    EXPECT_EQ(formatText("<%ls|%S|%s|%5.1f|%d%%>", L"sn\u00f8", L"\u65e5", "n", 2.25, 7),
              "<sn\xC3\xB8|\xE6\x97\xA5|n|  2.2|7%>");
    // Bare texts go in as they are; widths and precisions still count.
    EXPECT_EQ(formatText("[%-4s|%.2s|%3S|%S]", "ab", "xyz", L"w", L"\u00f8"),
              "[ab  |xy|  w|\xC3\xB8]");
    EXPECT_EQ(formatText("no directive at all"), "no directive at all");
}

TEST(LoggerHandle, DefaultSwallowsAndCopiesShareIndent) {
    LoggerHandle none;
    none.Out("nothing %d", 1);
    none.incIndent();
    none.write(L"x", LoggerBase::eFileWritten);

    Qv::Ptr<CapturingLogSink> sink(new CapturingLogSink);
    LoggerHandle log{Qv::Ptr<iLogSink>(sink)};
    LoggerHandle copy = log;
    copy.incIndent();
    log.WarningOut("indented %s\n", "line");
    ASSERT_EQ(sink->lines.size(), 1u);
    EXPECT_EQ(sink->lines[0].indent, 1);
    EXPECT_EQ(sink->lines[0].text, "indented line");
    EXPECT_EQ(sink->lines[0].kind, LogKind::Warning);
}

}  // namespace
