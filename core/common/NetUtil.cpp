#include "core/common/NetUtil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <wx/log.h>
#include <wx/regex.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/common/FileUtil.h"
#include "core/common/LogSysError.h"
#include "core/common/NumberedMessages.h"
#include "core/common/StringUtil.h"

namespace VeskCore {
namespace {

constexpr unsigned int kForever = 0xFFFFFFFFu;
constexpr unsigned long kNoEvent = ~0UL;
// What select put in its exception set, and what it reported as readable or
// writable, in poll's terms: a socket in error or hung up is readable (the
// read tells what happened), as it was to select.
constexpr short kReadable = POLLIN | POLLHUP | POLLERR;
constexpr short kWritable = POLLOUT | POLLERR;
constexpr short kFailed = POLLPRI | POLLERR | POLLNVAL;

struct Waited {
    std::vector<pollfd>& fds;
    size_t readFirst = 0;   // index of readSockets[0]'s entry
    size_t writeFirst = 0;  // index of writeSockets[0]'s entry
    bool hasEvent = false;
};

void Watch(Waited& waited, int fd, short events) {
    waited.fds.push_back({fd, fd < 0 ? short(0) : events, 0});
}

Waited Prepare(unsigned long* events, unsigned long eventCount, const int* readSockets,
               unsigned long readCount, const int* writeSockets, unsigned long writeCount) {
    // One list per thread, kept: a service loops on its wait, and an
    // allocation per wait would cost a good part of a wake.
    thread_local std::vector<pollfd> fds;
    fds.clear();
    Waited waited{fds};
    waited.hasEvent = eventCount != 0 && events != nullptr && events[0] != kNoEvent;
    // A negative descriptor is skipped by poll itself.
    Watch(waited, waited.hasEvent ? static_cast<int>(events[0]) : -1, POLLIN | POLLPRI);
    waited.readFirst = waited.fds.size();
    for (unsigned long i = 0; i < readCount; ++i)
        Watch(waited, readSockets[i], POLLIN | POLLPRI);
    waited.writeFirst = waited.fds.size();
    for (unsigned long i = 0; i < writeCount; ++i)
        Watch(waited, writeSockets[i], POLLOUT | POLLPRI);
    return waited;
}

int Poll(Waited& waited, unsigned int timeoutMilliseconds) {
    timespec timeout{static_cast<time_t>(timeoutMilliseconds / 1000),
                     static_cast<long>(timeoutMilliseconds % 1000) * 1000000L};
    return ppoll(waited.fds.data(), waited.fds.size(),
                 timeoutMilliseconds == kForever ? nullptr : &timeout, nullptr);
}

bool InArray(const int* sockets, unsigned long count, int fd) {
    for (unsigned long i = 0; i < count; ++i)
        if (sockets[i] == fd)
            return true;
    return false;
}

void TakeWake(int fd) {
    uint64_t value = 0;
    const ssize_t ignored = read(fd, &value, sizeof value);
    static_cast<void>(ignored);
}

int DualStackOrPlain(int& family) {
    family = AF_INET6;
    int fd = CreateDualStackSocket(SOCK_STREAM, IPPROTO_TCP);
    if (fd >= 0)
        return fd;
    family = AF_INET;
    fd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (fd >= 0)
        return fd;
    family = AF_INET6;
    return socket(AF_INET6, SOCK_STREAM, IPPROTO_TCP);
}

// Options, bind and listen of CreateListenSocket; false (logged) at the first failure.
bool Listen(int fd, int family, bool anyAddress, int port, int backlog) {
    sockaddr_storage address{};
    socklen_t length;
    if (family == AF_INET6) {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
        in6->sin6_family = AF_INET6;
        in6->sin6_addr = anyAddress ? in6addr_any : in6addr_loopback;
        in6->sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof *in6;
    } else {
        auto* in4 = reinterpret_cast<sockaddr_in*>(&address);
        in4->sin_family = AF_INET;
        in4->sin_addr.s_addr = htonl(anyAddress ? INADDR_ANY : INADDR_LOOPBACK);
        in4->sin_port = htons(static_cast<uint16_t>(port));
        length = sizeof *in4;
    }
    const linger lingering{1, 30};
    if (setsockopt(fd, SOL_SOCKET, SO_LINGER, &lingering, sizeof lingering) != 0) {
        VESK_LOG_SYS_ERROR(wxS("Error on setsockopt SO_LINGER: "));
        return false;
    }
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        VESK_LOG_SYS_ERROR(wxS("Error on setsockopt SO_REUSEADDR: "));
        return false;
    }
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        VESK_LOG_SYS_ERROR(NumberedMessage::kBindFailed, port);
        return false;
    }
    if (listen(fd, backlog) != 0) {
        VESK_LOG_SYS_ERROR(NumberedMessage::kListenFailed, port);
        return false;
    }
    return true;
}

}  // namespace

