// Wakeable waits and the socket helpers, on loopback.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "core/common/NetUtil.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;

namespace {

struct Event {
    unsigned long* pair = nullptr;
    unsigned long count = 0;
    Event() { EXPECT_TRUE(MakeWakeable(nullptr, 0, pair, count)); }
    ~Event() {
        for (unsigned long i = 0; i < count; ++i)
            CloseEvent(pair[i]);
        free(pair);
    }
    void Wake() const {
        const uint64_t one = 1;
        EXPECT_EQ(write(static_cast<int>(pair[1]), &one, sizeof one), 8);
    }
};

struct Wait {
    int result = 0;
    unsigned long readCount = 0, writeCount = 0, errorCount = 0;
    std::vector<int> errors;
    wxString text;
};

Wait Select(const Event* event, std::vector<int>& readers, std::vector<int>& writers,
            unsigned int milliseconds) {
    Wait wait;
    wait.readCount = readers.size();
    wait.writeCount = writers.size();
    int* errors = nullptr;
    wait.result = WakeableSelect(event ? event->pair : nullptr, event ? event->count : 0,
                                 readers.data(), wait.readCount, writers.data(), wait.writeCount,
                                 milliseconds, errors, wait.errorCount, wait.text);
    if (errors != nullptr)
        wait.errors.assign(errors, errors + wait.errorCount);
    free(errors);
    return wait;
}

int Port(int fd) {
    sockaddr_in6 address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin6_port);
}

int Connect(const char* host, int port, int family) {
    const int fd = socket(family, SOCK_STREAM, 0);
    sockaddr_storage address{};
    if (family == AF_INET6) {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
        in6->sin6_family = AF_INET6;
        inet_pton(AF_INET6, host, &in6->sin6_addr);
        in6->sin6_port = htons(static_cast<uint16_t>(port));
    } else {
        auto* in4 = reinterpret_cast<sockaddr_in*>(&address);
        in4->sin_family = AF_INET;
        inet_pton(AF_INET, host, &in4->sin_addr);
        in4->sin_port = htons(static_cast<uint16_t>(port));
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

TEST(WakeableSelectTest, AWakeEndsTheWaitOnceAndReportsNoSocket) {
    Event event;
    std::vector<int> none;
    std::thread waker([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        event.Wake();
    });
    Wait woken = Select(&event, none, none, 0xFFFFFFFFu);
    waker.join();
    EXPECT_GT(woken.result, 0);
    EXPECT_EQ(woken.readCount + woken.writeCount + woken.errorCount, 0u);
    // The wake was taken: the next wait runs to its time-out.
    Wait timedOut = Select(&event, none, none, 20);
    EXPECT_EQ(timedOut.result, 0);
    EXPECT_EQ(timedOut.text, wxS("timeout"));
    // Two wakes before a wait: one is taken a wait, as 8 bytes.
    event.Wake();
    event.Wake();
    EXPECT_GT(Select(&event, none, none, 20).result, 0);
    EXPECT_GT(Select(&event, none, none, 20).result, 0);
    EXPECT_EQ(Select(&event, none, none, 20).result, 0);
}

TEST(WakeableSelectTest, ReadyReadersComeFirstAndWritersCountOn) {
    int quiet[2], talking[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, quiet), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, talking), 0);
    ASSERT_EQ(write(talking[1], "x", 1), 1);
    std::vector<int> readers{quiet[0], -1, talking[0]}, none;
    Wait read = Select(nullptr, readers, none, 1000);
    EXPECT_EQ(read.result, 1);
    ASSERT_EQ(read.readCount, 1u);
    EXPECT_EQ(readers[0], talking[0]);
    // A ready writer is counted behind the readers; writeCount stays 0.
    std::vector<int> onlyQuiet{quiet[0]}, writers{quiet[1]};
    Wait written = Select(nullptr, onlyQuiet, writers, 1000);
    EXPECT_EQ(written.readCount, 1u);
    EXPECT_EQ(written.writeCount, 0u);
    // A closed descriptor in the list is in error, and the wait goes on working.
    std::vector<int> stale{9999};
    Wait bad = Select(nullptr, stale, none, 1000);
    EXPECT_EQ(bad.errors, std::vector<int>{9999});
    for (int fd : {quiet[0], quiet[1], talking[0], talking[1]})
        close(fd);
}

