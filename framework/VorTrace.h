#pragma once
// Debug traces: a leveled text trace and a binary ring, and the Duolog facade
// that writes one message to both.
//
// Each source file owns one trace handle, named after the file:
//
//     VOR_TRACE_HANDLE("UloNatSm");
//     ...
//     VOR_TRACE(8, "Creating intfStatus for " << key << " on VRF " << name);
//     DUOLOG(5, "all entries from {} will be lost", path);
//
// A trace that is off costs one load and one test of a bit mask; its message
// is not built. Levels are 0 to 15.
//
// Enabling: the environment variable ULONAT_TRACE, read once at start-up, is a
// comma-separated list of `pattern/level`, where pattern is a handle name with
// an optional trailing '*' and level enables 0..level, for example
// "UloNatSm/8,Zaffa*/15". Vor::traceEnable() does the same at run time (the
// simulator's --trace option). Text lines go to the trace sink: standard
// error by default, replaceable (the simulator captures them).
//
// The binary ring (Nimlog) keeps the most recent messages of every enabled
// DUOLOG site with their raw arguments; its dump formats them on demand.
//
// Thread safety: handles may be tested from any thread; the sink and the ring
// are guarded by a mutex, since the shared-memory table traces from the
// programmer's threads too.

#include <fmt/args.h>
#include <fmt/format.h>

#include <cstdint>
#include <atomic>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Vor {

class TraceHandle {
 public:
   explicit TraceHandle(char const* name);
   ~TraceHandle();
   TraceHandle(TraceHandle const&) = delete;
   TraceHandle& operator=(TraceHandle const&) = delete;

   char const* name() const { return name_; }
   bool enabled(int level) const {
      return (mask_.load(std::memory_order_relaxed) >> level) & 1u;
   }
   // Enables levels 0..level; a negative level switches the handle off.
   void levelIs(int level);

 private:
   char const* name_;
   std::atomic<std::uint32_t> mask_{0};
};

// Where text trace lines go. Replace it to capture traces.
using TraceSink = std::function<void(TraceHandle const& handle, int level, std::string_view text)>;
void traceSinkIs(TraceSink sink);   // an empty function restores standard error
void traceWrite(TraceHandle const& handle, int level, std::string_view text);

// Enables every handle, present and future, whose name matches `pattern`
// (exact, or prefix when it ends in '*') at levels 0..level.
void traceEnable(std::string const& pattern, int level);
// Applies a comma-separated "pattern/level" list; returns false and leaves
// everything unchanged on a malformed list.
bool traceEnableRules(std::string const& text);
void traceDisableAll();

// Collects the pieces of a stream-style trace and writes them when destroyed.
class TraceStream {
 public:
   TraceStream(TraceHandle const& handle, int level) : handle_(handle), level_(level) {}
   ~TraceStream() { traceWrite(handle_, level_, stream_.str()); }
   template <typename T>
   TraceStream& operator<<(T const& v) {
      if constexpr (requires(std::ostream& os, T const& x) { os << x; }) {
         stream_ << v;
      } else {
         stream_ << v.stringValue();
      }
      return *this;
   }

 private:
   TraceHandle const& handle_;
   int level_;
   std::ostringstream stream_;
};

} // namespace Vor

namespace Nimlog {

// The format descriptor of one trace site, made on first use of the site.
struct MsgDesc {
   Vor::TraceHandle const* handle;
   int level;
   char const* format;
   char const* file;
   int line;
};

// A bounded ring of binary trace records: descriptor, time, and the message's
// arguments. Old records are overwritten.
class RingBuf {
 public:
   struct Record {
      MsgDesc const* desc;
      double time;
      std::vector<std::string> args;   // each argument already in text form
   };
   explicit RingBuf(std::size_t capacity = 4096);
   void append(MsgDesc const* desc, std::vector<std::string> args);
   // Oldest first, each formatted with its descriptor.
   std::vector<std::string> dump() const;
   std::size_t size() const;
   void clear();

   static RingBuf& instance();

 private:
   mutable std::mutex mutex_;
   std::vector<Record> records_;
   std::size_t next_ = 0;
   bool wrapped_ = false;
};

} // namespace Nimlog

namespace Duolog {

template <typename T>
std::string argText(T const& v) {
   if constexpr (requires { fmt::format("{}", v); }) {
      return fmt::format("{}", v);
   } else {
      return v.stringValue();
   }
}

std::string formatRecord(char const* format, std::vector<std::string> const& args);

// Writes one message to the text trace and to the binary ring.
template <typename... Args>
void write(Nimlog::MsgDesc const& desc, Args const&... args) {
   std::vector<std::string> texts{argText(args)...};
   Nimlog::RingBuf::instance().append(&desc, texts);
   Vor::traceWrite(*desc.handle, desc.level, formatRecord(desc.format, texts));
}

} // namespace Duolog

// One trace handle per source file, reached through vorTraceHandle().
#define VOR_TRACE_HANDLE(name)                                                       \
   namespace {                                                                       \
   [[maybe_unused]] ::Vor::TraceHandle& vorTraceHandle() {                          \
      static ::Vor::TraceHandle handle(name);                                        \
      return handle;                                                                 \
   }                                                                                 \
   }

#define VOR_TRACE(level, pieces)                                                     \
   do {                                                                              \
      if (vorTraceHandle().enabled(level)) {                                        \
         ::Vor::TraceStream vorTraceStream_(vorTraceHandle(), level);                \
         vorTraceStream_ << pieces;                                                  \
      }                                                                              \
   } while (0)

// {}-style message to both the text trace and the binary ring.
#define DUOLOG(level, format, ...)                                                   \
   do {                                                                              \
      if (vorTraceHandle().enabled(level)) {                                        \
         static ::Nimlog::MsgDesc const vorMsgDesc_{&vorTraceHandle(), level, format, \
                                                    __FILE__, __LINE__};             \
         ::Duolog::write(vorMsgDesc_ __VA_OPT__(, ) __VA_ARGS__);                    \
      }                                                                              \
   } while (0)