bool MakeWakeable(int*, unsigned long, unsigned long*& events, unsigned long& eventCount) {
    events = nullptr;
    eventCount = 0;
    int pair[2];
    // Non-blocking: an Awaken that finds the pair full must not block its
    // caller; a wake already waiting is wake enough.
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0) {
        VESK_LOG_SYS_ERROR(wxS("MakeWakeable() - socketpair() failed"));
        return false;
    }
    events = static_cast<unsigned long*>(calloc(2, sizeof(unsigned long)));
    if (events == nullptr) {
        close(pair[0]);
        close(pair[1]);
        return false;
    }
    events[0] = static_cast<unsigned long>(pair[0]);
    events[1] = static_cast<unsigned long>(pair[1]);
    eventCount = 2;
    return true;
}

int WakeableSelect(unsigned long* events, unsigned long eventCount, int* readSockets,
                   unsigned long& readCount, int* writeSockets, unsigned long& writeCount,
                   unsigned int timeoutMilliseconds, int*& errorSockets, unsigned long& errorCount,
                   wxString& errorText) {
    const unsigned long reads = readSockets != nullptr ? readCount : 0;
    const unsigned long writes = writeSockets != nullptr ? writeCount : 0;
    Waited waited = Prepare(events, eventCount, readSockets, reads, writeSockets, writes);
    const int result = Poll(waited, timeoutMilliseconds);
    readCount = writeCount = errorCount = 0;
    if (result <= 0) {
        errorText = result == 0 ? wxString(wxS("timeout")) : wxSysErrorMsgStr(errno);
        return result;
    }
    // Every socket may be in error at once: room for all of them.
    errorSockets = static_cast<int*>(calloc(reads + writes + 1, sizeof(int)));
    unsigned long ready = 0;
    for (unsigned long i = 0; i < reads; ++i) {
        const short got = waited.fds[waited.readFirst + i].revents;
        if (readSockets[i] == -1)
            continue;
        if ((got & kFailed) != 0 && errorSockets != nullptr)
            errorSockets[errorCount++] = readSockets[i];
        if ((got & kReadable) != 0)
            readSockets[ready++] = readSockets[i];
    }
    const unsigned long readersReady = ready;
    for (unsigned long i = 0; i < writes; ++i) {
        const int fd = writeSockets[i];
        const short got = waited.fds[waited.writeFirst + i].revents;
        if (fd == -1)
            continue;
        // The ready writers follow the readers in the shared count; only
        // places that the write array has can take one.
        if ((got & kWritable) != 0) {
            if (ready < writes)
                writeSockets[ready] = fd;
            ++ready;
        }
        if ((got & kFailed) != 0 && errorSockets != nullptr &&
            !InArray(readSockets, readersReady, fd))
            errorSockets[errorCount++] = fd;
    }
    if (waited.hasEvent && (waited.fds[0].revents & POLLIN) != 0)
        TakeWake(static_cast<int>(events[0]));
    readCount = ready;
    return result;
}

void CloseEvent(unsigned long event) {
    close(static_cast<int>(event));
}

int CreateDualStackSocket(int type, int protocol) {
    const int fd = socket(AF_INET6, type | SOCK_CLOEXEC, protocol);
    if (fd < 0)
        return -1;
    const int off = 0;
    if (setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int CreateListenSocket(bool anyAddress, int port, int backlog) {
    int family = AF_INET6;
    const int fd = DualStackOrPlain(family);
    if (fd < 0) {
        VESK_LOG_SYS_ERROR(wxS("Error on socket creation: "));
        return -1;
    }
    SetInheritable(fd, false);
    if (!Listen(fd, family, anyAddress, port, backlog)) {
        close(fd);
        return -1;
    }
    return fd;
}

bool PeerIsLoopback(int socket) {
    if (socket == -1)
        return false;
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return false;
    if (address.ss_family == AF_INET)
        return reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr ==
               htonl(INADDR_LOOPBACK);
    if (address.ss_family != AF_INET6)
        return false;
    const in6_addr& in6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    if (IN6_IS_ADDR_LOOPBACK(&in6))
        return true;
    uint32_t mapped = 0;
    memcpy(&mapped, &in6.s6_addr[12], sizeof mapped);
    return IN6_IS_ADDR_V4MAPPED(&in6) && mapped == htonl(INADDR_LOOPBACK);
}

bool IsIPv4Host(const wxString& host) {
    static const wxString kDottedQuad =
        wxS("^([[:digit:]]{1,3})[.]([[:digit:]]{1,3})[.]([[:digit:]]{1,3})[.]([[:digit:]]{1,3})$");
    wxRegEx quad;
    if (!quad.Compile(kDottedQuad) || !quad.Matches(host))
        return false;
    for (size_t part = 1; part <= 4; ++part) {
        unsigned long value = 0;
        if (!quad.GetMatch(host, part).ToULong(&value, 10) || value > 255)
            return false;
    }
    return true;
}

int AcceptConnection(int listener, void* address, unsigned int& length) {
    socklen_t size = length;
    const int fd = accept4(listener, static_cast<sockaddr*>(address), &size, SOCK_CLOEXEC);
    if (fd < 0)
        return -1;
    length = size;
    // A request written in two pieces would wait out the peer's delayed ACK;
    // closing must not hold the thread on unsent data.
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const linger none{0, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    return fd;
}

}  // namespace VeskCore
