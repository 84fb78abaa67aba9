#include <gtest/gtest.h>

#include <regex>

#include "agent/AgentOptions.h"
#include "agent/StderrLog.h"

namespace {

bool Parse(std::vector<const char*> args, CAgentOptions& options, std::string& error) {
    args.insert(args.begin(), "vesk-agent");
    return CAgentOptions::Parse(static_cast<int>(args.size()), args.data(), options, error);
}

TEST(AgentOptions, AcceptsRunWithTraceInAnyOrder) {
    CAgentOptions options;
    std::string error;
    ASSERT_TRUE(Parse({"--trace", "App,HTTP", "--run", "x.lua"}, options, error)) << error;
    EXPECT_EQ(options.mode, CAgentOptions::Mode::Run);
    EXPECT_EQ(options.script, "x.lua");
    EXPECT_EQ(options.traceMasks, "App,HTTP");
    ASSERT_TRUE(Parse({"--version"}, options, error));
    EXPECT_EQ(options.mode, CAgentOptions::Mode::Version);
    EXPECT_TRUE(options.script.empty());
}

TEST(AgentOptions, RejectsWhatItCannotDo) {
    CAgentOptions options;
    std::string error;
    // No arguments and unknown options: see agent_cli_test.sh.
    EXPECT_FALSE(Parse({"--run"}, options, error));
    EXPECT_NE(error.find("needs a value"), std::string::npos);
    EXPECT_FALSE(Parse({"--run", "a.lua", "--version"}, options, error));
    EXPECT_FALSE(Parse({"run.lua"}, options, error));
    for (const char* bad : {"=x", "novalue"}) {
        EXPECT_FALSE(Parse({"--set", bad, "--service", "s"}, options, error)) << bad;
        EXPECT_NE(error.find("NAME=VALUE"), std::string::npos);
    }
    ASSERT_TRUE(Parse({"--set", "a.b=c=d", "--set", "e=", "--service", "s"}, options, error));
    EXPECT_EQ(options.settings,
              (std::vector<std::pair<std::string, std::string>>{{"a.b", "c=d"}, {"e", ""}}));
}

TEST(StderrLog, JournalLinesCarryPriorityInsteadOfTime) {
    CStderrLog journal(true);
    const wxString text = wxString::FromUTF8("héllo");
    const std::pair<wxLogLevel, const char*> priorities[] = {
        {wxLOG_FatalError, "<3>"}, {wxLOG_Error, "<3>"}, {wxLOG_Warning, "<4>"},
        {wxLOG_Message, "<6>"},    {wxLOG_Info, "<6>"},  {wxLOG_Debug, "<7>"},
        {wxLOG_Trace, "<7>"}};
    for (const auto& [level, priority] : priorities)
        EXPECT_EQ(journal.FormatLine(level, text), std::string(priority) + "héllo") << level;
    EXPECT_EQ(journal.FormatLine(wxLOG_Error, wxS("failed\nstack traceback:\n\tx.lua:1")),
              "<3>failed\n<3>stack traceback:\n<3>\tx.lua:1");

    CStderrLog terminal(false);
    const std::regex stamped(
        "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} Warning: héllo$");
    EXPECT_TRUE(std::regex_match(terminal.FormatLine(wxLOG_Warning, text), stamped));
}

}  // namespace
