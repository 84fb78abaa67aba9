// Streams, directory trees, replacement, permissions and mapped files, on the
// real file system.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/mstream.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "core/common/FileUtil.h"
#include "core/common/MappedFile.h"
#include "core/common/StreamUtil.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using VeskTest::ReadFile;
using VeskTest::ScratchDir;
using VeskTest::WriteFile;

namespace {

wxString Wx(const std::string& path) {
    return wxString::FromUTF8(path);
}

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

mode_t ModeOf(const std::string& path) {  // type bits included; never follows a link
    struct stat info {};
    EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
    return info.st_mode;
}

size_t OpenDescriptors() {
    size_t count = 0;
    DIR* fds = opendir("/proc/self/fd");
    while (fds != nullptr && readdir(fds) != nullptr)
        ++count;
    closedir(fds);
    return count;
}

// Takes at most 100 bytes a call and fails for good after `failAfter` bytes.
class TrickleOutputStream : public wxOutputStream {
  public:
    explicit TrickleOutputStream(size_t failAfter) : failAfter_(failAfter) {}
    std::string data;
    int syncs = 0;
    void Sync() override { ++syncs; }

  protected:
    size_t OnSysWrite(const void* buffer, size_t size) override {
        const size_t n = std::min<size_t>({size, 100, failAfter_ - data.size()});
        m_lasterror = n == 0 ? wxSTREAM_WRITE_ERROR : wxSTREAM_NO_ERROR;
        data.append(static_cast<const char*>(buffer), n);
        return n;
    }

  private:
    size_t failAfter_;
};

// Watcher that records what it saw and refuses its first call.
bool RefuseFirst(void* context, const void* data, size_t size) {
    auto* seen = static_cast<std::string*>(context);
    const bool first = seen->empty();
    seen->append(first ? "!" : std::string(static_cast<const char*>(data), size));
    return !first;
}

TEST(StreamTest, SizeKeepsThePositionAndCopyDrainsTheInputWhateverHappens) {
    const std::string data = VeskTest::RandomBytes(7000, 2);
    wxMemoryInputStream in(data.data(), data.size());
    in.SeekI(4000);
    EXPECT_EQ(StreamSize(in), 3000);
    EXPECT_EQ(in.GetC(), static_cast<unsigned char>(data[4000]));

    wxMemoryInputStream refused(data.data(), data.size());
    TrickleOutputStream out(SIZE_MAX);
    std::string seen;
    EXPECT_FALSE(CopyStream(refused, out, true, RefuseFirst, &seen));
    EXPECT_TRUE(refused.Eof());
    EXPECT_EQ(out.data, data.substr(0, 100) + data.substr(2048));  // rest of block 1 dropped
    EXPECT_EQ(seen, "!" + data.substr(2048));
    EXPECT_EQ(out.syncs, 1);

    VeskTest::CapturingLog log;
    wxMemoryInputStream broken(data.data(), data.size());
    TrickleOutputStream full(3000);
    EXPECT_FALSE(CopyStream(broken, full, false, nullptr, nullptr));
    EXPECT_TRUE(broken.Eof());
    EXPECT_EQ(full.data, data.substr(0, 3000));
    EXPECT_TRUE(log.Contains("VeskCore::CopyStream() - write to output stream failed"));
    wxMemoryInputStream empty(nullptr, 0);
    EXPECT_TRUE(CopyStream(empty, full, true, nullptr, nullptr));
    EXPECT_EQ(full.syncs, 1);
}

// source/ with a hidden file, a nested directory, links to a file and to a
// directory outside, and a link back up the tree.
void MakeTree(const ScratchDir& dir) {
    ASSERT_EQ(
        ScratchDir::Shell("cd " + dir.path() +
                          " && mkdir -p source/sub/deeper outside && chmod 755 source/sub"
                          " && echo hidden > source/.hidden && echo deep > source/sub/deeper/f"
                          " && echo out > outside/o && ln -s ../.hidden source/sub/link"
                          " && ln -s ../outside source/dirlink && ln -s .. source/sub/up"),
        0);
}

TEST(DirectoryTest, CopyTakesHiddenFilesFollowsLinksButNoLoops) {
    ScratchDir dir;
    MakeTree(dir);
    VeskTest::CapturingLog log;
    ASSERT_TRUE(CopyDirectory(Wx(dir / "copy"), Wx(dir / "source"), false));
    EXPECT_EQ(ReadFile(dir / "copy/.hidden") + ReadFile(dir / "copy/sub/deeper/f"),
              "hidden\ndeep\n");
    EXPECT_TRUE(S_ISREG(ModeOf(dir / "copy/sub/link")));  // the content, not a link
    EXPECT_EQ(ModeOf(dir / "copy/dirlink"), S_IFDIR | 0700u);
    EXPECT_EQ(ModeOf(dir / "copy/sub"), S_IFDIR | 0700u);
    EXPECT_EQ(ReadFile(dir / "copy/dirlink/o"), "out\n");
    EXPECT_FALSE(Exists(dir / "copy/sub/up"));  // leads back into the tree being copied
    EXPECT_TRUE(log.Contains("directory is already being copied"));

    const size_t before = log.Lines().size();
    EXPECT_FALSE(CopyDirectory(Wx(dir / "copy"), Wx(dir / "source"), false));
    ASSERT_EQ(log.Lines().size(), before + 1);  // one line, carrying mkdir's own error
    EXPECT_TRUE(log.Contains("CopyDirectory: " + (dir / "copy/") + ":  (error 17: File exists)"));
    WriteFile(dir / "copy/.hidden", "changed");
    WriteFile(dir / "copy/extra", "kept");
    EXPECT_TRUE(CopyDirectory(Wx(dir / "copy"), Wx(dir / "source"), true));  // merges
    EXPECT_EQ(ReadFile(dir / "copy/.hidden") + ReadFile(dir / "copy/extra"), "hidden\nkept");

    // Into the source itself: copied once, not nested without end.
    EXPECT_TRUE(CopyDirectory(Wx(dir / "source/inner"), Wx(dir / "source"), false));
    EXPECT_EQ(ReadFile(dir / "source/inner/sub/deeper/f"), "deep\n");
    EXPECT_FALSE(Exists(dir / "source/inner/inner"));
    EXPECT_FALSE(CopyDirectory(Wx(dir / "x"), Wx(dir / "missing"), false));
    EXPECT_TRUE(log.Contains("CopyDirectory: " + (dir / "missing/") + ": "));
}

TEST(DirectoryTest, RemoveDeletesTheTreeButNothingALinkPointsAt) {
    ScratchDir dir;
    MakeTree(dir);
    EXPECT_TRUE(RemoveDirectory(Wx(dir / "source")));
    EXPECT_FALSE(Exists(dir / "source"));
    ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "link").c_str()), 0);
    VeskTest::CapturingLog log;
    EXPECT_FALSE(RemoveDirectory(Wx(dir / "link")));  // a link is no directory to empty
    EXPECT_EQ(ReadFile(dir / "outside/o"), "out\n");
    EXPECT_TRUE(log.Contains("RemoveDirectory: " + (dir / "link") + " (error 20: "));
}