// select() could not watch a descriptor at or above 1024 at all.
TEST(WakeableSelectTest, ThousandsOfDescriptorsAboveTheSelectLimit) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < 6200) {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 6200);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    if (limit.rlim_cur < 6200)
        GTEST_SKIP() << "needs 6200 descriptors, the limit is " << limit.rlim_cur;
    std::vector<int> ends;
    int pair[2];
    while (ends.size() < 6000 && socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0) {
        ends.push_back(pair[0]);
        ends.push_back(pair[1]);
    }
    std::vector<int> readers;
    for (size_t i = 0; i < ends.size(); i += 2)
        if (ends[i] > 1024)
            readers.push_back(ends[i]);
    ASSERT_GE(readers.size(), 2000u);
    const int last = readers.back();
    ASSERT_EQ(write(ends.back(), "x", 1), 1);
    std::vector<int> none;
    Wait wait = Select(nullptr, readers, none, 1000);
    EXPECT_EQ(wait.readCount, 1u);
    EXPECT_EQ(readers[0], last);
    for (int fd : ends)
        close(fd);
}

TEST(ListenSocketTest, LoopbackOnlyByDefaultAndTheNumberedMessageForATakenPort) {
    VeskTest::CapturingLog log;
    const int listener = CreateListenSocket(false, 0, 5);
    ASSERT_GE(listener, 0);
    const int port = Port(listener);
    const int client = Connect("::1", port, AF_INET6);
    if (client < 0)
        GTEST_SKIP() << "no IPv6 loopback on this machine";
    sockaddr_storage peer{};
    unsigned int length = sizeof peer;
    const int accepted = AcceptConnection(listener, &peer, length);
    ASSERT_GE(accepted, 0);
    EXPECT_TRUE(PeerIsLoopback(accepted));
    EXPECT_FALSE(PeerIsLoopback(-1));
    // Not on IPv4 loopback: the wildcard was not asked for.
    EXPECT_LT(Connect("127.0.0.1", port, AF_INET), 0);
    EXPECT_EQ(CreateListenSocket(false, port, 5), -1);
    EXPECT_TRUE(log.Contains("!3005!bind() to port " + std::to_string(port) + "|"));
    for (int fd : {client, accepted, listener})
        close(fd);
}

TEST(ListenSocketTest, PeerIsLoopbackOnlyForTheLoopbackHostItself) {
    const int listener = CreateListenSocket(true, 0, 5);
    ASSERT_GE(listener, 0);
    const std::pair<const char*, bool> peers[] = {{"127.0.0.1", true}, {"127.0.0.2", false}};
    for (const auto& [host, loopback] : peers) {
        // Bind the client to the source address wanted.
        const int client = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in source{};
        source.sin_family = AF_INET;
        inet_pton(AF_INET, host, &source.sin_addr);
        ASSERT_EQ(bind(client, reinterpret_cast<sockaddr*>(&source), sizeof source), 0) << host;
        sockaddr_in target{};
        target.sin_family = AF_INET;
        inet_pton(AF_INET, "127.0.0.1", &target.sin_addr);
        target.sin_port = htons(static_cast<uint16_t>(Port(listener)));
        ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&target), sizeof target), 0);
        sockaddr_storage peer{};
        unsigned int length = sizeof peer;
        const int accepted = AcceptConnection(listener, &peer, length);
        EXPECT_EQ(PeerIsLoopback(accepted), loopback) << host;
        close(accepted);
        close(client);
    }
    close(listener);
}

TEST(IsIPv4HostTest, FourDecimalPartsOfAtMost255) {
    const std::pair<const wxChar*, bool> hosts[] = {
        {wxS("0.0.0.0"), true},    {wxS("255.255.255.255"), true}, {wxS("10.1.2.3"), true},
        {wxS("256.1.1.1"), false}, {wxS("1.2.3"), false},          {wxS("1.2.3.0004"), false},
        {wxS("1.2.3.4.5"), false}, {wxS("a.b.c.d"), false},        {wxS(" 1.2.3.4"), false},
        {wxS("[::1]"), false},
    };
    for (const auto& [host, expected] : hosts)
        EXPECT_EQ(IsIPv4Host(host), expected) << wxString(host);
}

}  // namespace
