#pragma once
#include <atomic>
#include <cstdint>

namespace nimbra {

// Waits on a connected socket for a listener thread that must also stop
// promptly when another thread tells it to. Neither wait holds any lock of
// the caller's, so the interpreter can keep running other threads meanwhile.
//
// The descriptor must stay open for as long as a wait on it runs: the waiting
// thread owns it. stop() never touches the descriptor; to end a wait that is
// blocked in the kernel, the other thread shuts the connection down (the
// socket then reads as end of stream).
class SocketWatch {
public:
    enum class Result : int { Readable = 0, Stopped = 1, TimedOut = 2, Failed = 3 };

    // From any thread: the current wait (polling) or the next one returns Stopped.
    void stop() noexcept { stopped_.store(true, std::memory_order_release); }
    bool stopped() const noexcept { return stopped_.load(std::memory_order_acquire); }

    // Polls `fd` for reading and writing without a timeout, again and again,
    // until it is readable (data, end of stream or an error to collect), stop()
    // is called or `sliceMs` milliseconds have passed (TimedOut). A connected
    // socket is writable, so every poll returns at once: this busy-polls, as
    // the streaming protocol's client loop is meant to, yielding the core to
    // other runnable threads between polls.
    Result pollReadable(std::intptr_t fd, int sliceMs);

    // Blocks until `fd` is readable or `timeoutMs` milliseconds have passed.
    Result waitReadable(std::intptr_t fd, int timeoutMs);

    // The system's error number of the last Failed.
    int error() const noexcept { return error_; }

private:
    Result failed(const char* what);

    std::atomic<bool> stopped_{false};
    int error_ = 0;
};

}  // namespace nimbra
