#include "nimbra/log/Log.h"

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

void write(Severity severity, std::string_view message) {
    Logger* logger = theLogger.load();
    if (logger == nullptr || !enabled(severity)) return;
    std::lock_guard<std::mutex> guard(logger->lock);
    std::fwrite(message.data(), 1, message.size(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

}  // namespace nimbra::log
