// The fact readers against made-up files and sysfs trees in a scratch folder.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "hostseal/Facts.h"
#include "tests/common/CommonTestSupport.h"

namespace fs = std::filesystem;
using namespace hostseal;

namespace {

std::string Text(const SecretBytes& bytes) {
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

struct Scratch : VeskTest::ScratchDir {
    void Write(const std::string& name, const std::string& content) const {
        fs::create_directories(fs::path(*this / name).parent_path());
        std::ofstream(*this / name, std::ios::binary) << content;
    }
};

TEST(FactFileTest, TrimsAndRefusesPlaceholders) {
    const Scratch dir;
    const struct {
        SecretBytes (*read)(const std::string&);
        const char* content;  // nullptr: no file
        std::string expected;
    } cases[] = {
        {detail::MachineId, "3d1219c7c4c5404aaa1f6d2a48adfda4\n",
         "3d1219c7c4c5404aaa1f6d2a48adfda4"},
        {detail::MachineId, "uninitialized\n", ""},
        {detail::MachineId, nullptr, ""},
        {detail::ReadFactFile, " \t x y \n\n", "x y"},
        {detail::ProductUuid, "4C4C4544-0051-3410-8051-B4C04F4E4B32\n",
         "4C4C4544-0051-3410-8051-B4C04F4E4B32"},
        {detail::ProductUuid, "00000000-0000-0000-0000-000000000000\n", ""},
        {detail::ProductUuid, "03000200-0400-0500-0006-000700080009\n", ""},
        {detail::ProductUuid, "Not Settable\n", ""},
    };
    int n = 0;
    for (const auto& c : cases) {
        const std::string name = "fact" + std::to_string(n++);
        if (c.content != nullptr)
            dir.Write(name, c.content);
        EXPECT_EQ(Text(c.read(dir / name)), c.expected) << name;
    }
    dir.Write("big", std::string(5000, 'a'));  // not a fact file
    EXPECT_EQ(Text(detail::ReadFactFile(dir / "big")), "");
    dir.Write("edge", std::string(4096, 'b'));
    EXPECT_EQ(Text(detail::ReadFactFile(dir / "edge")).size(), 4096u);
}

TEST(HardwareAddressTest, PrefersPhysicalPermanentAddressesInNameOrder) {
    struct Interface {
        const char* name;
        const char* address;
        const char* assignType;  // nullptr: an older kernel without the file
        bool physical;
    };
    const struct {
        const char* what;
        std::vector<Interface> interfaces;
        std::string expected;
    } cases[] = {
        {"loopback only", {{"lo", "00:00:00:00:00:00", "0", false}}, ""},
        {"random virtual only", {{"ifb0", "ce:c6:d6:78:99:13", "1", false}}, ""},
        {"physical over virtual",
         {{"br0", "02:00:00:00:00:09", "3", false}, {"eth0", "52:54:00:12:34:56", "0", true}},
         "52:54:00:12:34:56"},
        {"name order",
         {{"eth1", "52:54:00:00:00:02", "0", true}, {"eth0", "52:54:00:00:00:01", "0", true}},
         "52:54:00:00:00:01"},
        {"permanent over set address",
         {{"enp2s0", "02:11:22:33:44:55", "3", true}, {"wlp3s0", "a4:5e:60:00:00:01", "0", true}},
         "a4:5e:60:00:00:01"},
        {"no assign type still physical",
         {{"eth0", "52:54:00:00:00:07", nullptr, true}},
         "52:54:00:00:00:07"},
        {"zero physical, permanent virtual",
         {{"eth0", "00:00:00:00:00:00", "0", true}, {"vnet0", "fe:54:00:00:00:08", "0", false}},
         "fe:54:00:00:00:08"},
    };
    for (const auto& c : cases) {
        const Scratch net;
        for (const Interface& i : c.interfaces) {
            net.Write(std::string(i.name) + "/address", std::string(i.address) + "\n");
            if (i.assignType != nullptr)
                net.Write(std::string(i.name) + "/addr_assign_type", i.assignType);
            if (i.physical)
                fs::create_directory_symlink("../../devices/pci0000:00",
                                             net / (std::string(i.name) + "/device"));
        }
        EXPECT_EQ(Text(detail::HardwareAddress(net / "")), c.expected) << c.what;
    }
    EXPECT_EQ(Text(detail::HardwareAddress("/nonexistent/net")), "");
}

TEST(RootMountSourceTest, FindsTheVisibleRootOfTheDevice) {
    const std::string root = "27 1 254:0 / / rw,relatime - ext4 /dev/vda rw\n";
    const struct {
        const char* what;
        std::string mountinfo;
        std::string expected;
    } cases[] = {
        {"plain", "22 27 0:21 / /proc rw - proc proc rw\n" + root, "/dev/vda"},
        {"optional fields", "27 1 254:0 / / rw shared:1 master:2 - ext4 /dev/sda2 rw\n",
         "/dev/sda2"},
        {"escaped source", "27 1 254:0 / / rw - ext4 /dev/my\\040disk\\134x rw", "/dev/my disk\\x"},
        {"mounted over", root + "90 27 254:0 / / rw - ext4 /dev/vdb rw\n", "/dev/vdb"},
        {"other device", "27 1 8:1 / / rw - ext4 /dev/sda1 rw\n", ""},
        {"not the root", "27 1 254:0 / /home rw - ext4 /dev/vda rw\n", ""},
        {"no separator", "27 1 254:0 / / rw ext4 /dev/vda rw\n", ""},
        {"cut short", "27 1 254:0 / / rw - ext4", ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(detail::RootMountSource(c.mountinfo, 254, 0), c.expected) << c.what;
}

TEST(ExtSuperblockTest, ReadsTheUuidOfExtOnly) {
    std::vector<unsigned char> block(1024, 0);
    block[0x38] = 0x53;
    block[0x39] = 0xEF;
    for (int i = 0; i < 16; ++i)
        block[0x68 + i] = static_cast<unsigned char>(0x10 * i + i);
    EXPECT_EQ(Text(detail::ExtSuperblockUuid(block.data(), block.size())),
              "00112233-4455-6677-8899-aabbccddeeff");
    EXPECT_EQ(Text(detail::ExtSuperblockUuid(block.data(), 0x77)), "");  // cut inside the UUID
    std::vector<unsigned char> other = block;
    other[0x39] = 0xEE;
    EXPECT_EQ(Text(detail::ExtSuperblockUuid(other.data(), other.size())), "");
    std::fill(block.begin() + 0x68, block.begin() + 0x78, 0);
    EXPECT_EQ(Text(detail::ExtSuperblockUuid(block.data(), block.size())), "");
}

TEST(UuidLinksTest, OnlyALinkToTheRootBlockDeviceCounts) {
    struct stat block = {}, null = {};
    std::string device;
    for (const auto& entry : fs::directory_iterator("/dev"))
        if (device.empty() && stat(entry.path().c_str(), &block) == 0 && S_ISBLK(block.st_mode))
            device = entry.path();
    if (device.empty() || stat("/dev/null", &null) != 0)
        GTEST_SKIP() << "no block device and /dev/null to link to";
    const Scratch dir;
    fs::create_symlink("/dev/null", dir / "0000-null");
    fs::create_symlink(device, dir / "1234-abcd");
    EXPECT_EQ(Text(detail::UuidFromLinks(dir / "", {null.st_rdev, block.st_rdev})), "1234-abcd");
    EXPECT_EQ(Text(detail::UuidFromLinks(dir / "", {null.st_rdev})), "");  // not a block device
    EXPECT_EQ(Text(detail::UuidFromLinks(dir / "", {block.st_rdev + 1})), "");
}

}  // namespace
