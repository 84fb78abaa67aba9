// Directory trees, checked removal and renaming, replacement and permissions,
// on the real file system, each test inside a scratch directory of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/common/FileUtil.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using VeskTest::CapturingLog;
using VeskTest::ReadFile;
using VeskTest::WriteFile;

namespace {

wxString Wx(const std::string& path) {
    return wxString::FromUTF8(path);
}

mode_t ModeOf(const std::string& path) {  // type bits included, 0 for nothing; never follows
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 ? info.st_mode : 0;
}

std::string LinkTarget(const std::string& path) {
    char target[4096];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    return length < 0 ? std::string("(not a link)") : std::string(target, size_t(length));
}

// Every entry below `root` (links not followed): type and mode, a link's
// target, a file's content. Equal snapshots mean nothing was touched.
using Snapshot = std::map<std::string, std::string>;

Snapshot Take(const std::string& root) {
    Snapshot out;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::string path = entry.path().string();
        const mode_t mode = ModeOf(path);
        std::string& seen = out[path.substr(root.size())] = std::to_string(mode);
        if (S_ISLNK(mode))
            seen += " -> " + LinkTarget(path);
        else if (S_ISREG(mode))
            seen += " " + ReadFile(path);
    }
    return out;
}

struct Scratch : VeskTest::ScratchDir {
    void Dirs(std::initializer_list<const char*> names) const {
        for (const char* name : names)
            ASSERT_EQ(mkdir((*this / name).c_str(), 0755), 0) << name;
    }
    void Link(const std::string& target, const std::string& name) const {
        ASSERT_EQ(symlink(target.c_str(), (*this / name).c_str()), 0) << name;
    }
    void Fifo(const std::string& name) const {
        ASSERT_EQ(mkfifo((*this / name).c_str(), 0644), 0) << name;
    }
    // A bound Unix socket left behind by a closed listener.
    void Socket(const std::string& name) const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        ASSERT_LT((*this / name).size(), sizeof address.sun_path);
        std::strcpy(address.sun_path, (*this / name).c_str());
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        close(fd);
    }
    // A character device like /dev/null; false where mknod is not allowed.
    bool Device(const std::string& name) const {
        return mknod((*this / name).c_str(), S_IFCHR | 0644, makedev(1, 3)) == 0;
    }
};

// Runs `call` on a thread of its own. A call still blocked after 10 s is
// taken to wait on `fifo`: a writer that opens and closes it releases the
// reader (it reads end-of-file), so the test fails instead of hanging.
std::optional<bool> WithinTenSeconds(std::function<bool()> call, const std::string& fifo) {
    std::future<bool> result = std::async(std::launch::async, std::move(call));
    if (result.wait_for(std::chrono::seconds(10)) == std::future_status::ready)
        return result.get();
    while (result.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
        const int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0)
            close(fd);
    }
    result.get();
    return std::nullopt;
}

// source/ with a hidden file, a nested directory and a file of mode 0640;
// outside/ next to it.
void MakeTree(const Scratch& dir) {
    dir.Dirs({"source", "source/sub", "source/sub/deeper", "outside"});
    WriteFile(dir / "source/.hidden", "hidden\n");
    WriteFile(dir / "source/sub/deeper/f", "deep\n");
    WriteFile(dir / "source/sub/private", "p");
    WriteFile(dir / "outside/o", "out\n");
    ASSERT_EQ(chmod((dir / "source/sub/private").c_str(), 0640), 0);
}

