#include <gtest/gtest.h>

#include "core/host/PlatformString.h"

using namespace VeskCore;

TEST(PlatformString, TagComesFromOsReleaseIdAndVersion) {
    EXPECT_EQ(PlatformTagFromOsRelease("PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"
                                       "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n"),
              "Linux_debian_12");
    EXPECT_EQ(PlatformTagFromOsRelease("ID='rhel'\nID_LIKE=\"fedora\"\nVERSION_ID='9.3'\n"),
              "Linux_rhel_9.3");
    // Rolling distributions carry no version; a missing ID defaults as os-release says.
    EXPECT_EQ(PlatformTagFromOsRelease("ID=arch\n"), "Linux_arch");
    EXPECT_EQ(PlatformTagFromOsRelease(""), "Linux_linux");
}

TEST(PlatformString, FiveFieldsFollowTheTag) {
    EXPECT_EQ(ComposePlatformString("Linux_debian_12", "6.1.0-18-amd64", "x86_64"),
              "Linux_debian_12;6;1;0;18-amd64;x86_64");
    // Two numbers are enough; what sscanf did not assign stays 0 and empty.
    EXPECT_EQ(ComposePlatformString("T", "5.10", "aarch64"), "T;5;10;0;;aarch64");
    EXPECT_EQ(ComposePlatformString("T", "6", "x86_64"), "T");
    EXPECT_EQ(ComposePlatformString("T", "", "x86_64"), "T");
    // The rest of the release is bounded, whatever the kernel reports.
    const std::string longRest(300, 'r');
    const std::string composed = ComposePlatformString("T", "1.2.3-" + longRest, "m");
    EXPECT_EQ(composed, "T;1;2;3;" + longRest.substr(0, 128) + ";m");
}

TEST(PlatformString, RunningSystemGivesTagAndFields) {
    const std::string text = GetPlatformString().utf8_string();
    EXPECT_EQ(text.rfind("Linux_", 0), 0u);
    EXPECT_EQ(std::count(text.begin(), text.end(), ';'), 5) << text;
}
