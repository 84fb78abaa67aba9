// Running commands, user names, clocks and GUIDs, against the shell, the user
// database and uuidgen.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "core/common/Guid.h"
#include "core/common/StringUtil.h"
#include "core/common/SystemUtil.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using VeskTest::CapturingLog;

namespace {

TEST(ExecuteTest, CollectsMixedOutputAndQuotesTheProgramPath) {
    CapturingLog log;
    wxString output = wxS("stale");
    EXPECT_TRUE(Execute(wxS("/bin/sh"),
                        wxS("-c 'echo out; echo err >&2; printf caf\\\\303\\\\251'"), output,
                        true));
    EXPECT_EQ(output.utf8_string(), "out\nerr\ncaf\xC3\xA9");
    VeskTest::ScratchDir dir;
    const std::string program = dir / "my tool";
    VeskTest::WriteFile(program, "#!/bin/sh\necho \"args:$*\"\n");
    ASSERT_EQ(chmod(program.c_str(), 0700), 0);
    EXPECT_TRUE(Execute(wxString::FromUTF8(program), wxS("a 'b c'"), output, true));
    EXPECT_EQ(output, wxS("args:a b c\n"));
    EXPECT_TRUE(log.Lines().empty());
}

TEST(ExecuteTest, ExitCodesAndSignalsFailWithTheRawWaitStatus) {
    CapturingLog log;
    wxString output;
    EXPECT_FALSE(Execute(wxS("/bin/sh"), wxS("-c 'echo partial; exit 3'"), output, true));
    EXPECT_EQ(output, wxS("partial\n"));  // what came is kept
    // The shell that popen runs kills itself: the signal is in the low byte.
    EXPECT_FALSE(Execute(wxS("true"), wxS("; kill -KILL $$"), output, true));
    EXPECT_FALSE(Execute(wxS("/no/such/program"), wxString(), output, true));
    EXPECT_NE(output.Find(wxS("/no/such/program")), wxNOT_FOUND);  // the shell's complaint
    EXPECT_FALSE(Execute(wxS("/bin/sh"), wxS("-c 'exit 1'"), output, false));  // silent
    EXPECT_EQ(
        log.Texts(wxLOG_Error),
        (std::vector<std::string>{"3004|/bin/sh|Exit status 0x300", "3004|true|Exit status 0x9",
                                  "3004|/no/such/program|Exit status 0x7f00"}));
}

// In a child process: with no descriptor left for the pipe, popen fails.
void ExecuteWithoutDescriptors() {
    CapturingLog log;
    const int lowestFree = dup(0);
    close(lowestFree);
    const struct rlimit none = {static_cast<rlim_t>(lowestFree), static_cast<rlim_t>(lowestFree)};
    setrlimit(RLIMIT_NOFILE, &none);
    wxString output = wxS("kept");
    const bool ran = Execute(wxS("/bin/true"), wxString(), output, true);
    _exit(!ran && output == wxS("kept") && log.Contains("3003|/bin/true| (error 24: ") ? 0 : 1);
}

TEST(ExecuteTest, CommandThatCannotStartLeavesOutputAlone) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers' own memory probes need descriptors";
#endif
    EXPECT_EXIT(ExecuteWithoutDescriptors(), ::testing::ExitedWithCode(0), "");
}

TEST(LookupUidTest, NamesKnownUsersAndLeavesUnknownOnesAlone) {
    wxString name;
    EXPECT_TRUE(LookupUID(wxString(), wxS("not a number"), name));  // reads as 0
    EXPECT_EQ(name, wxS("root"));
    EXPECT_TRUE(LookupUID(wxString(), toString(static_cast<long>(getuid())), name));
    EXPECT_EQ(name.utf8_string(), getpwuid(getuid())->pw_name);
    name = wxS("untouched");
    EXPECT_TRUE(LookupUID(wxString(), wxS("3999999999"), name));
    EXPECT_EQ(name, wxS("untouched"));
}

// Each clock read between two reads of the clock it is meant to be.
TEST(ClockTest, TickCountIsMonotonicMillisecondsCutTo32BitsAndTimeIsTheWallClock) {
    auto monotonic = [] {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<unsigned int>(now.tv_sec * 1000LL + now.tv_nsec / 1000000);
    };
    const unsigned int before = monotonic(), tick = SystemTickCount(), after = monotonic();
    EXPECT_LE(tick - before, after - before);  // unsigned: right across a wrap
    auto wall = [] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const long long start = wall(), now = TimeNowMillis(), end = wall();
    EXPECT_TRUE(start <= now && now <= end) << start << " " << now << " " << end;
}

TEST(GuidTest, ReadsUuidgenOutputInEitherCaseAndPrintsLowerCase) {
    VESK_SKIP_WITHOUT_TOOLS("uuidgen");
    std::string text = VeskTest::ToolOutput("uuidgen");
    text.erase(text.find_last_not_of('\n') + 1);
    _GUID guid{}, fromUpper{};
    ASSERT_TRUE(Parse(wxString::FromAscii(text.c_str()), &guid)) << text;
    EXPECT_EQ(toString(&guid).utf8_string(), text);
    ASSERT_TRUE(Parse(wxString::FromAscii(text.c_str()).Upper(), &fromUpper));
    EXPECT_TRUE(Equals(&guid, &fromUpper));
    _GUID known{}, copy{};
    ASSERT_TRUE(Parse(wxS("00112233-4455-6677-8899-AABBCCDDEEFF"), &known));
    EXPECT_EQ(known.Data1, 0x00112233u);
    EXPECT_EQ(known.Data4[7], 0xFF);
    Copy(&copy, &known);
    EXPECT_TRUE(Equals(&copy, &known));
    for (const wxString& bad : {wxString(wxS("00112233-4455-6677-8899-aabbccddeef")),
                                wxString(wxS("00112233-4455-6677-8899-aabbccddeeff0")),
                                wxString(wxS("0011223x-4455-6677-8899-aabbccddeeff")),
                                wxString(wxS("00112233-4455-6677-8899-aabbccddeegg")), wxString()})
        EXPECT_FALSE(Parse(bad, &copy)) << bad.utf8_string();
    EXPECT_TRUE(Equals(&copy, &known));  // untouched by the failures
    Clear(&copy);
    EXPECT_EQ(toString(&copy), wxS("00000000-0000-0000-0000-000000000000"));
}

}  // namespace
