// Zip and Unzip against the real tools (zip, unzip, Python's zipfile and
// diff -r), the filter callbacks, and what hostile archives and trees must
// not achieve: each fails, and nothing appears outside the destination.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "core/common/Archive.h"
#include "core/common/ZipHeaders.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using VeskTest::ScratchDir;
using VeskTest::ToolOutput;

namespace {

wxString Wx(const std::string& path) {
    return wxString::FromUTF8(path);
}

int Shell(const std::string& dir, const std::string& command) {
    return ScratchDir::Shell("cd '" + dir + "' && " + command);
}

QXZipAction IncludeAll(void*, const wxString*) {
    return QXZipInclude;
}

bool CountCalls(void* calls, const wxZipEntry*) {
    ++*static_cast<int*>(calls);
    return true;
}

// "mode path" of every file below `root`: what diff -r does not compare.
std::string FileModes(const std::string& root) {
    return ToolOutput("cd '" + root + "' && find . -type f -printf '%m %P\\n' | sort");
}

// Files of several modes, hidden and non-ASCII names, an empty one, a large one.
void MakeTree(const std::string& root) {
    ScratchDir::Shell("mkdir -p '" + root + "/sub/deep'");
    const struct {
        const char* name;
        std::string bytes;
        mode_t mode;
    } files[] = {
        {"a.txt", "hello\n", 0644},
        {"run.sh", "#!/bin/sh\n", 0755},
        {".hidden", "h", 0600},
        {"sub/empty", "", 0444},
        {"sub/ünï cödé.txt", "utf-8", 0664},
        {"sub/deep/data.bin", VeskTest::RandomBytes(300000, 7), 0640},
    };
    for (const auto& file : files) {
        VeskTest::WriteFile(root + "/" + file.name, file.bytes);
        chmod((root + "/" + file.name).c_str(), file.mode);
    }
}

TEST(ZipTest, ATreeIsWhatUnzipTestsExtractsAndDiffsCleanWithModesKept) {
    VESK_SKIP_WITHOUT_TOOLS("unzip", "diff");
    ScratchDir dir;
    MakeTree(dir / "tree");
    ASSERT_TRUE(
        Zip(wxFileName(Wx(dir / "ours.zip")), wxFileName(Wx(dir / "tree")), IncludeAll, nullptr));
    EXPECT_EQ(Shell(dir.path(), "unzip -tq ours.zip >/dev/null"), 0);
    EXPECT_EQ(Shell(dir.path(), "unzip -q ours.zip -d out && diff -r tree out/tree"), 0);
    EXPECT_EQ(FileModes(dir / "out/tree"), FileModes(dir / "tree"));
}

TEST(UnzipTest, ToolArchivesUnpackAsTheToolsMadeThemAndASecondRunSkipsWhatIsThere) {
    VESK_SKIP_WITHOUT_TOOLS("zip", "python3", "diff");
    const struct {
        const char* what;
        const char* command;
    } rows[] = {
        {"zip -r", "zip -qr tool.zip tree"},
        {"Python zipfile",
         "python3 -c 'import os, zipfile\n"
         "z = zipfile.ZipFile(\"tool.zip\", \"w\", zipfile.ZIP_DEFLATED)\n"
         "for d, _, fs in os.walk(\"tree\"):\n"
         "    for f in fs: z.write(os.path.join(d, f))\n"
         "z.close()'"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ScratchDir dir;
        MakeTree(dir / "tree");
        ASSERT_EQ(Shell(dir.path(), row.command), 0);
        const wxFileName archive(Wx(dir / "tool.zip")), out(wxFileName::DirName(Wx(dir / "out")));
        int calls = 0;
        ASSERT_TRUE(Unzip(archive, out, CountCalls, &calls));
        EXPECT_EQ(Shell(dir.path(), "diff -r tree out/tree"), 0);
        EXPECT_EQ(FileModes(dir / "out/tree"), FileModes(dir / "tree"));
        EXPECT_EQ(calls, 7);  // once ahead, once a file
        calls = 0;
        EXPECT_TRUE(Unzip(archive, out, CountCalls, &calls));
        EXPECT_EQ(calls, 1);
    }
}

// A filter that answers `onName` for the path `name`, `onBlock` during
// copies, and QXZipInclude otherwise.
struct Answers {
    std::string name;
    QXZipAction onName;
    QXZipAction onBlock;
};

QXZipAction Answer(void* context, const wxString* name) {
    const auto* answers = static_cast<const Answers*>(context);
    if (name == nullptr)
        return answers->onBlock;
    return name->utf8_string() == answers->name ? answers->onName : QXZipInclude;
}

TEST(ZipTest, TheFilterSkipsWholeDirectoriesAndStopsAnywhere) {
    VESK_SKIP_WITHOUT_TOOLS("unzip");
    const struct {
        Answers answers;
        bool result;
        std::string entries;  // for a result of true
    } rows[] = {
        {{"tree/sub", QXZipSkip, QXZipInclude}, true, "tree/.hidden\ntree/a.txt\ntree/run.sh\n"},
        {{"tree/sub/empty", QXZipStop, QXZipInclude}, false, ""},
        {{"tree/a.txt", QXZipAction(7), QXZipInclude}, false, ""},
        {{"", QXZipInclude, QXZipSkip}, false, ""},  // no skipping in mid-file
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.answers.name);
        ScratchDir dir;
        MakeTree(dir / "tree");
        Answers answers = row.answers;
        EXPECT_EQ(
            Zip(wxFileName(Wx(dir / "f.zip")), wxFileName(Wx(dir / "tree")), Answer, &answers),
            row.result);
        if (row.result) {
            EXPECT_EQ(ToolOutput("unzip -Z1 '" + dir / "f.zip" + "' | sort"), row.entries);
        }
    }
    ScratchDir dir;
    MakeTree(dir / "tree");
    ASSERT_TRUE(
        Zip(wxFileName(Wx(dir / "z.zip")), wxFileName(Wx(dir / "tree")), IncludeAll, nullptr));
    const auto refuse = [](void*, const wxZipEntry*) { return false; };
    EXPECT_FALSE(Unzip(wxFileName(Wx(dir / "z.zip")), wxFileName::DirName(Wx(dir / "out")), refuse,
                       nullptr));
    EXPECT_EQ(access((dir / "out").c_str(), F_OK), -1);  // nothing touched
}

TEST(ZipTest, ADanglingLinkOrALoopInTheTreeFailsTheCall) {
    const char* links[] = {"ln -s nowhere tree/sub/dangling", "ln -s . tree/sub/deep/loop",
                           "ln -s .. tree/sub/deep/up"};
    for (const char* link : links) {
        SCOPED_TRACE(link);
        ScratchDir dir;
        MakeTree(dir / "tree");
        ASSERT_EQ(Shell(dir.path(), link), 0);
        const std::string before = ToolOutput("cd '" + dir.path() + "' && find . | sort");
        EXPECT_FALSE(
            Zip(wxFileName(Wx(dir / "z.zip")), wxFileName(Wx(dir / "tree")), IncludeAll, nullptr));
        EXPECT_EQ(ToolOutput("cd '" + dir.path() + "' && find . ! -name z.zip | sort"), before);
        EXPECT_EQ(ToolOutput("unzip -Z1 '" + dir / "z.zip" +
                             "' 2>/dev/null | grep -c "
                             "'/loop/\\|/up/'; true"),
                  "0\n");  // the failure came before the walk went round
    }
}

// Little-endian; six bytes of zeros fill three fields at once.
std::string Le(uint64_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i)
        out += static_cast<char>(value >> (8 * i));
    return out;
}

