#include "framework/VorTrace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "framework/VorSystem.h"

namespace Vor {

namespace {

struct Rule {
   std::string pattern;
   int level;
};

struct Registry {
   std::mutex mutex;
   std::vector<TraceHandle*> handles;
   std::vector<Rule> rules;
   TraceSink sink;
   bool envRead = false;
};

Registry& registry() {
   static Registry* r = new Registry;   // never destroyed: handles outlive statics order
   return *r;
}

bool matches(std::string const& pattern, char const* name) {
   if (!pattern.empty() && pattern.back() == '*') {
      return std::strncmp(name, pattern.data(), pattern.size() - 1) == 0;
   }
   return pattern == name;
}

std::uint32_t maskOf(int level) {
   if (level < 0) return 0;
   if (level >= 31) return 0xffffffffu;
   return (1u << (level + 1)) - 1u;
}

bool parseRules(std::string const& text, std::vector<Rule>& out) {
   std::size_t start = 0;
   while (start <= text.size()) {
      std::size_t end = text.find(',', start);
      if (end == std::string::npos) end = text.size();
      std::string item = text.substr(start, end - start);
      if (!item.empty()) {
         std::size_t slash = item.rfind('/');
         if (slash == std::string::npos || slash == 0 || slash + 1 == item.size()) return false;
         char* stop = nullptr;
         long level = std::strtol(item.c_str() + slash + 1, &stop, 10);
         if (*stop != '\0' || level < 0 || level > 15) return false;
         out.push_back({item.substr(0, slash), static_cast<int>(level)});
      }
      start = end + 1;
   }
   return true;
}

void applyEnvLocked(Registry& r) {
   if (r.envRead) return;
   r.envRead = true;
   if (char const* env = std::getenv("ULONAT_TRACE")) {
      std::vector<Rule> rules;
      if (parseRules(env, rules)) {
         r.rules.insert(r.rules.end(), rules.begin(), rules.end());
      } else {
         std::fprintf(stderr, "ULONAT_TRACE: malformed value '%s' ignored (want pattern/level,...)\n", env);
      }
   }
}

} // namespace

TraceHandle::TraceHandle(char const* name) : name_(name) {
   Registry& r = registry();
   std::lock_guard lock(r.mutex);
   applyEnvLocked(r);
   std::uint32_t mask = 0;
   for (auto const& rule : r.rules) {
      if (matches(rule.pattern, name_)) mask |= maskOf(rule.level);
   }
   mask_.store(mask, std::memory_order_relaxed);
   r.handles.push_back(this);
}

TraceHandle::~TraceHandle() {
   Registry& r = registry();
   std::lock_guard lock(r.mutex);
   std::erase(r.handles, this);
}

void TraceHandle::levelIs(int level) { mask_.store(maskOf(level), std::memory_order_relaxed); }

void traceSinkIs(TraceSink sink) {
   Registry& r = registry();
   std::lock_guard lock(r.mutex);
   r.sink = std::move(sink);
}

void traceWrite(TraceHandle const& handle, int level, std::string_view text) {
   Registry& r = registry();
   std::lock_guard lock(r.mutex);
   if (r.sink) {
      r.sink(handle, level, text);
      return;
   }
   std::fprintf(stderr, "%.6f %s/%d %.*s\n", System::currentTime(), handle.name(), level,
                static_cast<int>(text.size()), text.data());
}

void traceEnable(std::string const& pattern, int level) {
   Registry& r = registry();
   std::lock_guard lock(r.mutex);
   applyEnvLocked(r);
   r.rules.push_back({pattern, level});
   for (TraceHandle* h : r.handles) {
      if (matches(pattern, h->name())) h->levelIs(level);
   }
}

bool traceEnableRules(std::string const& text) {
   std::vector<Rule> rules;
   if (!parseRules(text, rules)) return false;
   for (auto const& rule : rules) traceEnable(rule.pattern, rule.level);
   return true;
}

void traceDisableAll() {
   Registry& r = registry();
   std::lock_guard lock(r.mutex);
   r.rules.clear();
   for (TraceHandle* h : r.handles) h->levelIs(-1);
}

} // namespace Vor

namespace Nimlog {

RingBuf::RingBuf(std::size_t capacity) : records_(capacity ? capacity : 1) {}

RingBuf& RingBuf::instance() {
   static RingBuf* ring = new RingBuf;
   return *ring;
}

void RingBuf::append(MsgDesc const* desc, std::vector<std::string> args) {
   std::lock_guard lock(mutex_);
   records_[next_] = Record{desc, Vor::System::currentTime(), std::move(args)};
   next_ = (next_ + 1) % records_.size();
   if (next_ == 0) wrapped_ = true;
}

std::size_t RingBuf::size() const {
   std::lock_guard lock(mutex_);
   return wrapped_ ? records_.size() : next_;
}

void RingBuf::clear() {
   std::lock_guard lock(mutex_);
   for (auto& r : records_) r = Record{};
   next_ = 0;
   wrapped_ = false;
}

std::vector<std::string> RingBuf::dump() const {
   std::lock_guard lock(mutex_);
   std::vector<std::string> out;
   std::size_t count = wrapped_ ? records_.size() : next_;
   std::size_t first = wrapped_ ? next_ : 0;
   for (std::size_t i = 0; i < count; ++i) {
      Record const& r = records_[(first + i) % records_.size()];
      out.push_back(fmt::format("{:.6f} {}/{} {}", r.time, r.desc->handle->name(), r.desc->level,
                                Duolog::formatRecord(r.desc->format, r.args)));
   }
   return out;
}

} // namespace Nimlog

namespace Duolog {

std::string formatRecord(char const* format, std::vector<std::string> const& args) {
   fmt::dynamic_format_arg_store<fmt::format_context> store;
   for (auto const& a : args) store.push_back(a);
   try {
      return fmt::vformat(format, store);
   } catch (fmt::format_error const& e) {
      // A mismatched trace site must not take the agent down.
      return std::string(format) + " [format error: " + e.what() + "]";
   }
}

} // namespace Duolog
