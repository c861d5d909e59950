// A shadow-mode NatHwShadow in another process, started before any writer:
// it waits on an empty table, attaches when the writer appears, and its
// reactor is told of every key; muted it hears nothing; when the writer is
// killed and a new one re-formats the table, it resynchronises.
//
// The shadow's process reports its state on a pipe: its mount status, its
// members, the number of drains its wake-ups ran, and a mirror of the table
// that it built from its reactor's notifications alone. The parent drives
// the writers and waits (boundedly) for the states it expects.

#include "UloNat/UloNatAsyncEntities.h"
#include "VorZaffa/VorZaffaMap.h"
#include "Zaffa/ZaffaUtil.h"
#include "framework/DovTask.h"
#include "framework/VorReactor.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace Ulo;
using ZaffaTest::TempDir;
using Clock = std::chrono::steady_clock;

NatHwKey key(U32 filterAddrId) {
   NatHwKey k;
   k.keyTypeIs(NatHwKey::staticSnat);
   k.filterAddrIdIs(filterAddrId);
   return k;
}

NatHwShadowEntry shadowEntry(U32 filterAddrId, U64 nextHop) {
   NatHwData data;
   data.nextHopIdIs(nextHop);
   return NatHwShadowEntry(key(filterAddrId), data, NatHwShadowEntry::setting);
}

// Keeps, per key, what the reactor found when it was told of it.
struct Mirror {
   NatHwShadow const* shadow = nullptr;
   std::map<U32, U64> entries;
   void onEntry(NatHwKey const& k) {
      if (shadow->entryHas(k)) {
         entries[k.filterAddrId()] = shadow->entry(k).data().nextHopId();
      } else {
         entries.erase(k.filterAddrId());
      }
   }
};

struct VorEntry : Vor::Reactor<NatHwShadow, Mirror> {
   static Bindings const& table() {
      static Bindings const b{onKey<&Mirror::onEntry>(NatHwShadow::entryId)};
      return b;
   }
   explicit VorEntry(Mirror* m) : Reactor(m, table()) {}
};

std::string text(std::map<U32, U64> const& m) {
   std::string s;
   for (auto const& [id, nextHop] : m) s += std::to_string(id) + ":" + std::to_string(nextHop) + ",";
   return s;
}

void setNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

// Reads one command byte if there is one; 0 otherwise.
char command(int fd) {
   char c = 0;
   return ::read(fd, &c, 1) == 1 ? c : 0;
}

Vor::Ptr<Dov::TaskScheduler> freshScheduler() {
   Vor::Ptr<Dov::TaskScheduler> s(new Dov::TaskScheduler());
   Dov::TaskSchedulerRoot::schedulerIs(s);
   return s;
}

// The shadow's process. Commands: 'm' mute, 'u' unmute, 'x' exit.
int runShadow(std::string const& root, int commands, int reports) {
   auto sched = freshScheduler();
   auto shadow = natHwShadowFactory("natHwShadow", Zaffa::MapDescriptor::sharedReader(root, true));
   auto& map = shadow->entryMap().map();
   Mirror mirror;
   mirror.shadow = shadow.ptr();
   VorEntry reactor(&mirror);
   reactor.notifierIs(shadow);
   std::string last;
   auto const deadline = Clock::now() + std::chrono::seconds(20);
   while (Clock::now() < deadline) {
      sched->runOnce(0.01);
      switch (command(commands)) {
      case 'm': map.notifyingIs(false); break;
      case 'u': map.notifyingIs(true); break;
      case 'x': return 0;
      default: break;
      }
      U64 drains = 0;
      if (map.type() == Zaffa::ImplType::shadow) {
         drains = dynamic_cast<Zaffa::ZaffaShadowState<NatHwKey, NatHwShadowEntry>&>(map.impl())
                     .shadow().jolt().counters().drains;
      }
      std::string const state = std::string(Zaffa::mountStatusName(map.mountStatus())) + " " +
                                std::to_string(shadow->entrys()) + " " + std::to_string(drains) + " " +
                                text(mirror.entries) + "\n";
      if (state != last && ::write(reports, state.data(), state.size()) != static_cast<ssize_t>(state.size())) {
         return 2;
      }
      last = state;
   }
   return 3;
}

