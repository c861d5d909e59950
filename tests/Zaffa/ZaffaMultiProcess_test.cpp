// One writer process churning while reader processes look up and walk the
// same table, for a bounded time (longer with ULONAT_LONG=1).
//
// Every value carries its key and a checksum over all its other bytes. A
// reader asserts that it never sees a value whose checksum fails, a value
// under another key than the one it asked for, or a key that was never
// written (ids at or above keySpace are never written). The counts of what
// each reader did are printed, so that a run that did little is visible.

#include "Zaffa/ZaffaShadow.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <random>
#include <sys/wait.h>

using namespace ZaffaTest;

namespace {

using Reader = Zaffa::ZaffaReader<TestKey, TestValue>;
using Clock = std::chrono::steady_clock;

constexpr U64 keySpace = 3000;

struct ReaderReport {
   U64 lookups = 0;
   U64 hits = 0;
   U64 neverWrittenLookups = 0;
   U64 walks = 0;
   U64 walkEntries = 0;
   U64 lookasideReads = 0;
   U64 retries = 0;
   U64 walkRestarts = 0;
   U64 slowPaths = 0;
   U64 resizes = 0;
   U64 failures = 0;
   char firstFailure[200] = {};
};

struct WriterReport {
   U64 operations = 0;
   U64 slotGrows = 0;
   U64 slotShrinks = 0;
   U64 bucketGrows = 0;
   U64 bucketShrinks = 0;
   int ok = 0;
};

Zaffa::WriterConfig churnConfig(std::string const& root) {
   auto c = config(root, 16, 256);
   c.initialBuckets = 16;
   return c;
}

// Writes, overwrites, removes and direct writes, with long stretches of
// mostly removes so that the table compacts and its buckets join, and of
// mostly writes so that it grows and its buckets split.
[[noreturn]] void writerProcess(std::string const& root, double seconds, int readyFd, int reportFd) {
   WriterReport report;
   try {
      Writer w(churnConfig(root));
      w.attach();
      for (U64 id = 0; id < 200; ++id) w.write(TestValue::of(id, 1), true);
      char ok = 1;
      if (::write(readyFd, &ok, 1) != 1) _exit(3);
      std::mt19937_64 rng(99);
      U64 stamp = 1;
      auto end = Clock::now() + std::chrono::duration<double>(seconds);
      for (U64 n = 0;; ++n) {
         if ((n & 1023) == 0 && Clock::now() >= end) break;
         bool const draining = ((n >> 14) & 1) != 0;
         // During a drain the key space shrinks too, so that removes find
         // their keys and the table really empties.
         U64 const id = rng() % (draining ? keySpace / 16 : keySpace);
         int const op = static_cast<int>(rng() % 10);
         if (draining && op < 7) {
            for (U64 k = id; k < keySpace; k += keySpace / 16) {
               TestValue old;
               w.remove(TestKey::of(k), old);
            }
         } else if (op < 6) {
            w.write(TestValue::of(id, ++stamp), true);
         } else if (op < 8) {
            TestValue old;
            w.remove(TestKey::of(id), old);
         } else {
            TestValue* v = w.directWrite(TestKey::of(id));
            *v = TestValue::of(id, ++stamp);
            w.directCommit();
         }
         ++report.operations;
      }
      report.slotGrows = w.counters().slotGrows;
      report.slotShrinks = w.counters().slotShrinks;
      report.bucketGrows = w.counters().bucketGrows;
      report.bucketShrinks = w.counters().bucketShrinks;
      report.ok = w.validate() ? 1 : 0;
   } catch (std::exception const& e) {
      std::fprintf(stderr, "writer: %s\n", e.what());
      report.ok = 0;
   }
   _exit(::write(reportFd, &report, sizeof report) == sizeof report ? 0 : 4);
}

[[noreturn]] void readerProcess(std::string const& root, double seconds, unsigned seed, int reportFd) {
   ReaderReport report;
   auto fail = [&](std::string const& text) {
      if (report.failures++ == 0) std::snprintf(report.firstFailure, sizeof report.firstFailure, "%s", text.c_str());
   };
   try {
      Reader r{Mem::RootPath(root)};
      std::string message;
      if (!r.attach(message)) {
         fail("attach: " + message);
      } else {
         std::mt19937_64 rng(seed);
         auto end = Clock::now() + std::chrono::duration<double>(seconds);
         for (U64 n = 0;; ++n) {
            if ((n & 255) == 0 && Clock::now() >= end) break;
            if (n % 5000 == 4999) {
               // A full walk: bounded, every entry whole and known.
               TestValue v;
               Zaffa::IterHint hint;
               U64 entries = 0;
               for (bool more = r.first(v, hint); more; more = r.next(v.key, v, hint)) {
                  if (!v.consistent()) fail(fmt::format("walk: torn value of key {}", v.key.id));
                  if (v.key.id >= keySpace || !(v.key == TestKey::of(v.key.id))) {
                     fail(fmt::format("walk: key {} never written", v.key.id));
                  }
                  if (++entries > 4 * keySpace) {
                     fail("walk does not end");
                     break;
                  }
               }
               ++report.walks;
               report.walkEntries += entries;
               continue;
            }
            bool const never = n % 64 == 0;
            U64 const id = never ? keySpace + rng() % keySpace : rng() % keySpace;
            TestValue v;
            bool found = r.lookup(TestKey::of(id), v);
            ++report.lookups;
            if (never) {
               ++report.neverWrittenLookups;
               if (found) fail(fmt::format("lookup found key {} that was never written", id));
               continue;
            }
            if (!found) continue;
            ++report.hits;
            if (!v.consistent()) fail(fmt::format("lookup: torn value of key {}", id));
            if (!(v.key == TestKey::of(id))) fail(fmt::format("lookup of {} returned key {}", id, v.key.id));
         }
         auto const& c = r.counters();
         report.lookasideReads = c.lookasideReads;
         report.retries = c.retries;
         report.walkRestarts = c.walkRestarts;
         report.slowPaths = c.slowPaths;
         report.resizes = c.resizes;
      }
   } catch (std::exception const& e) {
      fail(std::string("exception: ") + e.what());
   }
   _exit(::write(reportFd, &report, sizeof report) == sizeof report ? 0 : 4);
}

// A shadow that polls while the writer churns; once the writer has ended
// (its files stay), it catches up and must hold exactly what the files hold.
[[noreturn]] void shadowProcess(std::string const& root, double seconds, int writerDoneFd, int reportFd) {
   ReaderReport report;
   auto fail = [&](std::string const& text) {
      if (report.failures++ == 0) std::snprintf(report.firstFailure, sizeof report.firstFailure, "%s", text.c_str());
   };
   try {
      U64 changes = 0;
      Zaffa::ZaffaShadow<TestKey, TestValue> shadow(
         Mem::RootPath(root), Mem::Notify<TestKey, TestValue>{[&](TestKey const& k) {
            ++changes;
            if (k.id >= keySpace) fail(fmt::format("told of key {} that was never written", k.id));
         }, {}, {}, {}});
      shadow.yieldTimeIs(0.01);
      if (!shadow.initialize("test")) {
         fail("initialize failed");
      } else {
         auto end = Clock::now() + std::chrono::duration<double>(seconds);
         while (Clock::now() < end) {
            shadow.poll();
            ++report.walks;
         }
         char done;
         if (::read(writerDoneFd, &done, 1) != 1) fail("no word from the writer");
         while (!shadow.poll()) {
         }
         Zaffa::ZaffaReader<TestKey, TestValue> reader{Mem::RootPath(root)};
         std::string message;
         if (!reader.attach(message)) fail("reader attach: " + message);
         for (U64 id = 0; id < keySpace && report.failures == 0; ++id) {
            TestValue a, b;
            bool inShadow = shadow.lookup(TestKey::of(id), a);
            bool inFiles = reader.lookup(TestKey::of(id), b);
            ++report.lookups;
            if (inShadow != inFiles) fail(fmt::format("key {} in shadow:{} in files:{}", id, inShadow, inFiles));
            if (inShadow && inFiles && std::memcmp(&a, &b, sizeof a) != 0) fail(fmt::format("key {} differs", id));
            if (inShadow) ++report.hits;
         }
         if (shadow.members() != reader.members()) fail("member counts differ");
         report.walkEntries = changes;
         report.retries = shadow.counters().notifications;
         report.slowPaths = shadow.counters().discarded;
      }
   } catch (std::exception const& e) {
      fail(std::string("exception: ") + e.what());
   }
   _exit(::write(reportFd, &report, sizeof report) == sizeof report ? 0 : 4);
}

template <typename Report>
Report readReport(int fd) {
   Report r{};
   std::size_t got = 0;
   while (got < sizeof r) {
      ssize_t n = ::read(fd, reinterpret_cast<char*>(&r) + got, sizeof r - got);
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
   }
   EXPECT_EQ(got, sizeof r) << "a child died before it reported";
   return r;
}

} // namespace

