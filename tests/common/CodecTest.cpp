// Base64 and hexadecimal against the tools that write and read the same texts
// outside the library: coreutils base64, openssl base64, xxd.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "core/common/Base64.h"
#include "core/common/HexCodec.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using VeskTest::ToolOutput;

namespace {

// Sizes around the 3-byte groups and the 48- and 57-byte lines of the tools.
const size_t kSizes[] = {0, 1, 2, 3, 47, 48, 49, 57, 1000, 5001};

std::string Without(std::string text, char drop) {
    text.erase(std::remove(text.begin(), text.end(), drop), text.end());
    return text;
}

TEST(Base64Test, MatchesAndReadsCoreutilsAndOpenSsl) {
    VESK_SKIP_WITHOUT_TOOLS("base64", "openssl");
    VeskTest::ScratchDir dir;
    const std::string file = dir / "in";
    for (size_t size : kSizes) {
        const std::string data = VeskTest::RandomBytes(size, static_cast<unsigned>(size));
        VeskTest::WriteFile(file, data);
        const std::string oneLine = ToolOutput("base64 -w0 " + file);
        const std::string lines64 = ToolOutput("openssl base64 -in " + file);
        EXPECT_EQ(toBase64StringASCII(data, false), oneLine) << size;
        EXPECT_EQ(toBase64StringASCII(data, true), lines64) << size;
        EXPECT_EQ(FromBase64(oneLine.c_str()), data) << size;
        EXPECT_EQ(FromBase64(lines64.c_str()), data) << size;
        EXPECT_EQ(FromBase64(ToolOutput("base64 " + file).c_str()), data) << "76 columns " << size;
        EXPECT_EQ(fromBase64String(toBase64String(data, false)), data);
    }
    EXPECT_EQ(FromBase64(" \t\n aGVsbG8="), "hello");  // leading blanks don't choose line mode
}

TEST(Base64Test, BadInputGivesWhatDecodedBeforeIt) {
    EXPECT_EQ(FromBase64(nullptr), "");
    EXPECT_EQ(FromBase64("!!!!"), "");
    EXPECT_EQ(FromBase64("aGVsbG8gd29ybGQ=!!"), "hello world");
    EXPECT_EQ(FromBase64("aGVsbG8"), "hel");      // an incomplete last group is dropped
    for (unsigned seed = 0; seed < 50; ++seed) {  // noise must not trip the decoder
        std::string noise = Without(VeskTest::RandomBytes(200 + seed, seed), '\0');
        EXPECT_LE(FromBase64(noise.c_str()).size(), noise.size());
    }
}

TEST(HexTest, MatchesXxdModuloSeparatorsAndReadsEverySeparator) {
    VESK_SKIP_WITHOUT_TOOLS("xxd");
    VeskTest::ScratchDir dir;
    for (size_t size : kSizes) {
        const std::string data = VeskTest::RandomBytes(size, static_cast<unsigned>(size) + 3);
        VeskTest::WriteFile(dir / "in", data);
        const std::string xxd = Without(ToolOutput("xxd -p -u " + (dir / "in")), '\n');
        const std::string separated = toHexString(data, false).utf8_string();
        EXPECT_EQ(toHexString(data, true).utf8_string(), xxd);
        EXPECT_EQ(Without(separated, ':'), xxd);
        EXPECT_EQ(separated.size(), size == 0 ? 0 : size * 3 - 1);
        EXPECT_EQ(fromHexString(wxString::FromAscii(xxd.c_str())), data);
        EXPECT_EQ(fromHexString(wxString::FromAscii(separated.c_str())), data);
    }
    wxMemoryBuffer buffer;
    buffer.AppendData("\xDE\xAD", 2);
    EXPECT_EQ(toHexString(buffer, false), wxS("DE:AD"));
    for (const char* text : {"DE-AD-BE-EF", "de:ad-beef", "D:E-A:D:BEEF"})
        EXPECT_EQ(fromHexString(wxString::FromAscii(text)), "\xDE\xAD\xBE\xEF") << text;
}

TEST(HexTest, BadTextIsLoggedAndSkipped) {
    VeskTest::CapturingLog log;
    EXPECT_EQ(fromHexString(wxS("ABC")), "");
    EXPECT_EQ(fromHexString(wxS("ZZ01")), "\x01");
    // Pairs are of UTF-8 bytes: each two-byte character is one bad pair.
    EXPECT_EQ(fromHexString(wxS("01ZZ02\u00e9\u00e9")), "\x01\x02");
    EXPECT_EQ(fromHexString(wxS("\u00e9AB")), "\xAB");
    fromHexString(wxString(wxS('x'), 1001));
    const auto errors = log.Texts(wxLOG_Error);
    ASSERT_EQ(errors.size(), 7u);
    EXPECT_EQ(errors[1], "fromHexString() - bad hex format: ZZ01");
    EXPECT_EQ(errors[6], "fromHexString() - bad hex format: " + std::string(128, 'x'));

    for (const wxString& text : {wxString(), wxString(wxS(":-")), wxString(wxS("ABC")),
                                 wxString(wxS("0G")), wxString(wxS("1 2 "))})
        EXPECT_FALSE(isHexString(text)) << text.utf8_string();
    EXPECT_TRUE(isHexString(wxS("00:1a-2B")));
    EXPECT_TRUE(isHexString(wxS(" F")));  // what ToULong takes in a pair passes

    unsigned char out[4] = {0x11, 0x11, 0x11, 0x11};
    size_t length = 0;
    EXPECT_FALSE(ParseHex(wxS("01:02:03:04:05"), out, sizeof out, length));
    EXPECT_EQ(length, 5u);  // the size needed; nothing copied
    EXPECT_EQ(out[0], 0x11);
    EXPECT_TRUE(ParseHex(wxS("0A0B0C0D"), out, sizeof out, length));
    EXPECT_EQ(out[3], 0x0D);
    EXPECT_FALSE(ParseHex(wxS("0A"), nullptr, 8, length));  // a null target holds nothing
}

}  // namespace
