// A writer killed at random moments, and the writer lock.
//
// A child process writes, overwrites and removes as fast as it can and is
// killed with SIGKILL; a new writer then attaches. The table must either be
// kept, pass validation and hold only whole values under their own keys, or
// be re-formatted with a new generation and the trace that says so.

#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <random>
#include <sys/wait.h>
#include <thread>

using namespace ZaffaTest;

namespace {

Zaffa::WriterConfig crashConfig(std::string const& root) {
   auto c = config(root, 16, 128);
   c.initialBuckets = 16;
   return c;
}

[[noreturn]] void churn(std::string const& root, U64 seed, int readyFd) {
   try {
      Writer w(crashConfig(root));
      w.attach();
      char ok = 1;
      if (::write(readyFd, &ok, 1) != 1) _exit(3);
      std::mt19937_64 rng(seed);
      U64 stamp = seed << 20;
      for (;;) {
         U64 id = rng() % 600;
         int op = static_cast<int>(rng() % 10);
         // Long stretches of mostly removes let the table shrink.
         bool draining = (stamp >> 12) & 1;
         if (op < (draining ? 2 : 5)) {
            w.write(TestValue::of(id, ++stamp), true);
         } else if (op < 8) {
            TestValue old;
            w.remove(TestKey::of(id), old);
            ++stamp;
         } else {
            TestValue* v = w.directWrite(TestKey::of(id));
            *v = TestValue::of(id, ++stamp);
            w.directCommit();
         }
      }
   } catch (...) {
      _exit(2);
   }
}

} // namespace

TEST(ZaffaCrash, KilledWriterLeavesAValidOrReformattedTable) {
   TempDir dir;
   double const budget = testBudgetSeconds(4.0, 120.0);
   int const maxRounds = std::getenv("ULONAT_LONG") ? 2000 : 40;
   auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(budget);
   std::mt19937 rng(4242);
   int kept = 0, reformatted = 0, rounds = 0;
   SharedMem::FenixId lastFenix;
   for (; rounds < maxRounds && (rounds < 5 || std::chrono::steady_clock::now() < deadline); ++rounds) {
      int pipeFd[2];
      ASSERT_EQ(::pipe(pipeFd), 0);
      pid_t child = ::fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
         ::close(pipeFd[0]);
         churn(dir.path(), static_cast<U64>(rounds) + 1, pipeFd[1]);
      }
      ::close(pipeFd[1]);
      char ready = 0;
      ASSERT_EQ(::read(pipeFd[0], &ready, 1), 1) << "child writer failed to attach";
      ::close(pipeFd[0]);
      std::this_thread::sleep_for(std::chrono::microseconds(2000 + rng() % 40000));
      ::kill(child, SIGKILL);
      int status = 0;
      ASSERT_EQ(::waitpid(child, &status, 0), child);
      ASSERT_TRUE(WIFSIGNALED(status)) << "child ended on its own, status " << status;

      TraceCapture traces;
      Writer w(crashConfig(dir.path()));
      ASSERT_NO_THROW(w.attach()) << traces.all();
      bool lost = traces.contains(fmt::format("all entries from {} will be lost", dir.path()));
      if (lost) {
         ++reformatted;
         EXPECT_EQ(w.members(), 0u);
         EXPECT_NE(w.fenixId(), lastFenix);
      } else {
         ++kept;
         ASSERT_TRUE(w.validate()) << w.lastValidationMessage();
         U32 walked = 0;
         for (auto const* v = w.first(); v; v = w.next(v->key)) {
            ASSERT_TRUE(v->consistent()) << "torn value under " << v->key.id;
            ASSERT_EQ(w.lookup(v->key), v);
            ++walked;
         }
         ASSERT_EQ(walked, w.members());
      }
      lastFenix = w.fenixId();
   }
   std::printf("crash rounds:%d kept:%d reformatted:%d\n", rounds, kept, reformatted);
   EXPECT_EQ(kept + reformatted, rounds);
   EXPECT_GT(kept, 0) << "a kill between operations must leave the table usable";
}

TEST(ZaffaCrash, SecondLiveWriterIsRefusedAndASuccessorGetsIn) {
   TempDir dir;
   {
      Writer first(crashConfig(dir.path()));
      first.attach();
      first.write(TestValue::of(1, 1), true);
      Writer second(crashConfig(dir.path()));
      try {
         second.attach();
         FAIL() << "two live writers on one table";
      } catch (Jorro::InvalidInitializeException const& e) {
         EXPECT_NE(std::string(e.what()).find(fmt::format("already has a live writer, pid {}", ::getpid())),
                   std::string::npos) << e.what();
      }
      EXPECT_EQ(first.lookup(TestKey::of(1))->stamp, 1u) << "the refused writer touched nothing";
   }
   // A writer in another process holds the table until it dies.
   int toChild[2], fromChild[2];
   ASSERT_EQ(::pipe(toChild), 0);
   ASSERT_EQ(::pipe(fromChild), 0);
   pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      Writer w(crashConfig(dir.path()));
      w.attach();
      w.write(TestValue::of(2, 2), true);
      char c = 1;
      if (::write(fromChild[1], &c, 1) != 1) _exit(3);
      (void)::read(toChild[0], &c, 1);   // wait to be killed
      _exit(0);
   }
   char c;
   ASSERT_EQ(::read(fromChild[0], &c, 1), 1);
   {
      Writer blocked(crashConfig(dir.path()));
      EXPECT_THROW(blocked.attach(), Jorro::InvalidInitializeException);
   }
   ::kill(child, SIGKILL);
   ::waitpid(child, nullptr, 0);
   Writer successor(crashConfig(dir.path()));
   successor.attach();
   ASSERT_NE(successor.lookup(TestKey::of(2)), nullptr);
   EXPECT_EQ(successor.members(), 2u);
   for (int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) ::close(fd);
}