TEST(ReplaceFileTest, ReadersSeeTheOldOrTheNewFileNeverAMix) {
    ScratchDir dir;
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

    VeskTest::CapturingLog log;
    EXPECT_FALSE(ReplaceFile(Wx(dir / "next"), Wx(dir / "target")));
    EXPECT_EQ(log.Texts(wxLOG_Error).at(0), "3006|rename|" + (dir / "next") + " -> " +
                                                (dir / "target") +
                                                "|2 (No such file or directory)");
}

TEST(PermissionTest, SecureModesAndCloseOnExec) {
    ScratchDir dir;
    WriteFile(dir / "f", "x");
    ASSERT_EQ(chmod((dir / "f").c_str(), 0666) | mkdir((dir / "d").c_str(), 0777), 0);
    SecureFileOrDirectory(Wx(dir / "f"), true);
    SecureFileOrDirectory(Wx(dir / "d"), false);
    EXPECT_EQ(ModeOf(dir / "f"), S_IFREG | 0600u);
    EXPECT_EQ(ModeOf(dir / "d"), S_IFDIR | 0700u);
    SecureFileOrDirectory(Wx(dir / "d"), true);
    EXPECT_EQ(ModeOf(dir / "d"), S_IFDIR | 0711u);

    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(SetInheritable(fd, true));
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_TRUE(SetInheritable(fd, false));
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    close(fd);
    EXPECT_FALSE(SetInheritable(fd, true));
}

TEST(MappedFileTest, MapsLargeFilesAndRefusesEmptyOnesAndDirectories) {
    ScratchDir dir;
    const std::string big = VeskTest::RandomBytes(3 << 20, 4);
    WriteFile(dir / "big", big);
    WriteFile(dir / "empty", "");
    std::unique_ptr<CMappedFile> file(CMappedFile::Create());
    const size_t descriptors = OpenDescriptors();
    size_t length = 0;
    const void* data = file->Map(Wx(dir / "big"), length);
    ASSERT_NE(data, nullptr);
    ASSERT_EQ(length, big.size());
    EXPECT_EQ(std::memcmp(data, big.data(), length), 0);
    EXPECT_NE(file->Map(Wx(dir / "big"), length), nullptr);  // releases the first view
    EXPECT_EQ(OpenDescriptors(), descriptors + 1);
    EXPECT_TRUE(file->Unmap());
    EXPECT_EQ(OpenDescriptors(), descriptors);

    VeskTest::CapturingLog log;
    length = 7;
    EXPECT_EQ(file->Map(Wx(dir / "empty"), length), nullptr);
    EXPECT_EQ(file->Map(Wx(dir.path()), length), nullptr);
    EXPECT_EQ(file->Map(Wx(dir / "missing"), length), nullptr);
    EXPECT_EQ(length, 7u);
    EXPECT_EQ(OpenDescriptors(), descriptors);
    const auto errors = log.Texts(wxLOG_Error);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors[0], "3006|mmap|" + (dir / "empty") + "| (error 22: Invalid argument)");
    EXPECT_EQ(errors[1], "3303|" + dir.path());
    EXPECT_EQ(errors[2], "3007|" + (dir / "missing") + "| (error 2: No such file or directory)");
}

}  // namespace
