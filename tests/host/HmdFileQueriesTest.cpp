// The file and environment queries against the tools a reader would check
// them with (ls -f, stat, grep -E, sha1sum), their answers to bad input,
// and two threads querying at once.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <sstream>
#include <thread>

#include "core/host/HmdFileContents.h"
#include "core/host/HmdQueries.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/host/HmdTestSupport.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using VeskTest::Items;
using VeskTest::Query;
using VeskTest::ScratchDir;
using VeskTest::ToolOutput;

namespace {

std::string Quoted(const std::string& text) {
    std::string out = "'";
    for (const char c : text)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string Single(const CHostMetaDataQueryResult& result, const char* name) {
    if (result.items.GetChildren().GetCount() != 1)
        return "<" + std::to_string(result.items.GetChildren().GetCount()) + " items>";
    return static_cast<const CHostMetaData*>(result.items.GetChildren().GetFirst()->GetData())
        ->GetAttribute(name)
        .utf8_string();
}

// Lines of words, numbers and a little UTF-8, deterministic.
std::string Text(size_t size) {
    static const char* const words[] = {"alpha", "beta",  "error", "warn",   "Zürich", "x=1",
                                        "a.b",   "tab\t", "12.5",  "(paren", "end.",   "ERROR"};
    std::mt19937 random(7);
    std::string text;
    while (text.size() < size) {
        const int count = static_cast<int>(random() % 9);
        for (int i = 0; i < count; ++i)
            text += std::string(i ? " " : "") + words[random() % 12];
        text += random() % 5 ? "\n" : " " + std::to_string(random() % 1000) + "\n";
    }
    return text;
}

TEST(HmdFileQueriesTest, ListingIsLsInDirectoryOrder) {
    VESK_SKIP_WITHOUT_TOOLS("ls");
    ScratchDir dir;
    for (int i = 0; i < 60; ++i)
        VeskTest::WriteFile(dir / ("file " + std::to_string(i)), "");
    ASSERT_EQ(ScratchDir::Shell("cd " + Quoted(dir.path()) +
                                " && mkdir sub .hidden && ln -s nowhere dangling && mkfifo fifo && "
                                "touch Zürich"),
              0);
    CHostMetaDataQueryResult result;
    ASSERT_TRUE(Query(&GetHmdDirectoryListing, result, {dir.path()}));
    std::string expected;
    std::istringstream lines(ToolOutput("ls -f " + Quoted(dir.path())));
    for (std::string line; std::getline(lines, line);)
        if (line != "." && line != "..")
            expected += line + "|";
    EXPECT_EQ(Single(result, "entries"), expected);
    EXPECT_EQ(result.commandVersion, 1);

    ScratchDir empty;
    CHostMetaDataQueryResult none;
    ASSERT_TRUE(Query(&GetHmdDirectoryListing, none, {empty.path()}));
    EXPECT_EQ(Single(none, "entries"), "");
}

TEST(HmdFileQueriesTest, FileInfoIsStat) {
    VESK_SKIP_WITHOUT_TOOLS("stat", "readlink");
    ScratchDir dir;
    VeskTest::WriteFile(dir / "f", "12345");
    ASSERT_EQ(chmod((dir / "f").c_str(), 04751), 0);
    ASSERT_EQ(symlink("f", (dir / "link").c_str()), 0);
    if (geteuid() == 0) {  // a group other than the owner's number: groupId repeats the owner
        ASSERT_EQ(chown((dir / "f").c_str(), 0, 1), 0);
    }
    CHostMetaDataQueryResult result;
    ASSERT_TRUE(
        Query(&GetHmdFileInfo, result, {dir / "f", dir.path(), dir / "link", dir / "gone"}));
    EXPECT_EQ(result.commandVersion, 2);
    auto items = Items(result);
    ASSERT_EQ(items.size(), 3u);
    for (const std::string name : {"f", "", "link"}) {
        const std::string path = name.empty() ? dir.path() : dir / name;
        std::istringstream stat(ToolOutput("stat -L -c '%X %Y %Z %s %f %u' " + Quoted(path)));
        long long access, modify, change, size;
        unsigned mode;
        int uid;
        stat >> access >> modify >> change >> size >> std::hex >> mode >> std::dec >> uid;
        char octal[16];
        snprintf(octal, sizeof octal, "%#o", mode);
        std::string expected = "created=" + std::to_string(change * 1000) +
                               ";groupId=" + std::to_string(uid) +
                               ";lastAccess=" + std::to_string(access * 1000) +
                               ";lastModified=" + std::to_string(modify * 1000) + ";";
        if (name == "link")
            expected += "linkTo=" + ToolOutput("readlink " + Quoted(path)).substr(0, 1) + ";";
        expected += "mode=" + std::string(octal) + ";size=" + std::to_string(size) +
                    ";type=" + (name.empty() ? "directory" : "file") +
                    ";userId=" + std::to_string(uid) + ";";
        EXPECT_EQ(items[path], expected) << path;
    }
}

class ContentsTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = new ScratchDir;
        text_ = new std::string(Text(10 << 20));
        VeskTest::WriteFile(*dir_ / "text", *text_);
    }
    static void TearDownTestSuite() {
        delete dir_;
        delete text_;
    }
    static ScratchDir* dir_;
    static std::string* text_;
};
ScratchDir* ContentsTest::dir_ = nullptr;
std::string* ContentsTest::text_ = nullptr;