struct RawEntry {
    std::string name;
    std::string data;  // as stored
    uint32_t crc;
    uint32_t size;  // as claimed
    uint16_t method;
    uint32_t mode;
};

RawEntry Stored(const std::string& name, const std::string& bytes, uint32_t crcFlip = 0) {
    const auto crc = static_cast<uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
    return {name, bytes, crc ^ crcFlip, static_cast<uint32_t>(bytes.size()), 0, 0100644};
}

// `mib` MiB of zeros, deflated: one MiB ends on a byte boundary (sync
// flush) and reads as well after itself, so copies of it chain; an empty
// final block ends the stream.
RawEntry Zeros(const std::string& name, uint32_t mib) {
    static const std::string zeros(1 << 20, '\0');
    static const std::string block = [] {
        z_stream z{};
        deflateInit2(&z, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY);
        std::string out(1 << 16, '\0');
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zeros.data()));
        z.avail_in = static_cast<uInt>(zeros.size());
        z.next_out = reinterpret_cast<Bytef*>(&out[0]);
        z.avail_out = static_cast<uInt>(out.size());
        deflate(&z, Z_SYNC_FLUSH);
        out.resize(out.size() - z.avail_out);
        deflateEnd(&z);
        return out;
    }();
    const uLong blockCrc = crc32(0, reinterpret_cast<const Bytef*>(zeros.data()), 1 << 20);
    RawEntry entry{name, "", 0, mib << 20, 8, 0100644};
    for (uint32_t i = 0; i < mib; ++i) {
        entry.data += block;
        entry.crc = static_cast<uint32_t>(crc32_combine(entry.crc, blockCrc, 1 << 20));
    }
    entry.data += std::string("\x03\x00", 2);
    return entry;
}

