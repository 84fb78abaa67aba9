// libhostseal through its C API, as a host sees it: facts come from
// VESK_HOSTSEAL_FACTS, set per test and restored afterwards.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "hostseal/hostseal.h"

namespace {
std::mutex traceMutex;
std::string traced;
}  // namespace

extern "C" __attribute__((visibility("default"))) void QX_Fingerprint_Debug(const char* format,
                                                                            ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(traceMutex);
    traced += std::string(line) + '\n';
}

namespace {

constexpr char kVariable[] = "VESK_HOSTSEAL_FACTS";
// Values that no trace line could contain by chance.
constexpr char kFacts[] = "mid-5e1c0a;uuid-77b2f9;fs-c4d3e8;mac-0a9f41;host-b6e2d7";
constexpr char kTwo[] = "mid-5e1c0a;;;;host-b6e2d7";

// The facts with those whose indices are listed ("03": the first and fourth)
// changed; an unreadable one stays unreadable.
std::string Changed(const std::string& indices, std::string facts = kFacts) {
    for (size_t i = 0, field = 0; i < facts.size(); ++i) {
        if (facts[i] == ';')
            ++field;
        else if (indices.find(static_cast<char>('0' + field)) != std::string::npos)
            facts[i] = facts[i] == 'x' ? 'y' : 'x';
    }
    return facts;
}

struct Outcome {
    bool ok = false;
    std::string bytes;
    int length = 0;  // as the call left it
    int flag = 0;
};

// Seals `in`, or opens its first `size` bytes.
Outcome Call(bool seal, const std::string& in, size_t size = std::string::npos) {
    Outcome out;
    out.length = static_cast<int>(std::min(size, in.size()));
    void* result = seal ? QX_N_Choose_K_Encrypt(in.data(), &out.length)
                        : QX_N_Choose_K_Decrypt(in.data(), &out.length, &out.flag);
    out.ok = result != nullptr;
    if (out.ok)
        out.bytes.assign(static_cast<char*>(result), static_cast<size_t>(out.length));
    free(result);
    return out;
}

// A failed open leaves the caller's length and flag alone.
void ExpectRejected(const std::string& blob, size_t size, const std::string& what) {
    const Outcome out = Call(false, blob, size);
    EXPECT_FALSE(out.ok) << what;
    EXPECT_EQ(out.length, static_cast<int>(std::min(size, blob.size()))) << what;
    EXPECT_EQ(out.flag, 0) << what;
}

class HostSealTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (const char* value = getenv(kVariable))
            saved_ = value;
        UseFacts(kFacts);
        std::lock_guard<std::mutex> lock(traceMutex);
        traced.clear();
    }
    void TearDown() override {
        if (saved_)
            setenv(kVariable, saved_->c_str(), 1);
        else
            unsetenv(kVariable);
    }
    static void UseFacts(const std::string& facts) { setenv(kVariable, facts.c_str(), 1); }
    static std::string Blob(const std::string& facts = kFacts) {
        UseFacts(facts);
        const Outcome sealed = Call(true, "sixteen byte key");
        EXPECT_TRUE(sealed.ok);
        return sealed.bytes;
    }

  private:
    std::optional<std::string> saved_;
};

TEST_F(HostSealTest, RoundTripKeepsEveryLengthAndNeverRepeatsABlob) {
    std::mt19937 random(11);
    for (size_t size : {size_t{0}, size_t{1}, size_t{128}, size_t{1} << 20}) {
        std::string data(size, '\0');
        for (char& c : data)
            c = static_cast<char>(random());
        const Outcome first = Call(true, data), second = Call(true, data);
        ASSERT_TRUE(first.ok && second.ok) << size;
        EXPECT_NE(first.bytes, second.bytes) << size;  // fresh salt, keys and nonces
        for (const Outcome& sealed : {first, second}) {
            const Outcome opened = Call(false, sealed.bytes);
            EXPECT_TRUE(opened.ok && opened.bytes == data && opened.flag == 0) << size;
            EXPECT_EQ(opened.length, static_cast<int>(size));
        }
    }
}