// Both ways of searching (across lines, and line by line) give what grep
// gives, and the hash is the SHA-1 of types, identifiers, names and values
// run together.
TEST_F(ContentsTest, MatchedLinesAreGrepsForPlainPatterns) {
    VESK_SKIP_WITHOUT_TOOLS("grep", "sha1sum");
    const char* const patterns[] = {
        "error",
        "ERROR|warn",
        "^alpha",
        "end\\.$",
        "^$",
        "Zürich",
        "[0-9]{3}$",
        "a\\.b x=1",
        "\\(paren",
        "^[a-z]+ beta$",
        "tab\t",
        "e(rr|n)o?r?",
        "(alpha|beta) (alpha|beta)",
        "x=1$",
        "[[:digit:]]+\\.[[:digit:]]",
        "ü",
        "^[^ ]*$",
        "a{2}",
        "[A-Z]{5}",
        "q",
    };
    const std::string file = *dir_ / "text";
    for (const char* pattern : patterns) {
        CHostMetaDataQueryResult result;
        ASSERT_TRUE(Query(&GetHmdFileContents, result, {file, pattern, "20000000"})) << pattern;
        const std::string grep = ToolOutput("LC_ALL=C.UTF-8 grep -E " + Quoted(pattern) + " " +
                                            Quoted(file) + " || true");
        EXPECT_EQ(Single(result, "matchedStrings"), grep) << pattern;
        CLineMatcher matcher;
        std::string error, lineByLine;
        ASSERT_TRUE(matcher.Compile(pattern, error));
        matcher.MatchLines(text_->data(), text_->size(), lineByLine, true);
        EXPECT_EQ(lineByLine, grep) << pattern;
    }
    CHostMetaDataQueryResult result;
    ASSERT_TRUE(Query(&GetHmdFileContents, result, {file, "Zürich 1", "20000000"}));
    result.ComputeHash();
    VeskTest::WriteFile(*dir_ / "hashed", "fileContents" + file + "matchedStrings" +
                                              Single(result, "matchedStrings") +
                                              "searchStringZürich 1");
    std::string hash = result.hash.utf8_string();
    hash.erase(std::remove(hash.begin(), hash.end(), ':'), hash.end());
    std::transform(hash.begin(), hash.end(), hash.begin(), ::tolower);
    EXPECT_EQ(hash + "  " + *dir_ / "hashed" + "\n",
              ToolOutput("sha1sum " + Quoted(*dir_ / "hashed")));
}

