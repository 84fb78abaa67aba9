// Text helpers: number and set printing, tokens, ROT13, URL escaping, UTF-8.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <list>
#include <string>

#include "core/common/StringUtil.h"
#include "core/common/UrlCodec.h"
#include "core/common/Utf8.h"

using namespace VeskCore;

namespace {

std::string U8(const wxString& text) {
    return text.utf8_string();
}

TEST(TextTest, NumbersSetsListsAndTokens) {
    EXPECT_EQ(U8(toString(ULONG_MAX)), "-1");  // signed on purpose
    EXPECT_EQ(U8(toString(1UL << 63)), "-9223372036854775808");
    EXPECT_EQ(U8(toString(INT_MIN)) + U8(toString(true)) + U8(toString(false)),
              "-2147483648truefalse");
    WxStringSet set;
    set.insert(wxS("a"));
    set.insert(wxS("b"));
    const std::string joined = U8(toString(set, ';'));
    EXPECT_TRUE(joined == "a;b" || joined == "b;a") << joined;

    wxArrayString items;
    EXPECT_EQ(U8(toList(items, ',', true)), "()");
    items.push_back(wxS("x"));
    items.push_back(wxString::FromUTF8("\xC3\xA9"));
    EXPECT_EQ(U8(toList(items, ',', true)), "(x,\xC3\xA9)");

    std::list<wxString> tokens;
    Tokenize(tokens, wxS(",a,,b,"), ",");
    EXPECT_EQ(tokens, (std::list<wxString>{wxS("a"), wxS("b")}));
    Tokenize(items, wxS(" gzip ;deflate"), ",;");  // appends; blanks are kept
    Tokenize(items, wxS(",,,"), ",");
    EXPECT_EQ(items.size(), 4u);
    EXPECT_EQ(items[2], wxS(" gzip "));
}

TEST(TextTest, Rot13ErrnoBarsAndMapSets) {
    EXPECT_EQ(U8(R(wxString::FromUTF8("Hello, az AZ 09 \xC3\xA9z"))), "Uryyb, nm NM 09 \xC3\xA9m");
    EXPECT_EQ(U8(ErrnoToString(ENOENT)), "No such file or directory");
    EXPECT_EQ(U8(ReplaceBars(wxS("a|b||"))),
              "a\xC2\xA6"
              "b\xC2\xA6\xC2\xA6");
    EXPECT_EQ(U8(Replace(wxS("a.b.c"), ".", "::", false)), "a::b.c");
    MapStringToInt64Set map;
    for (long long value : {5LL, 5LL, -(1LL << 40)})
        AddToMapSet(map, wxS("k"), value);
    EXPECT_EQ(map[wxS("k")].size(), 2u);
    EXPECT_EQ(map[wxS("k")].count(-(1LL << 40)), 1u);
}

TEST(TextTest, UrlEncodingWorksOnUtf8Bytes) {
    EXPECT_EQ(U8(URLEncode(wxS("aZ09-_.~ /?&"))), "aZ09-_.~%20%2F%3F%26");
    const wxString text = wxString::FromUTF8("caf\xC3\xA9 \xE2\x82\xAC");
    wxString encoded = URLEncode(text);
    EXPECT_EQ(U8(encoded), "caf%C3%A9%20%E2%82%AC");
    EXPECT_TRUE(URLDecode(encoded));
    EXPECT_EQ(encoded, text);
    wxString invalid(wxS("%FF%FE"));
    EXPECT_TRUE(URLDecode(invalid));  // not UTF-8: empty, still true
    EXPECT_TRUE(invalid.empty());
}

TEST(TextTest, Utf8LegalityAndConversionOfRawBytes) {
    auto legal = [](const std::string& bytes) {
        return isLegalUTF8String(reinterpret_cast<const unsigned char*>(bytes.data()),
                                 static_cast<int>(bytes.size()));
    };
    EXPECT_TRUE(legal("ascii \xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"));
    for (const char* bad :
         {"\xED\xA0\x80", "\xC0\x80", "\xC1\xBF", "\x80", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",
          "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xF8\x88\x80\x80\x80", "\xC3", "\xE2\x82",
          "a\xC3(", "\xFF", "\xED\x41\x80", "\xF4\x41\x80\x80", "\xE0\x41\x80"})
        EXPECT_FALSE(legal(bad)) << bad;
    EXPECT_TRUE(isLegalUTF8String(nullptr, 0));

    const char bytes[] = "R&D caf\xC3\xA9";
    const wxString raw = wxString::From8BitData(bytes, sizeof bytes - 1);
    EXPECT_EQ(U8(UTF8ToNative(raw, true)), "R&&D caf\xC3\xA9");
    EXPECT_TRUE(UTF8ToNative(wxString::From8BitData("\xC0\x80", 2), false).empty());
    EXPECT_TRUE(UTF8ToNative(wxString::FromUTF8("\xE2\x82\xAC"), false).empty());
}

}  // namespace