TEST_F(HostSealTest, OpensWhileAMajorityOfRecordedFactsMatch) {
    const std::string four = ";uuid-77b2f9;fs-c4d3e8;mac-0a9f41;host-b6e2d7";
    const struct {
        const char* what;
        std::string sealedWith, openedWith;
        bool opens, flagged;
    } cases[] = {
        {"5: all match", kFacts, kFacts, true, false},
        {"5: first changed", kFacts, Changed("0"), true, true},
        {"5: two changed", kFacts, Changed("13"), true, true},
        {"5: three changed", kFacts, Changed("024"), false, false},
        {"5: one unreadable now", kFacts, "mid-5e1c0a;;fs-c4d3e8;mac-0a9f41;host-b6e2d7", true,
         true},
        {"5: three unreadable now", kFacts, ";;fs-c4d3e8;;host-b6e2d7", false, false},
        {"5: blanks around a fact are not part of it", kFacts,
         " mid-5e1c0a ;uuid-77b2f9\t;fs-c4d3e8;mac-0a9f41;host-b6e2d7\n", true, false},
        {"4: a fact not recorded is ignored", four, kFacts, true, false},
        {"4: one changed", four, Changed("2", four), true, true},
        {"4: two changed", four, Changed("23", four), false, false},
        {"2: all match", kTwo, kTwo, true, false},
        {"2: one changed", kTwo, Changed("0", kTwo), false, false},
        {"2: values swapped between facts", kTwo, "host-b6e2d7;;;;mid-5e1c0a", false, false},
        {"2: boundary between facts moved", "ab;;;;c", "a;;;;bc", false, false},
    };
    for (const auto& c : cases) {
        UseFacts(c.sealedWith);
        const Outcome sealed = Call(true, "the key password");
        ASSERT_TRUE(sealed.ok) << c.what;
        UseFacts(c.openedWith);
        const Outcome opened = Call(false, sealed.bytes);
        EXPECT_EQ(opened.ok, c.opens) << c.what;
        EXPECT_EQ(opened.flag != 0, c.flagged) << c.what;
        EXPECT_EQ(opened.bytes, c.opens ? "the key password" : "") << c.what;
    }
}

// An unknown version is one of the flipped bytes below.
TEST_F(HostSealTest, SealingNeedsTwoReadableFactsAndBothCallsSaneArguments) {
    for (const char* facts : {"", ";;;;", " ; \t;;\n;", "mid-5e1c0a", ";;;;host-b6e2d7",
                              "a;b;c;d;e;" /* a sixth field: none is trusted */}) {
        UseFacts(facts);
        const Outcome sealed = Call(true, "data");
        EXPECT_FALSE(sealed.ok) << '"' << facts << '"';
        EXPECT_EQ(sealed.length, 4) << '"' << facts << '"';
    }
    UseFacts("mid-5e1c0a;uuid-77b2f9");  // the missing fields are unreadable ones
    EXPECT_TRUE(Call(true, "data").ok);
    int length = 5;
    EXPECT_EQ(QX_N_Choose_K_Encrypt(nullptr, &length), nullptr);
    length = -1;
    EXPECT_EQ(QX_N_Choose_K_Encrypt("data", &length), nullptr);
    EXPECT_EQ(QX_N_Choose_K_Encrypt("data", nullptr), nullptr);
    length = 0;  // empty data may come as a null pointer
    void* blob = QX_N_Choose_K_Encrypt(nullptr, &length);
    EXPECT_TRUE(Call(false, std::string(static_cast<char*>(blob), length)).ok);
    free(blob);

    int flag = 0;
    length = 10;
    EXPECT_EQ(QX_N_Choose_K_Decrypt(nullptr, &length, &flag), nullptr);
    EXPECT_EQ(QX_N_Choose_K_Decrypt("x", nullptr, &flag), nullptr);
    length = -3;
    EXPECT_EQ(QX_N_Choose_K_Decrypt("x", &length, &flag), nullptr);
    const std::string sealed = Blob();
    UseFacts(Changed("1"));  // the flag is optional, even when it would be set
    length = static_cast<int>(sealed.size());
    void* data = QX_N_Choose_K_Decrypt(sealed.data(), &length, nullptr);
    EXPECT_NE(data, nullptr);
    free(data);
}