// Line ends, bytes that are no text, and patterns that see past a line's
// ends (searched line by line).
TEST_F(ContentsTest, LinesAndBytesAsDecided) {
    const std::string binary = *dir_ / "binary", lines = *dir_ / "lines";
    VeskTest::WriteFile(binary, std::string("a\0b\n\xff\xfe\n", 7));
    VeskTest::WriteFile(lines, "ok\r\nk\rlast k\n\nend");
    const struct {
        const std::string& file;
        const char* pattern;
        const char* matched;
    } rows[] = {
        {binary, "",
         "a\xEF\xBF\xBD"
         "b\n\xC3\xBF\xC3\xBE\n"},
        {binary, "b$",
         "a\xEF\xBF\xBD"
         "b\n"},
        {binary, "\\x00",
         "a\xEF\xBF\xBD"
         "b\n"},
        {binary, "ÿ", "\xC3\xBF\xC3\xBE\n"},
        {lines, "", "ok\nk\nlast k\n\nend\n"},
        {lines, "k$", "ok\nk\nlast k\n"},
        {lines, "^k", "k\n"},
        {lines, "^$", "\n"},
        {lines, "k\\s", ""},
        {lines, "(?<=o)k", "ok\n"},
        {lines, "k\\z", "ok\nk\nlast k\n"},
        {lines, "(?!.)", "ok\nk\nlast k\n\nend\n"},
    };
    for (const auto& row : rows) {
        CHostMetaDataQueryResult result;
        ASSERT_TRUE(Query(&GetHmdFileContents, result, {row.file, row.pattern})) << row.pattern;
        EXPECT_EQ(Single(result, "matchedStrings"), row.matched) << row.pattern;
        EXPECT_EQ(Single(result, "searchString"), row.pattern);
    }
}

TEST_F(ContentsTest, BadInputsGiveFalseAndNoBlock) {
    const std::string at = *dir_ / "at-limit";
    VeskTest::WriteFile(at, std::string(100, 'x'));
    VeskTest::WriteFile(*dir_ / "over-limit", std::string(101, 'x'));
    ASSERT_EQ(mkfifo((*dir_ / "fifo").c_str(), 0600), 0);  // no writer: opening it would wait
    ASSERT_EQ(symlink("loop", (*dir_ / "loop").c_str()), 0);
    ASSERT_EQ(symlink("gone", (*dir_ / "dangling").c_str()), 0);
    struct Row {
        std::initializer_list<std::string> args;
        bool answer;
        const char* logged;
    };
    const Row rows[] = {
        {{at, "", "100"}, true, nullptr},
        {{*dir_ / "over-limit", "", "100"}, false, nullptr},
        {{*dir_ / "over-limit", "", "x100"}, true, nullptr},  // no number: the default limit
        {{"/proc/self/status", "^Name:", "100000"}, true, nullptr},
        {{"/proc/self/status", "", "10"}, false, nullptr},  // size 0, but more bytes than that
        {{*dir_ / "fifo"}, false, nullptr},
        {{"/dev/zero"}, false, nullptr},
        {{dir_->path()}, false, nullptr},
        {{*dir_ / "loop"}, false, nullptr},
        {{*dir_ / "dangling"}, false, nullptr},
        {{*dir_ / "missing", "("}, false, nullptr},  // the file is judged first
        {{at, "("}, false, "Invalid regular expression '(': missing closing parenthesis"},
        {{}, false, nullptr},
    };
    for (const Row& row : rows) {
        VeskTest::CapturingLog log;
        CHostMetaDataQueryResult result;
        EXPECT_EQ(Query(&GetHmdFileContents, result, row.args), row.answer) << *row.args.begin();
        const auto errors = log.Texts(wxLOG_Error);
        EXPECT_EQ(errors.size(), row.logged ? 1u : 0u) << *row.args.begin();
        if (row.logged && !errors.empty()) {
            EXPECT_EQ(errors[0], row.logged);
        }
    }
    CHostMetaDataQueryResult info;
    ASSERT_TRUE(Query(&GetHmdFileInfo, info,
                      {*dir_ / "fifo", *dir_ / "loop", *dir_ / "dangling", *dir_ / "missing", ""}));
    EXPECT_EQ(info.items.GetChildren().GetCount(), 0u);
    info.ComputeHash();
    EXPECT_EQ(info.hash, wxS("DA:39:A3:EE:5E:6B:4B:0D:32:55:BF:EF:95:60:18:90:AF:D8:07:09"));
    for (const std::string& path : {*dir_ / "fifo", *dir_ / "loop", at, std::string()}) {
        CHostMetaDataQueryResult listing;
        EXPECT_FALSE(Query(&GetHmdDirectoryListing, listing, {path})) << path;
    }
}