TEST(CopyDirectoryTest, CopiesTheTreeLinksAsLinksSkipsAFifoAndMergesWithoutFollowingLinks) {
    Scratch dir;
    MakeTree(dir);
    WriteFile(dir / "source/tool", "#!/bin/sh\n");
    ASSERT_EQ(chmod((dir / "source/tool").c_str(), 04755), 0);
    dir.Link(dir / "outside/o", "source/secret");  // followed: a file from outside
    dir.Link("..", "source/sub/up");               // followed: the tree again
    dir.Fifo("source/sub/fifo");                   // opened: a wait for a writer
    CapturingLog log;
    const std::optional<bool> copied =
        WithinTenSeconds([&] { return CopyDirectory(Wx(dir / "copy"), Wx(dir / "source"), false); },
                         dir / "source/sub/fifo");
    ASSERT_TRUE(copied.has_value()) << "the copy waited on the FIFO";
    EXPECT_TRUE(*copied);
    EXPECT_EQ(ReadFile(dir / "copy/.hidden") + ReadFile(dir / "copy/sub/deeper/f"),
              "hidden\ndeep\n");
    EXPECT_EQ(ModeOf(dir / "copy"), S_IFDIR | 0700u);
    EXPECT_EQ(ModeOf(dir / "copy/sub"), S_IFDIR | 0700u);
    EXPECT_EQ(ModeOf(dir / "copy/sub/private"), S_IFREG | 0640u);
    EXPECT_EQ(ModeOf(dir / "copy/tool"), S_IFREG | 0755u);  // no set-user-ID on the copy
    EXPECT_EQ(LinkTarget(dir / "copy/secret") + " " + LinkTarget(dir / "copy/sub/up"),
              dir / "outside/o ..");
    EXPECT_EQ(ModeOf(dir / "copy/sub/fifo"), 0u);
    EXPECT_EQ(log.Texts(wxLOG_Error),
              std::vector<std::string>{"CopyDirectory: " + (dir / "source/sub/fifo") +
                                       ": not a regular file, directory or link; skipped"});

    log.Clear();
    EXPECT_FALSE(CopyDirectory(Wx(dir / "copy"), Wx(dir / "source"), false));
    ASSERT_EQ(log.Lines().size(), 1u);  // one line, carrying mkdir's own error
    EXPECT_TRUE(log.Contains("CopyDirectory: " + (dir / "copy/") + ":  (error 17: File exists)"));
    // A merge replaces what stands where a file goes and never writes through
    // it; a link where a directory goes is left alone.
    std::filesystem::remove_all(dir / "copy/sub");
    std::filesystem::remove(dir / "copy/.hidden");
    dir.Link(dir / "outside", "copy/sub");
    dir.Link(dir / "outside/created", "copy/.hidden");
    WriteFile(dir / "copy/extra", "kept");
    const Snapshot outside = Take(dir / "outside");
    EXPECT_TRUE(CopyDirectory(Wx(dir / "copy"), Wx(dir / "source"), true));
    EXPECT_EQ(Take(dir / "outside"), outside);
    EXPECT_TRUE(S_ISREG(ModeOf(dir / "copy/.hidden")));
    EXPECT_EQ(ReadFile(dir / "copy/.hidden") + ReadFile(dir / "copy/extra"), "hidden\nkept");
    EXPECT_TRUE(S_ISLNK(ModeOf(dir / "copy/sub")));
    EXPECT_TRUE(log.Contains("CopyDirectory: " + (dir / "copy/sub/") + ":  (error 17: "));

    EXPECT_FALSE(CopyDirectory(Wx(dir / "x"), Wx(dir / "missing"), false));
    EXPECT_TRUE(log.Contains("CopyDirectory: " + (dir / "missing/") + ": "));
    EXPECT_EQ(ModeOf(dir / "x"), 0u);
}

TEST(CopyDirectoryTest, RefusesADestinationThatIsTheSourceOrInsideIt) {
    Scratch dir;
    MakeTree(dir);
    dir.Link("source", "alias");
    // "source2" merely starts like the source.
    const std::pair<const char*, bool> cases[] = {
        {"source", true},      {"alias", true},    {"source/inner", true},
        {"alias/inner", true}, {"source2", false}, {"outside/copy", false},
    };
    for (const auto& [destination, refused] : cases) {
        const Snapshot before = Take(dir / "source");
        CapturingLog log;
        EXPECT_EQ(CopyDirectory(Wx(dir / destination), Wx(dir / "source"), true), !refused)
            << destination;
        EXPECT_EQ(log.Contains("CopyDirectory: refusing to copy " + (dir / "source") +
                               " into itself (" + (dir / destination) + ")"),
                  refused)
            << destination;
        EXPECT_EQ(Take(dir / "source"), before) << destination;
    }
    EXPECT_EQ(ReadFile(dir / "source2/sub/deeper/f") + ReadFile(dir / "outside/copy/.hidden"),
              "deep\nhidden\n");
}

