#include "framework/VorLog.h"

#include <syslog.h>

#include <cstdio>

#include "framework/VorString.h"
#include "framework/VorSystem.h"

namespace Vor {

char const* const NoActionRequired = "No action is required.";

LogHandle::LogHandle(char const* name, int severity, char const* format, char const* explanation,
                     char const* recommendedAction, double minInterval, double burst,
                     unsigned char facility)
    : name_(name), severity_(severity), format_(format), explanation_(explanation),
      recommendedAction_(recommendedAction), minInterval_(minInterval),
      burst_(burst < 1.0 ? 1.0 : burst), facility_(facility) {}

bool LogHandle::admit(double now) {
   if (minInterval_ <= 0.0) {
      ++emitted_;
      return true;
   }
   if (windowStart_ < 0.0 || now - windowStart_ >= minInterval_) {
      windowStart_ = now;
      inWindow_ = 0.0;
   }
   if (inWindow_ + 1.0 > burst_) {
      ++suppressed_;
      return false;
   }
   inWindow_ += 1.0;
   ++emitted_;
   return true;
}

namespace {
LogSink& sink() {
   static LogSink s;
   return s;
}

void syslogSink(LogHandle const& handle, LogMessage const& message) {
   int priority = handle.severity() < 0 ? LOG_ERR : (handle.severity() > 7 ? LOG_DEBUG : handle.severity());
   ::syslog(priority, "%%NAT-%d-%s: %s", handle.severity(), message.name.c_str(), message.text.c_str());
}
} // namespace

void logSinkIs(LogSink s) { sink() = std::move(s); }

CapturingLogSink::CapturingLogSink() {
   logSinkIs([this](LogHandle const&, LogMessage const& m) { messages_.push_back(m); });
}

CapturingLogSink::~CapturingLogSink() { logSinkIs({}); }

std::size_t CapturingLogSink::count(std::string const& name) const {
   std::size_t n = 0;
   for (auto const& m : messages_) n += (m.name == name);
   return n;
}

void logv(LogHandle& handle, std::va_list args) {
   double const now = System::currentTime();
   if (!handle.admit(now)) return;
   LogMessage message{now, handle.name(), handle.severity(), vformat(handle.format(), args).stdString()};
   if (sink()) {
      sink()(handle, message);
   } else {
      syslogSink(handle, message);
   }
}

void vlog(LogHandle* handle, ...) {
   std::va_list args;
   va_start(args, handle);
   logv(*handle, args);
   va_end(args);
}

} // namespace Vor
