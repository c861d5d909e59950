#pragma once
// Key and value types of the same sizes as the hardware shadow's, for the
// table's tests: a 40-byte key with hash(seed), and a 736-byte value that
// carries its key and a checksum over everything else, so that a torn copy is
// always detectable.

#include "framework/VorHash.h"
#include "Zaffa/ZaffaWriter.h"

#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

namespace ZaffaTest {

using Vor::U32;
using Vor::U64;

struct TestKey {
   U64 id = 0;
   U64 pad[4] = {};

   static TestKey of(U64 id) {
      TestKey k;
      k.id = id;
      k.pad[0] = id * 0x9e3779b97f4a7c15ull;
      k.pad[3] = ~id;
      return k;
   }
   U32 hash(U32 seed) const { return Vor::hashBytes(seed, this, sizeof *this); }
   bool operator==(TestKey const&) const = default;
   bool operator<(TestKey const& o) const { return id < o.id; }
   std::string stringValue() const { return fmt::format("TestKey({})", id); }
};
static_assert(sizeof(TestKey) == 40);

struct TestValue {
   TestKey key;
   U64 stamp = 0;
   unsigned char payload[680] = {};
   U32 dirty = 0;
   U32 check = 0;

   static TestValue of(U64 id, U64 stamp) {
      TestValue v;
      v.key = TestKey::of(id);
      v.stamp = stamp;
      for (std::size_t i = 0; i < sizeof v.payload; ++i) {
         v.payload[i] = static_cast<unsigned char>((stamp * 131 + i * 7 + id) & 0xFF);
      }
      v.dirty = static_cast<U32>(stamp & 3);
      v.check = v.computeCheck();
      return v;
   }
   U32 computeCheck() const { return Vor::hashBytes(0x5eed, this, offsetof(TestValue, check)); }
   // The value is whole: it was written by one write, not torn.
   bool consistent() const { return check == computeCheck(); }
   std::string stringValue() const { return fmt::format("TestValue({}, {})", key.id, stamp); }
};
static_assert(sizeof(TestValue) == 736);

using Writer = Zaffa::ZaffaWriter<TestKey, TestValue>;

// A fresh directory under /dev/shm (or TMPDIR), removed at destruction.
class TempDir {
 public:
   TempDir() {
      std::string base = std::filesystem::exists("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path().string();
      std::string pattern = base + "/zaffa-test-XXXXXX";
      char* p = ::mkdtemp(pattern.data());
      if (!p) std::abort();
      path_ = p;
   }
   ~TempDir() {
      std::error_code ec;
      std::filesystem::remove_all(path_, ec);
   }
   std::string const& path() const { return path_; }
   std::string file(char const* name) const { return path_ + "/" + name; }

 private:
   std::string path_;
};

inline Zaffa::WriterConfig config(std::string const& root, U32 minSlots = 16, U32 maxSlots = 64) {
   Zaffa::WriterConfig c;
   c.rootPath = root;
   c.minSlots = minSlots;
   c.maxSlots = maxSlots;
   c.initialBuckets = 16;
   c.className = "ZaffaTest";
   return c;
}

} // namespace ZaffaTest

#include <mutex>
#include <vector>

namespace ZaffaTest {

// Collects the table's trace lines (all levels) while it lives.
class TraceCapture {
 public:
   TraceCapture() {
      Vor::traceEnable("Zaffa*", 15);
      Vor::traceSinkIs([this](Vor::TraceHandle const&, int, std::string_view text) {
         std::lock_guard<std::mutex> lock(mutex_);
         lines_.emplace_back(text);
      });
   }
   ~TraceCapture() {
      Vor::traceSinkIs({});
      Vor::traceDisableAll();
   }
   bool contains(std::string_view part) const {
      std::lock_guard<std::mutex> lock(mutex_);
      for (auto const& l : lines_) {
         if (l.find(part) != std::string::npos) return true;
      }
      return false;
   }
   std::string all() const {
      std::lock_guard<std::mutex> lock(mutex_);
      std::string s;
      for (auto const& l : lines_) s += l + "\n";
      return s;
   }
   void clear() {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.clear();
   }

 private:
   mutable std::mutex mutex_;
   std::vector<std::string> lines_;
};

// Seconds of a bounded randomized or crash test; longer with ULONAT_LONG=1.
inline double testBudgetSeconds(double normal, double longMode) {
   char const* l = std::getenv("ULONAT_LONG");
   return (l && std::string(l) == "1") ? longMode : normal;
}

#ifdef ZAFFA_TOOL_PATH
// One run of zaffa-tool: its exit status and what it printed (both streams).
struct ToolRun {
   int status;
   std::string output;
};

inline ToolRun zaffaTool(std::string const& args) {
   std::string command = std::string(ZAFFA_TOOL_PATH) + " " + args + " 2>&1";
   FILE* p = ::popen(command.c_str(), "r");
   ToolRun r{-1, {}};
   if (!p) return r;
   char buffer[4096];
   std::size_t n;
   while ((n = std::fread(buffer, 1, sizeof buffer, p)) > 0) r.output.append(buffer, n);
   int status = ::pclose(p);
   r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   return r;
}
#endif

} // namespace ZaffaTest