// The first writer's process, killed by the parent. Commands: 'c' change
// some entries, 'n' add one more.
int runWriter(std::string const& root, int commands) {
   auto sched = freshScheduler();
   auto shadow = natHwShadowFactory("natHwShadow", Zaffa::MapDescriptor::sharedWriter(root, 16, 64));
   for (U32 i = 0; i < 10; ++i) shadow->entryIs(shadowEntry(i, 100 + i));
   // Bounded, so that a parent that failed early leaves nothing behind.
   auto const deadline = Clock::now() + std::chrono::seconds(20);
   while (Clock::now() < deadline) {
      sched->runOnce(0.01);
      switch (command(commands)) {
      case 'c':
         shadow->entryDel(key(3));
         shadow->entryIs(shadowEntry(4, 444));
         shadow->entryIs(shadowEntry(20, 120));
         break;
      case 'n': shadow->entryIs(shadowEntry(30, 130)); break;
      default: break;
      }
   }
   return 3;
}

// Kills and reaps the children that a failed check left running.
struct Children {
   std::vector<pid_t> pids;
   ~Children() {
      for (pid_t p : pids) {
         if (::kill(p, SIGKILL) == 0) ::waitpid(p, nullptr, 0);
      }
   }
   void reaped(pid_t p) { std::erase(pids, p); }
};

class Reports {
 public:
   explicit Reports(int fd) : fd_(fd) { setNonBlocking(fd); }
   // Runs `sched` (this process's writer, if any) and reads the shadow's
   // reports until the last one equals `want` or `seconds` pass.
   bool waitFor(std::string const& want, double seconds, Dov::TaskScheduler* sched = nullptr) {
      auto const deadline = Clock::now() + std::chrono::duration<double>(seconds);
      do {
         if (sched) {
            sched->runOnce(0.01);
         } else {
            ::usleep(10000);
         }
         read();
         if (last_ == want) return true;
      } while (Clock::now() < deadline);
      return false;
   }
   std::string const& last() const { return last_; }
   void read() {
      char buffer[4096];
      for (ssize_t n; (n = ::read(fd_, buffer, sizeof buffer)) > 0;) pending_.append(buffer, n);
      for (std::size_t end; (end = pending_.find('\n')) != std::string::npos;) {
         last_ = pending_.substr(0, end);
         pending_.erase(0, end + 1);
      }
   }

 private:
   int fd_;
   std::string pending_;
   std::string last_;
};

std::string expected(char const* mount, std::map<U32, U64> const& entries, U64 drains) {
   return std::string(mount) + " " + std::to_string(entries.size()) + " " + std::to_string(drains) + " " +
          text(entries);
}

// The drains count from a report "<mount> <members> <drains> <mirror>".
U64 drainsOf(std::string const& report) {
   std::size_t const a = report.find(' ');
   std::size_t const b = report.find(' ', a + 1);
   return std::stoull(report.substr(b + 1, report.find(' ', b + 1) - b - 1));
}

std::string withoutDrains(std::string const& report) {
   std::size_t const a = report.find(' ');
   std::size_t const b = report.find(' ', a + 1);
   return report.substr(0, b) + report.substr(report.find(' ', b + 1));
}

} // namespace