TEST(ZaffaMultiProcess, ReadersNeverSeeATornValueOrAnUnwrittenKey) {
   TempDir dir;
   double const seconds = testBudgetSeconds(3.0, 60.0);
   int const readers = 3;

   int ready[2], writerOut[2];
   ASSERT_EQ(::pipe(ready), 0);
   ASSERT_EQ(::pipe(writerOut), 0);
   pid_t writer = ::fork();
   ASSERT_GE(writer, 0);
   if (writer == 0) {
      ::close(ready[0]);
      ::close(writerOut[0]);
      writerProcess(dir.path(), seconds, ready[1], writerOut[1]);
   }
   ::close(ready[1]);
   ::close(writerOut[1]);
   char ok = 0;
   ASSERT_EQ(::read(ready[0], &ok, 1), 1) << "writer failed to attach";
   ::close(ready[0]);

   std::vector<pid_t> pids;
   std::vector<int> fds;
   for (int i = 0; i < readers; ++i) {
      int out[2];
      ASSERT_EQ(::pipe(out), 0);
      pid_t pid = ::fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) {
         ::close(out[0]);
         readerProcess(dir.path(), seconds, 1000u + static_cast<unsigned>(i), out[1]);
      }
      ::close(out[1]);
      pids.push_back(pid);
      fds.push_back(out[0]);
   }

   WriterReport wr = readReport<WriterReport>(writerOut[0]);
   ::close(writerOut[0]);
   int status = 0;
   ::waitpid(writer, &status, 0);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   std::printf("writer: %llu operations, slot grows %llu, slot shrinks %llu, bucket grows %llu, "
               "bucket shrinks %llu, valid at end %d\n",
               static_cast<unsigned long long>(wr.operations), static_cast<unsigned long long>(wr.slotGrows),
               static_cast<unsigned long long>(wr.slotShrinks), static_cast<unsigned long long>(wr.bucketGrows),
               static_cast<unsigned long long>(wr.bucketShrinks), wr.ok);
   EXPECT_EQ(wr.ok, 1);
   EXPECT_GT(wr.slotShrinks, 0u) << "the churn must compact the table at least once";
   EXPECT_GT(wr.bucketGrows, 0u);

   for (int i = 0; i < readers; ++i) {
      ReaderReport rr = readReport<ReaderReport>(fds[i]);
      ::close(fds[i]);
      ::waitpid(pids[i], &status, 0);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
      std::printf("reader %d: %llu lookups (%llu hits, %llu of never-written keys), %llu walks over "
                  "%llu entries; lookaside reads %llu, slot retries %llu, walk restarts %llu, "
                  "slow paths %llu, resizes %llu; failures %llu\n",
                  i, static_cast<unsigned long long>(rr.lookups), static_cast<unsigned long long>(rr.hits),
                  static_cast<unsigned long long>(rr.neverWrittenLookups), static_cast<unsigned long long>(rr.walks),
                  static_cast<unsigned long long>(rr.walkEntries), static_cast<unsigned long long>(rr.lookasideReads),
                  static_cast<unsigned long long>(rr.retries), static_cast<unsigned long long>(rr.walkRestarts),
                  static_cast<unsigned long long>(rr.slowPaths), static_cast<unsigned long long>(rr.resizes),
                  static_cast<unsigned long long>(rr.failures));
      EXPECT_EQ(rr.failures, 0u) << "reader " << i << ": " << rr.firstFailure;
      EXPECT_GT(rr.lookups, 1000u);
      EXPECT_GT(rr.hits, 0u);
      EXPECT_GT(rr.walks, 0u);
   }
}