// An archive as the entries claim, made on Unix with their modes.
std::string RawZip(const std::vector<RawEntry>& entries) {
    std::string local, central;
    for (const RawEntry& e : entries) {
        const std::string common = Le(20, 2) + Le(0, 2) + Le(e.method, 2) + Le(0x58210000, 4) +
                                   Le(e.crc, 4) + Le(static_cast<uint32_t>(e.data.size()), 4) +
                                   Le(e.size, 4) + Le(static_cast<uint32_t>(e.name.size()), 2) +
                                   Le(0, 2);
        central += Le(0x02014b50, 4) + Le(0x031e, 2) + common + Le(0, 6) + Le(e.mode << 16, 4) +
                   Le(static_cast<uint32_t>(local.size()), 4) + e.name;
        local += Le(0x04034b50, 4) + common + e.name + e.data;
    }
    const auto count = static_cast<uint32_t>(entries.size());
    return local + central + Le(0x06054b50, 4) + Le(0, 4) + Le(count, 2) + Le(count, 2) +
           Le(static_cast<uint32_t>(central.size()), 4) +
           Le(static_cast<uint32_t>(local.size()), 4) + Le(0, 2);
}

TEST(ZipHeadersTest, StoredNamesThatStayInsideAndWhatWxMakesOfThem) {
    const struct {
        std::string stored;
        bool contained;
        const char* internal;
    } rows[] = {
        {"a/b.txt", true, "a/b.txt"},
        {"dir/", true, "dir"},
        {"./x", true, "x"},
        {"..a/b..", true, "..a/b.."},
        {"a/./b", true, "a/./b"},
        {"../x", false, "../x"},
        {"x/..", false, "x/.."},
        {"a/../../x", false, "a/../../x"},
        {"/abs", false, "abs"},
        {"..", false, ""},
        {"", false, ""},
        {std::string("a\0b", 3), false, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.stored);
        EXPECT_EQ(IsContainedEntryName(row.stored), row.contained);
        if (row.internal != nullptr) {
            EXPECT_EQ(ZipInternalName(row.stored), row.internal);
        }
    }
}

TEST(UnzipTest, HostileArchivesFailAndNothingLandsOutsideTheDestination) {
    VESK_SKIP_WITHOUT_TOOLS("zip");
    VeskTest::CapturingLog log;  // wx reports the bad CRC
    ScratchDir dir;              // the destination is dir/work/dest: "../../x" would be dir/x
    MakeTree(dir / "tree");
    ASSERT_EQ(Shell(dir.path(),
                    "mkdir ytree && echo x >ytree/file && ln -s ../../outside "
                    "ytree/up && ln -s '" +
                        dir.path() +
                        "/target' ytree/abs && "
                        "zip -qry symlinks.zip ytree && zip -qr good.zip tree"),
              0);
    const std::string good = VeskTest::ReadFile(dir / "good.zip");
    RawEntry forged = Zeros("forged", 1024);
    forged.size = 1024;
    const struct {
        const char* what;
        std::string bytes;
        const char* madeByZip = nullptr;
        const char* setup = "true";  // in dir, before
        bool result = false;
    } rows[] = {
        {"a link already in the destination", RawZip({Stored("ln/x", "through"), Stored("f", "")}),
         nullptr, "mkdir elsewhere && ln -s ../../elsewhere work/dest/ln", true},
        {"../../x", RawZip({Stored("fine", "ok"), Stored("../../x", "escaped")})},
        {"a/../../x", RawZip({Stored("a/../../x", "escaped")})},
        {"absolute", RawZip({Stored(dir / "abs", "escaped")})},
        {"zip -y symlink entries", "", "symlinks.zip"},
        {"1 GiB of zeros", RawZip({Zeros("bomb", 1024)})},
        {"forged sizes", RawZip({forged})},
        {"too much in all", RawZip({Zeros("1", 256), Zeros("2", 256), Zeros("3", 256),
                                    Zeros("4", 256), Zeros("5", 256)})},
        {"bad CRC", RawZip({Stored("crc", "content", 1)})},
        {"truncated", good.substr(0, good.size() / 2)},
        {"truncated end record", good.substr(0, good.size() - 3)},
        {"empty", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const std::string archive = dir / (row.madeByZip ? row.madeByZip : "hostile.zip");
        if (!row.madeByZip)
            VeskTest::WriteFile(archive, row.bytes);
        ASSERT_EQ(Shell(dir.path(),
                        "rm -rf work elsewhere && mkdir -p work/dest && " + std::string(row.setup)),
                  0);
        const std::string outside = ToolOutput(
            "cd '" + dir.path() + "' && find . -path ./work/dest -prune -o -print | sort");
        const std::string links = ToolOutput("find '" + dir / "work/dest" + "' -type l");
        int calls = 0;
        EXPECT_EQ(Unzip(wxFileName(Wx(archive)), wxFileName::DirName(Wx(dir / "work/dest")),
                        CountCalls, &calls),
                  row.result);
        EXPECT_EQ(ToolOutput("cd '" + dir.path() +
                             "' && find . -path ./work/dest -prune -o -print | sort"),
                  outside);
        EXPECT_EQ(ToolOutput("find '" + dir / "work/dest" + "' -type l"), links);
        EXPECT_EQ(ToolOutput("find '" + dir / "work/dest" + "' -type f -size +1024c"), "");
    }
}

}  // namespace