TEST_F(HostSealTest, EveryFlippedByteEveryTruncationAndAnExtensionFail) {
    // Five facts (ten wrapped keys, most never tried on open) and two (one).
    for (const std::string& facts : {std::string(kFacts), std::string(kTwo)}) {
        const std::string blob = Blob(facts);
        for (size_t at = 0; at < blob.size(); ++at) {
            for (char bit : {'\x01', '\x80'}) {
                std::string damaged = blob;
                damaged[at] = static_cast<char>(damaged[at] ^ bit);
                ExpectRejected(damaged, damaged.size(), "flipped byte " + std::to_string(at));
            }
            ExpectRejected(blob, at, "cut to " + std::to_string(at));
        }
        ExpectRejected(blob + '\0', blob.size() + 1, "one byte more");
        EXPECT_TRUE(Call(false, blob).ok);
    }
}

TEST_F(HostSealTest, TracesNamesAndCountsButNoValues) {
    const std::string blob = Blob();
    UseFacts(Changed("3"));
    EXPECT_TRUE(Call(false, blob).ok);
    UseFacts(Changed("0123"));
    EXPECT_FALSE(Call(false, blob).ok);
    std::lock_guard<std::mutex> lock(traceMutex);
    EXPECT_NE(traced.find("seal:"), std::string::npos) << traced;
    EXPECT_NE(traced.find("open: 4 of 5"), std::string::npos) << traced;
    EXPECT_NE(traced.find("hardware-address"), std::string::npos) << traced;
    for (const char* secret :
         {"5e1c0a", "77b2f9", "c4d3e8", "0a9f41", "b6e2d7", "xxxxxx", "sixteen"})
        EXPECT_EQ(traced.find(secret), std::string::npos) << secret << " in\n" << traced;
}

TEST_F(HostSealTest, CallsFromManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::vector<int> failures(6, 0);
    for (size_t t = 0; t < failures.size(); ++t) {
        threads.emplace_back([t, &failures] {
            for (size_t i = 0; i < 25; ++i) {
                const std::string data(i * 7 + t, static_cast<char>('a' + t));
                const Outcome opened = Call(false, Call(true, data).bytes);
                failures[t] += !opened.ok || opened.bytes != data;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, std::vector<int>(failures.size(), 0));
}

TEST_F(HostSealTest, TheMachinesOwnFactsSealAndReopen) {
    unsetenv(kVariable);
    std::string id;
    std::getline(std::ifstream("/etc/machine-id"), id);
    const bool idReadable = !id.empty() && id != "uninitialized";
    char name[256] = {};
    const bool nameReadable = gethostname(name, sizeof name - 1) == 0 && name[0] != '\0';
    const Outcome sealed = Call(true, "machine bound");
    if (!sealed.ok) {
        ASSERT_LT(idReadable + nameReadable, 2) << "machine-id and host name were readable";
        GTEST_SKIP() << "fewer than two machine facts are readable here";
    }
    const unsigned recorded = static_cast<unsigned char>(sealed.bytes.at(1));
    EXPECT_EQ((recorded & 1u) != 0, idReadable) << "machine-id";
    EXPECT_EQ((recorded & 16u) != 0, nameReadable) << "host name";
    const Outcome opened = Call(false, sealed.bytes);
    EXPECT_TRUE(opened.ok && opened.bytes == "machine bound");
    EXPECT_EQ(opened.flag, 0);  // nothing changed in between
}

}  // namespace
