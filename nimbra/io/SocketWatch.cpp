// Waiting on the real-time client's socket without holding the interpreter.

#include "nimbra/io/SocketWatch.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#ifdef _WIN32
#include <winsock2.h>
#else
#include <poll.h>
#endif

#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

#ifdef _WIN32
using PollEntry = WSAPOLLFD;
int pollOnce(PollEntry& entry, int timeoutMs) { return WSAPoll(&entry, 1, timeoutMs); }
int lastError() { return WSAGetLastError(); }
bool interrupted(int) { return false; }
PollEntry entryFor(std::intptr_t fd, short events) {
    PollEntry entry{};
    entry.fd = static_cast<SOCKET>(fd);
    entry.events = events;
    return entry;
}
#else
using PollEntry = pollfd;
int pollOnce(PollEntry& entry, int timeoutMs) { return ::poll(&entry, 1, timeoutMs); }
int lastError() { return errno; }
bool interrupted(int error) { return error == EINTR; }
PollEntry entryFor(std::intptr_t fd, short events) {
    PollEntry entry{};
    entry.fd = static_cast<int>(fd);
    entry.events = events;
    return entry;
}
#endif

// Anything that a read has to collect: data, the end of the stream, an error.
constexpr short readableEvents = POLLIN | POLLHUP | POLLERR | POLLNVAL;

}  // namespace

SocketWatch::Result SocketWatch::failed(const char* what) {
    error_ = lastError();
    NIMBRA_LOG(error) << "SocketWatch::" << what << ": poll failed: " << std::strerror(error_);
    return Result::Failed;
}

SocketWatch::Result SocketWatch::pollReadable(std::intptr_t fd, int sliceMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(sliceMs);
    PollEntry entry = entryFor(fd, POLLIN | POLLOUT);
    for (;;) {
        if (stopped()) return Result::Stopped;
        entry.revents = 0;
        // No timeout, as a select on reading and writing without one.
        if (pollOnce(entry, -1) < 0) {
            if (interrupted(lastError())) continue;
            return failed("pollReadable");
        }
        if (entry.revents & readableEvents) return Result::Readable;
        if (std::chrono::steady_clock::now() >= deadline) return Result::TimedOut;
        std::this_thread::yield();
    }
}

SocketWatch::Result SocketWatch::waitReadable(std::intptr_t fd, int timeoutMs) {
    if (stopped()) return Result::Stopped;
    PollEntry entry = entryFor(fd, POLLIN);
    int ready;
    do {
        entry.revents = 0;
        ready = pollOnce(entry, timeoutMs);
    } while (ready < 0 && interrupted(lastError()));
    if (ready < 0) return failed("waitReadable");
    if (ready == 0) return stopped() ? Result::Stopped : Result::TimedOut;
    return Result::Readable;
}

}  // namespace nimbra
