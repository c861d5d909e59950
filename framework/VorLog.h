#pragma once
// Syslog-type messages for operators.
//
// A Vor::LogHandle names one message: its severity (syslog numbering, 0
// emergency to 7 debug), printf-style format, explanation and recommended
// action. Handles are built once at load time, one per source file that
// emits the message. Vor::log(handle, args...) emits it.
//
// Rate limiting: the two doubles of the constructor are `minInterval`
// (seconds that must pass between two emissions of the handle; 0.0 means no
// limit) and `burst` (emissions allowed back to back before the interval
// applies; at least 1). The last byte is a facility tag passed to the sink.
// A suppressed emission is counted (suppressed()), not lost silently.
//
// Where messages go is the sink's business: syslog(3) by default; tests and
// the simulator install a capturing sink (logSinkIs()) that records each
// message with its virtual time.
//
// Thread safety: the agent's one thread; the sink swap is not synchronised.

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace Vor {

extern char const* const NoActionRequired;

class LogHandle {
 public:
   LogHandle(char const* name, int severity, char const* format, char const* explanation,
             char const* recommendedAction, double minInterval, double burst,
             unsigned char facility);

   char const* name() const { return name_; }
   int severity() const { return severity_; }
   char const* format() const { return format_; }
   char const* explanation() const { return explanation_; }
   char const* recommendedAction() const { return recommendedAction_; }
   unsigned char facility() const { return facility_; }
   std::uint64_t emitted() const { return emitted_; }
   std::uint64_t suppressed() const { return suppressed_; }

   // Decides whether an emission at `now` passes the rate limit and counts it.
   bool admit(double now);

 private:
   char const* name_;
   int severity_;
   char const* format_;
   char const* explanation_;
   char const* recommendedAction_;
   double minInterval_;
   double burst_;
   unsigned char facility_;
   double windowStart_ = -1.0;
   double inWindow_ = 0.0;
   std::uint64_t emitted_ = 0;
   std::uint64_t suppressed_ = 0;
};

struct LogMessage {
   double time;
   std::string name;
   int severity;
   std::string text;
};

using LogSink = std::function<void(LogHandle const& handle, LogMessage const& message)>;
// Installs `sink`; an empty function restores the syslog sink.
void logSinkIs(LogSink sink);

// A sink that keeps every message, for tests and the simulator.
class CapturingLogSink {
 public:
   CapturingLogSink();    // installs itself
   ~CapturingLogSink();   // restores the syslog sink
   std::vector<LogMessage> const& messages() const { return messages_; }
   std::size_t count(std::string const& name) const;
   void clear() { messages_.clear(); }

 private:
   std::vector<LogMessage> messages_;
};

void vlog(LogHandle* handle, ...);
void logv(LogHandle& handle, std::va_list args);

// Emits `handle` with printf-style arguments (plain C types: integers,
// doubles, char const*).
template <typename... Args>
void log(LogHandle& handle, Args... args) {
   static_assert((std::is_trivially_copyable_v<Args> && ...),
                 "log arguments are passed printf-style");
   vlog(&handle, args...);
}

} // namespace Vor