TEST(NatHwShadowReader, AShadowStartedFirstFollowsItsWritersThroughADeathAndANewGeneration) {
   TempDir dir;
   int toShadow[2], fromShadow[2], toWriter[2];
   ASSERT_EQ(::pipe(toShadow), 0);
   ASSERT_EQ(::pipe(fromShadow), 0);
   ASSERT_EQ(::pipe(toWriter), 0);
   setNonBlocking(toShadow[0]);
   setNonBlocking(toWriter[0]);
   pid_t const shadowPid = ::fork();
   ASSERT_GE(shadowPid, 0);
   if (shadowPid == 0) ::_exit(runShadow(dir.path(), toShadow[0], fromShadow[1]));
   Children children;
   children.pids.push_back(shadowPid);
   Reports reports(fromShadow[0]);
   auto send = [](int fd, char c) { ASSERT_EQ(::write(fd, &c, 1), 1); };

   // No writer: an empty table, waiting.
   ASSERT_TRUE(reports.waitFor("waiting 0 0 ", 3.0)) << reports.last();

   pid_t const writerPid = ::fork();
   ASSERT_GE(writerPid, 0);
   if (writerPid == 0) ::_exit(runWriter(dir.path(), toWriter[0]));
   children.pids.push_back(writerPid);
   std::map<U32, U64> table;
   for (U32 i = 0; i < 10; ++i) table[i] = 100 + i;
   // Attached at the writer's appearance; the reactor was told of every key.
   // (drains: wake-ups may or may not have come yet, so only the rest counts.)
   auto converged = [&](char const* mount) {
      auto const deadline = Clock::now() + std::chrono::seconds(3);
      do {
         reports.read();
         if (!reports.last().empty() && withoutDrains(reports.last()) == withoutDrains(expected(mount, table, 0))) {
            return true;
         }
         ::usleep(10000);
      } while (Clock::now() < deadline);
      return false;
   };
   ASSERT_TRUE(converged("mounted")) << reports.last();

   // Changes arrive by wake-ups.
   U64 const drainsBefore = drainsOf(reports.last());
   send(toWriter[1], 'c');
   table.erase(3);
   table[4] = 444;
   table[20] = 120;
   ASSERT_TRUE(converged("mounted")) << reports.last();
   EXPECT_GT(drainsOf(reports.last()), drainsBefore);

   // Muted: a change made meanwhile is not taken, and no drain runs.
   send(toShadow[1], 'm');
   std::string const muted = reports.last();
   ::usleep(100000);   // the shadow's process takes the command
   send(toWriter[1], 'n');
   EXPECT_FALSE(reports.waitFor("never", 0.5));
   EXPECT_EQ(reports.last(), muted) << "a muted shadow changed";
   send(toShadow[1], 'u');
   table[30] = 130;
   ASSERT_TRUE(converged("mounted")) << reports.last();

   // The writer is killed: the closed connection tells the shadow, which
   // keeps its copy.
   ASSERT_EQ(::kill(writerPid, SIGKILL), 0);
   int status = 0;
   ASSERT_EQ(::waitpid(writerPid, &status, 0), writerPid);
   children.reaped(writerPid);
   ASSERT_TRUE(converged("waiting")) << reports.last();

   // A new writer, here, re-formats the table into a new generation with
   // other entries; the shadow resynchronises to exactly them.
   ASSERT_TRUE(
      Zaffa::Util::writeCorruptionMarker(Mem::RootPath(dir.path() + "/natHwShadow/entry"), "forced by the test"));
   {
      auto sched = freshScheduler();
      auto writer = natHwShadowFactory("natHwShadow", Zaffa::MapDescriptor::sharedWriter(dir.path(), 16, 64));
      EXPECT_EQ(writer->entrys(), 0u) << "the table was re-formatted";
      table.clear();
      for (U32 i = 0; i < 5; ++i) {
         writer->entryIs(shadowEntry(i, 1000 + i));
         table[i] = 1000 + i;
      }
      writer->entryIs(shadowEntry(50, 150));
      table[50] = 150;
      auto const deadline = Clock::now() + std::chrono::seconds(3);
      bool done = false;
      while (!done && Clock::now() < deadline) {
         sched->runOnce(0.01);
         reports.read();
         // The shadow holds exactly the new table, and its reactor, told of
         // every key that differs (the old generation's that are gone
         // included), built the same copy. These keys differ only in their
         // filter position, which their order ignores.
         done = withoutDrains(reports.last()) == withoutDrains(expected("mounted", table, 0));
      }
      EXPECT_TRUE(done) << reports.last();
      Dov::TaskSchedulerRoot::schedulerIs(nullptr);
   }

   send(toShadow[1], 'x');
   ASSERT_EQ(::waitpid(shadowPid, &status, 0), shadowPid);
   children.reaped(shadowPid);
   ASSERT_TRUE(WIFEXITED(status));
   EXPECT_EQ(WEXITSTATUS(status), 0);
   for (int fd : {toShadow[0], toShadow[1], fromShadow[0], fromShadow[1], toWriter[0], toWriter[1]}) ::close(fd);
}
