#pragma once
// The library's process-wide logger: one console appender on standard error,
// bare messages (no time stamp, severity or source), one line per message and
// a lock per message so that worker threads never interleave their output.

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra::log {

enum Severity : int {
    none = 0,
    fatal = 1,
    error = 2,
    warning = 3,
    info = 4,
    debug = 5,
    verbose = 6,
};

// Creates the logger on first call (later calls only change the maximum).
void init(Severity maxSeverity);
bool exists();
void setMaxSeverity(Severity maxSeverity);
Severity maxSeverity();
// True when the logger exists and a message of this severity would be written.
bool enabled(Severity severity);
// True when a message of this severity is written or kept for its thread
// (errors are kept even when the console does not show them).
bool wanted(Severity severity);
void write(Severity severity, std::string_view message);

// Every thread keeps its own last error and fatal messages, whatever the
// console shows, so that a caller which got a failure result can say why
// without reading standard error back. Take the count before a call and ask
// for the messages since it afterwards; other threads' messages never mix in.
std::uint64_t threadErrorCount();
// This thread's error messages logged after `mark` (a threadErrorCount()),
// oldest first; at most the last kRecentErrors of them.
std::vector<std::string> threadErrorsSince(std::uint64_t mark);
inline constexpr std::size_t kRecentErrors = 16;

// Collects one message and writes it when it goes out of scope.
class Record {
public:
    explicit Record(Severity severity) : severity_(severity) {}
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
    ~Record() { write(severity_, stream_.str()); }
    std::ostringstream& stream() { return stream_; }

private:
    Severity severity_;
    std::ostringstream stream_;
};

}  // namespace nimbra::log

// Usage: NIMBRA_LOG(error) << "Could not read aoi.";
// The message is not even formatted when the severity is filtered out.
// Written as a one-pass loop rather than if/else so that it nests safely
// inside an unbraced if.
#define NIMBRA_LOG(sev)                                                              \
    for (bool nimbraLogOnce = ::nimbra::log::wanted(::nimbra::log::sev); nimbraLogOnce; \
         nimbraLogOnce = false)                                                      \
    ::nimbra::log::Record(::nimbra::log::sev).stream()