TEST(RemoveDirectoryTest, RemovesTheTreeButNothingALinkPointsAt) {
    Scratch dir;
    MakeTree(dir);
    dir.Link("../outside", "source/sub/dirlink");
    dir.Link(dir / "outside", "link");
    const Snapshot outside = Take(dir / "outside");
    EXPECT_TRUE(RemoveDirectory(Wx(dir / "source")));
    EXPECT_EQ(ModeOf(dir / "source"), 0u);

    CapturingLog log;  // lstat of "link/" would look through the link
    EXPECT_FALSE(RemoveDirectory(Wx(dir / "link//")));
    EXPECT_TRUE(log.Contains("RemoveDirectory: " + (dir / "link") + " (error 20: "));
    EXPECT_EQ(Take(dir / "outside"), outside);
}

TEST(ReplaceFileTest, ReadersSeeTheOldOrTheNewFileNeverAMix) {
    Scratch dir;
    const std::string oldText(1 << 20, 'o'), newText(1 << 20, 'n');
    WriteFile(dir / "target", oldText);
    std::atomic<bool> done{false};
    std::atomic<int> reads{0}, torn{0};
    std::thread reader([&] {
        for (; !done; ++reads) {
            const std::string seen = ReadFile(dir / "target");
            torn += seen != oldText && seen != newText;
        }
    });
    for (int i = 0; i < 40 || reads < 20; ++i) {
        WriteFile(dir / "next", i % 2 == 0 ? newText : oldText);
        ASSERT_TRUE(ReplaceFile(Wx(dir / "next"), Wx(dir / "target")));
    }
    done = true;
    reader.join();
    EXPECT_EQ(torn, 0);

    CapturingLog log;
    EXPECT_FALSE(ReplaceFile(Wx(dir / "next"), Wx(dir / "target")));
    EXPECT_EQ(log.Texts(wxLOG_Error).at(0), "3006|rename|" + (dir / "next") + " -> " +
                                                (dir / "target") +
                                                "|2 (No such file or directory)");
}

TEST(SecureFileOrDirectoryTest, FollowsLinksLikeChmodButLeavesSpecialFilesAlone) {
    Scratch dir;
    dir.Dirs({"d", "e"});
    WriteFile(dir / "f", "x");
    dir.Link("e", "to-dir");
    dir.Fifo("fifo");
    dir.Socket("socket");
    const bool device = dir.Device("null");
    const struct {
        const char* path;
        bool traversable;
        const char* changed;  // the entry whose mode is looked at
        mode_t mode;          // 0: refused, the mode stays as it was
    } cases[] = {
        {"f", true, "f", S_IFREG | 0600}, {"d", false, "d", S_IFDIR | 0700},
        {"d", true, "d", S_IFDIR | 0711}, {"to-dir", true, "e", S_IFDIR | 0711},
        {"fifo", false, "fifo", 0},       {"socket", true, "socket", 0},
        {"null", false, "null", 0},
    };
    for (const auto& c : cases) {
        if (std::strcmp(c.path, "null") == 0 && !device)
            continue;
        ASSERT_EQ(chmod((dir / c.changed).c_str(), S_ISDIR(ModeOf(dir / c.changed)) ? 0777 : 0644),
                  0);
        const mode_t before = ModeOf(dir / c.changed);
        CapturingLog log;
        SecureFileOrDirectory(Wx(dir / c.path), c.traversable);
        EXPECT_EQ(ModeOf(dir / c.changed), c.mode == 0 ? before : c.mode) << c.path;
        EXPECT_EQ(log.Contains("SecureFileOrDirectory: " + (dir / c.path) +
                               ": refusing a FIFO, socket or device"),
                  c.mode == 0)
            << c.path;
    }
}