// Names that are not UTF-8 keep their bytes as Latin-1.
TEST_F(ContentsTest, NamesThatAreNotUtf8) {
    ScratchDir dir;
    VeskTest::WriteFile(dir / "\xff\xfe", "");
    CHostMetaDataQueryResult listing;
    ASSERT_TRUE(Query(&GetHmdDirectoryListing, listing, {dir.path()}));
    EXPECT_EQ(Single(listing, "entries"), "\xC3\xBF\xC3\xBE|");
    setenv("VESK_HMD_LATIN", "\xe9t\xe9", 1);
    CHostMetaDataQueryResult environment;
    ASSERT_TRUE(Query(&GetHmdEnvironment, environment, {"VESK_HMD_LATIN", "VESK_HMD_UNSET"}));
    EXPECT_EQ(Single(environment, "value"), "\xC3\xA9t\xC3\xA9");
    CHostMetaDataQueryResult all;
    ASSERT_TRUE(Query(&GetHmdEnvironment, all, {}));
    EXPECT_EQ(Items(all)["VESK_HMD_LATIN"], "value=\xC3\xA9t\xC3\xA9;");
    unsetenv("VESK_HMD_LATIN");
}

// What root may read, another user may not.
TEST(HmdFileQueriesTest, UnreadableAsAnotherUser) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    ScratchDir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dir / "closed").c_str(), 0), 0);
    VeskTest::WriteFile(dir / "secret", "x\n");
    ASSERT_EQ(chmod((dir / "secret").c_str(), 0600), 0);
    const std::string answers = VeskTest::InChild([&] {
        if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
            setresuid(65534, 65534, 65534) != 0)
            return std::string("no setresuid");
        CHostMetaDataQueryResult a, b, c;
        return std::to_string(Query(&GetHmdDirectoryListing, a, {dir / "closed"})) +
               std::to_string(Query(&GetHmdFileContents, b, {dir / "secret"})) +
               std::to_string(Query(&GetHmdDirectoryListing, c, {dir.path()}));
    });
    EXPECT_EQ(answers, "001");
    CHostMetaDataQueryResult root;
    EXPECT_TRUE(Query(&GetHmdDirectoryListing, root, {dir / "closed"}));
}

// Each call has its own objects: two threads at once get what one gets.
TEST_F(ContentsTest, TwoThreadsQueryAtOnce) {
    const auto run = [&] {
        std::string out;
        for (int i = 0; i < 3; ++i) {
            CHostMetaDataQueryResult contents, listing, ports, environment;
            Query(&GetHmdFileContents, contents, {*dir_ / "text", "error|Zürich", "20000000"});
            Query(&GetHmdDirectoryListing, listing, {dir_->path()});
            Query(&GetHmdListenPorts, ports, {"detailed"});
            Query(&GetHmdEnvironment, environment, {});
            contents.ComputeHash();
            listing.ComputeHash();
            ports.ComputeHash();
            out += (contents.hash + listing.hash).utf8_string();
        }
        return out;
    };
    std::string first, second;
    std::thread other([&] { second = run(); });
    first = run();
    other.join();
    EXPECT_EQ(first, second);
    EXPECT_EQ(first.size(), 6u * 59);
}

}  // namespace
