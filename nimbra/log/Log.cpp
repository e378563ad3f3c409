#include "nimbra/log/Log.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <mutex>

namespace nimbra::log {
namespace {

struct Logger {
    std::atomic<int> maxSeverity{none};
    std::mutex lock;
};

// Deliberately leaked: worker threads may still log while static destructors
// run at interpreter exit.
std::atomic<Logger*> theLogger{nullptr};
std::mutex creationLock;

// A ring of this thread's last error messages; `count` numbers them all.
struct RecentErrors {
    std::uint64_t count = 0;
    std::array<std::string, kRecentErrors> ring;
};

RecentErrors& recentErrors() {
    thread_local RecentErrors recent;
    return recent;
}

bool kept(Severity severity) { return severity != none && severity <= error; }

}  // namespace

void init(Severity max) {
    std::lock_guard<std::mutex> guard(creationLock);
    Logger* logger = theLogger.load();
    if (logger == nullptr) {
        logger = new Logger();
        theLogger.store(logger);
    }
    logger->maxSeverity.store(max);
    NIMBRA_LOG(info) << "Init plog";
}

bool exists() { return theLogger.load() != nullptr; }

void setMaxSeverity(Severity max) {
    Logger* logger = theLogger.load();
    if (logger != nullptr) logger->maxSeverity.store(max);
}

Severity maxSeverity() {
    Logger* logger = theLogger.load();
    return logger == nullptr ? none : static_cast<Severity>(logger->maxSeverity.load());
}

bool enabled(Severity severity) {
    Logger* logger = theLogger.load();
    return logger != nullptr && severity != none && severity <= logger->maxSeverity.load();
}

bool wanted(Severity severity) {
    return enabled(severity) || (kept(severity) && exists());
}

void write(Severity severity, std::string_view message) {
    Logger* logger = theLogger.load();
    if (logger == nullptr) return;
    if (kept(severity)) {
        RecentErrors& recent = recentErrors();
        recent.ring[recent.count % kRecentErrors].assign(message);
        ++recent.count;
    }
    if (!enabled(severity)) return;
    std::lock_guard<std::mutex> guard(logger->lock);
    std::fwrite(message.data(), 1, message.size(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

std::uint64_t threadErrorCount() { return recentErrors().count; }

std::vector<std::string> threadErrorsSince(std::uint64_t mark) {
    const RecentErrors& recent = recentErrors();
    std::vector<std::string> messages;
    if (mark >= recent.count) return messages;
    std::uint64_t first = recent.count - mark > kRecentErrors ? recent.count - kRecentErrors : mark;
    messages.reserve(recent.count - first);
    for (std::uint64_t i = first; i < recent.count; ++i)
        messages.push_back(recent.ring[i % kRecentErrors]);
    return messages;
}

}  // namespace nimbra::log