TEST(SetInheritableTest, TogglesCloseOnExecAndFailsOnAClosedDescriptor) {
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(SetInheritable(fd, true));
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_TRUE(SetInheritable(fd, false));
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    close(fd);
    EXPECT_FALSE(SetInheritable(fd, true));
}

TEST(CheckedFileTest, RemoveAndRenameDoWhatWxDoesForOrdinaryFiles) {
    Scratch dir;
    WriteFile(dir / "a", "a");
    WriteFile(dir / "b", "b");
    CapturingLog log;
    EXPECT_FALSE(RenameFileChecked(Wx(dir / "a"), Wx(dir / "b"), false));
    EXPECT_EQ(ReadFile(dir / "a") + ReadFile(dir / "b"), "ab");
    EXPECT_TRUE(RenameFileChecked(Wx(dir / "a"), Wx(dir / "b"), true));
    EXPECT_EQ(ReadFile(dir / "b"), "a");
    EXPECT_EQ(ModeOf(dir / "a"), 0u);
    EXPECT_TRUE(RemoveFileChecked(Wx(dir / "b")));
    EXPECT_FALSE(RemoveFileChecked(Wx(dir / "b")));
    EXPECT_TRUE(log.Contains("File '" + (dir / "b") + "' couldn't be removed"));
}

// Renaming onto "full" fails, so wx would fall back to copying: open the FIFO
// and wait. A link counts as what it leads to.
TEST(CheckedFileTest, RenameRefusesAFifoAtEitherEnd) {
    const struct {
        const char *from, *to, *refused;
    } cases[] = {
        {"fifo", "full", "fifo"}, {"to-fifo", "full", "to-fifo"}, {"file", "to-fifo", "to-fifo"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.from + std::string(" -> ") + c.to);
        Scratch dir;
        dir.Dirs({"full"});
        WriteFile(dir / "full/x", "x");
        WriteFile(dir / "file", "f");
        dir.Fifo("fifo");
        dir.Link("fifo", "to-fifo");
        const Snapshot before = Take(dir.path());
        CapturingLog log;
        int error = 0;
        const std::optional<bool> renamed = WithinTenSeconds(
            [&] {
                const bool result = RenameFileChecked(Wx(dir / c.from), Wx(dir / c.to), true);
                error = errno;
                return result;
            },
            dir / "fifo");
        ASSERT_TRUE(renamed.has_value()) << "waited on the FIFO";
        EXPECT_FALSE(*renamed);
        EXPECT_EQ(error, EINVAL);
        EXPECT_TRUE(log.Contains("RenameFile: " + (dir / c.refused) +
                                 ": refusing a FIFO, socket or device"));
        EXPECT_EQ(Take(dir.path()), before);
    }
}

