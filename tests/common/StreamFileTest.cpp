// Streams and mapped files, on the real file system.
#include <dirent.h>
#include <gtest/gtest.h>
#include <wx/mstream.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "core/common/MappedFile.h"
#include "core/common/StreamUtil.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using VeskTest::ScratchDir;
using VeskTest::WriteFile;

namespace {

wxString Wx(const std::string& path) {
    return wxString::FromUTF8(path);
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