TEST(ZaffaMultiProcess, ShadowsConvergeToTheWritersFinalState) {
   TempDir dir;
   double const seconds = testBudgetSeconds(2.0, 30.0);
   int const shadows = 2;
   int ready[2], writerOut[2], done[2];
   ASSERT_EQ(::pipe(ready), 0);
   ASSERT_EQ(::pipe(writerOut), 0);
   ASSERT_EQ(::pipe(done), 0);
   pid_t writer = ::fork();
   ASSERT_GE(writer, 0);
   if (writer == 0) {
      ::close(ready[0]);
      ::close(writerOut[0]);
      writerProcess(dir.path(), seconds, ready[1], writerOut[1]);
   }
   ::close(ready[1]);
   ::close(writerOut[1]);
   char ok = 0;
   ASSERT_EQ(::read(ready[0], &ok, 1), 1) << "writer failed to attach";
   std::vector<pid_t> pids;
   std::vector<int> fds;
   for (int i = 0; i < shadows; ++i) {
      int out[2];
      ASSERT_EQ(::pipe(out), 0);
      pid_t pid = ::fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) {
         ::close(out[0]);
         ::close(done[1]);
         shadowProcess(dir.path(), seconds, done[0], out[1]);
      }
      ::close(out[1]);
      pids.push_back(pid);
      fds.push_back(out[0]);
   }
   ::close(done[0]);
   WriterReport wr = readReport<WriterReport>(writerOut[0]);
   int status = 0;
   ::waitpid(writer, &status, 0);
   EXPECT_EQ(wr.ok, 1);
   std::printf("writer: %llu operations, slot shrinks %llu, bucket grows %llu\n",
               static_cast<unsigned long long>(wr.operations), static_cast<unsigned long long>(wr.slotShrinks),
               static_cast<unsigned long long>(wr.bucketGrows));
   char word[4] = {1, 1, 1, 1};
   ASSERT_EQ(::write(done[1], word, shadows), shadows);
   ::close(done[1]);
   for (int i = 0; i < shadows; ++i) {
      ReaderReport rr = readReport<ReaderReport>(fds[i]);
      ::waitpid(pids[i], &status, 0);
      std::printf("shadow %d: %llu polls, %llu notifications, %llu keys reported, %llu discarded, "
                  "final check of %llu keys (%llu present); failures %llu\n",
                  i, static_cast<unsigned long long>(rr.walks), static_cast<unsigned long long>(rr.retries),
                  static_cast<unsigned long long>(rr.walkEntries), static_cast<unsigned long long>(rr.slowPaths),
                  static_cast<unsigned long long>(rr.lookups), static_cast<unsigned long long>(rr.hits),
                  static_cast<unsigned long long>(rr.failures));
      EXPECT_EQ(rr.failures, 0u) << "shadow " << i << ": " << rr.firstFailure;
      EXPECT_EQ(rr.lookups, keySpace);
      EXPECT_GT(rr.walkEntries, 1000u);
   }
}