// Runs each call in a child process whose root directory is `jail`: should
// a refusal be missing, "/" is the jail and the damage stays inside it.
// Reports "<result> <errno>|<error lines>" a call, or nothing if the child
// can't be jailed.
std::vector<std::string> RunJailed(const std::string& jail,
                                   const std::vector<std::function<bool()>>& calls) {
    int channel[2];
    EXPECT_EQ(pipe(channel), 0);
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        // Not root: a user namespace of its own lends the child the right to
        // chroot (it is single-threaded, as unshare needs).
        const auto put = [](const char* file, const std::string& text) {
            const int fd = open(file, O_WRONLY);
            const bool ok = fd >= 0 && write(fd, text.data(), text.size()) == ssize_t(text.size());
            close(fd);
            return ok;
        };
        if (chroot(jail.c_str()) != 0 &&
            (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !put("/proc/self/setgroups", "deny") ||
             !put("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
             !put("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1") ||
             chroot(jail.c_str()) != 0))
            _exit(77);
        if (chdir("/") != 0)
            _exit(77);
        std::string report;
        {
            CapturingLog log;
            for (const auto& call : calls) {
                log.Clear();
                errno = 0;
                const bool result = call();
                report += std::to_string(result) + " " + std::to_string(errno) + "|";
                for (const std::string& line : log.Texts(wxLOG_Error))
                    report += line + ";";
                report += "\n";
            }
        }
        const bool sent = write(channel[1], report.data(), report.size()) == ssize_t(report.size());
        _exit(sent ? 0 : 1);
    }
    close(channel[1]);
    std::string report;
    char buffer[4096];
    for (ssize_t got; (got = read(channel[0], buffer, sizeof buffer)) > 0;)
        report.append(buffer, size_t(got));
    close(channel[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    std::vector<std::string> lines;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
        return lines;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    for (size_t start = 0, end; (end = report.find('\n', start)) != std::string::npos;
         start = end + 1)
        lines.push_back(report.substr(start, end - start));
    return lines;
}

// Never run against code without these refusals: outside the jail, an
// empty source once meant "/". An empty path also sets errno to ENOENT, for
// scripts that ask wx for it next.
TEST(EmptyPathAndRootTest, EveryDestructiveOperationRefusesThem) {
    Scratch dir;
    dir.Dirs({"jail", "jail/src", "jail/src/sub", "jail/dst"});
    ASSERT_EQ(chmod((dir / "jail").c_str(), 0755), 0);
    WriteFile(dir / "jail/src/file", "f");
    WriteFile(dir / "jail/src/sub/g", "g");
    const wxString none, src = Wx("/src"), file = Wx("/src/file");
    const std::string copyEmpty = "CopyDirectory: refusing an empty path;";
    const struct {
        std::function<bool()> call;
        std::string errors;
    } cases[] = {
        {[&] { return CopyDirectory(none, src, true); }, copyEmpty},
        {[&] { return CopyDirectory(Wx("/dst"), none, true); }, copyEmpty},
        {[&] { return CopyDirectory(Wx("/src/.."), src, true); },
         "CopyDirectory: refusing the root directory as destination;"},
        {[&] { return CopyDirectory(Wx("/dst/x"), Wx("/"), false); },
         "CopyDirectory: refusing to copy / into itself (/dst/x);"},
        {[&] { return RemoveDirectory(none); }, "RemoveDirectory: refusing an empty path;"},
        {[&] { return RemoveDirectory(Wx("/src/../")); },
         "RemoveDirectory: refusing to remove the root directory (/src/../);"},
        {[&] { return ReplaceFile(none, file); }, "ReplaceFile: refusing an empty path;"},
        {[&] { return ReplaceFile(file, none); }, "ReplaceFile: refusing an empty path;"},
        {[&] { return SecureFileOrDirectory(none, true), false; },
         "SecureFileOrDirectory: refusing an empty path;"},
        {[&] { return RemoveFileChecked(none); }, "RemoveFile: refusing an empty path;"},
        {[&] { return RenameFileChecked(none, file, true); },
         "RenameFile: refusing an empty path;"},
        {[&] { return RenameFileChecked(file, none, true); },
         "RenameFile: refusing an empty path;"},
    };
    std::vector<std::function<bool()>> calls;
    for (const auto& c : cases)
        calls.push_back(c.call);
    const Snapshot before = Take(dir.path());
    const std::vector<std::string> reports = RunJailed(dir / "jail", calls);
    if (reports.empty())
        GTEST_SKIP() << "no chroot here";
    ASSERT_EQ(reports.size(), calls.size());
    for (size_t i = 0; i < calls.size(); ++i) {
        const std::string& report = reports[i];
        const size_t bar = report.find('|');
        EXPECT_EQ(report.substr(0, 2), "0 ") << "case " << i;
        EXPECT_EQ(report.substr(bar + 1), cases[i].errors) << "case " << i;
        if (cases[i].errors.find("empty path") != std::string::npos) {
            EXPECT_EQ(report.substr(2, bar - 2), std::to_string(ENOENT)) << "case " << i;
        }
    }
    EXPECT_EQ(Take(dir.path()), before);
}

}  // namespace
