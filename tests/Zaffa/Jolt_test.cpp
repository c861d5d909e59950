// Wake-ups from a writer to its shadows: one per batch, acknowledged, never
// lost when the writer runs ahead of an acknowledgement, held back while a
// reader does not want them, and a closed connection when the writer goes.
// Then the real thing across processes: a shadow in a child process, started
// before its writer, that only ever looks at the table when its sentry or its
// wake-up connection says so.

#include "Zaffa/platform/Jolt.h"
#include "Zaffa/platform/MemReaderSentry.h"
#include "Zaffa/ZaffaShadow.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <map>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

using namespace ZaffaTest;

namespace {

using Shadow = Zaffa::ZaffaShadow<TestKey, TestValue>;

struct ShadowOwner {
   std::set<U64> reported;
   Shadow shadow;
   explicit ShadowOwner(std::string const& root, std::string const& name = "joltTestShadow")
       : shadow(Mem::RootPath(root),
                Mem::Notify<TestKey, TestValue>{[this](TestKey const& k) { reported.insert(k.id); }, {}, {}, {}},
                name) {}
};

// The shadow holds exactly `model`.
::testing::AssertionResult matches(Shadow& s, std::map<U64, TestValue> const& model) {
   if (s.members() != model.size()) {
      return ::testing::AssertionFailure() << "members " << s.members() << " want " << model.size();
   }
   for (auto const& [id, want] : model) {
      TestValue v;
      if (!s.lookup(TestKey::of(id), v) || std::memcmp(&v, &want, sizeof v) != 0) {
         return ::testing::AssertionFailure() << "key " << id << " missing or stale";
      }
   }
   return ::testing::AssertionSuccess();
}

void writeBatch(Writer& w, std::map<U64, TestValue>& model, U64 stamp, U64 from, U64 to) {
   for (U64 id = from; id < to; ++id) model[id] = *w.write(TestValue::of(id, stamp), true);
}

std::string joltPath(TempDir const& dir) { return dir.file(Zaffa::FileNames::jolt); }

} // namespace

TEST(Jolt, OneWakeUpPerBatchAcknowledgedAndHeldBackWhileNotNotifying) {
   TempDir dir;
   Writer w(config(dir.path(), 16, 256));
   w.attach();
   Jolt::WriterJoltSm wj(joltPath(dir), w.trevine());
   wj.doEnableListen();
   std::map<U64, TestValue> model;
   writeBatch(w, model, 1, 0, 10);

   ShadowOwner r(dir.path());
   ASSERT_TRUE(r.shadow.initialize("test"));
   ASSERT_TRUE(r.shadow.connected()) << "the contact comes from the owner file";
   EXPECT_TRUE(matches(r.shadow, model));
   wj.service();
   EXPECT_EQ(wj.readers(), 1u);
   EXPECT_TRUE(wj.clientQuiesced("joltTestShadow")) << "hello carries the sequence the reader synchronised to";

   // A batch of 50 writes and removes: one wake-up, and nothing reaches the
   // shadow until it acts on it.
   writeBatch(w, model, 2, 5, 50);
   for (U64 id = 0; id < 3; ++id) {
      TestValue old;
      ASSERT_TRUE(w.remove(TestKey::of(id), old));
      model.erase(id);
   }
   wj.service();
   EXPECT_EQ(wj.counters().wakeupsSent, 1u);
   EXPECT_FALSE(matches(r.shadow, model)) << "the shadow must not have looked yet";
   r.reported.clear();
   EXPECT_FALSE(r.shadow.jolt().service());
   EXPECT_TRUE(matches(r.shadow, model));
   EXPECT_EQ(r.reported.size(), 48u) << "45 written (5 of them overwrites), 3 removed";
   EXPECT_EQ(r.shadow.jolt().counters().wakeups, 1u);
   wj.service();
   EXPECT_TRUE(wj.clientQuiesced("joltTestShadow"));

   // While a wake-up is outstanding, more writes send nothing more...
   writeBatch(w, model, 3, 0, 10);
   wj.service();
   writeBatch(w, model, 4, 10, 20);
   wj.service();
   EXPECT_EQ(wj.counters().wakeupsSent, 2u);
   r.shadow.jolt().service();
   EXPECT_TRUE(matches(r.shadow, model));
   wj.service();
   EXPECT_EQ(wj.counters().wakeupsSent, 2u) << "the acknowledgement covered both batches";

   // ...and a write after the reader drained but before the writer read the
   // acknowledgement is announced once the acknowledgement arrives.
   writeBatch(w, model, 5, 0, 5);
   wj.service();
   EXPECT_EQ(wj.counters().wakeupsSent, 3u);
   r.shadow.jolt().service();
   writeBatch(w, model, 6, 30, 35);
   wj.service();
   EXPECT_EQ(wj.counters().wakeupsSent, 4u);
   EXPECT_FALSE(matches(r.shadow, model));
   r.shadow.jolt().service();
   EXPECT_TRUE(matches(r.shadow, model));

   // Not notifying: the writer stops sending, the shadow stops looking.
   U64 const acksBefore = r.shadow.jolt().sequencesSent();
   r.shadow.notifyingIs(false);
   wj.service();
   std::map<U64, TestValue> const before = model;
   writeBatch(w, model, 7, 40, 60);
   wj.service();
   EXPECT_EQ(wj.counters().wakeupsSent, 4u);
   EXPECT_FALSE(r.shadow.jolt().service());
   EXPECT_TRUE(matches(r.shadow, before));
   EXPECT_FALSE(wj.clientQuiesced("joltTestShadow"));
   // On again: what piled up is taken at once, without a wake-up.
   r.reported.clear();
   r.shadow.notifyingIs(true);
   r.shadow.jolt().service();
   EXPECT_TRUE(matches(r.shadow, model));
   EXPECT_EQ(r.reported.size(), 20u);
   EXPECT_EQ(r.shadow.jolt().sequencesSent(), acksBefore + 1);
   wj.service();
   EXPECT_TRUE(wj.clientQuiesced("joltTestShadow"));
   EXPECT_EQ(wj.counters().wakeupsSent, 4u);
}

TEST(Jolt, WriterGoingAwayDisconnectsTheShadowAndAStaleSocketIsReplaced) {
   TempDir dir;
   // A socket file left by a writer that died: nobody listens on it.
   {
      int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::string const path = joltPath(dir);
      std::memcpy(addr.sun_path, path.data(), path.size());
      ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
      ::close(fd);
   }
   Writer w(config(dir.path()));
   w.attach();
   std::map<U64, TestValue> model;
   writeBatch(w, model, 1, 0, 20);
   int disconnects = 0;
   ShadowOwner r(dir.path());
   {
      ASSERT_TRUE(r.shadow.initialize("test"));
      EXPECT_FALSE(r.shadow.connected()) << "nobody listens on the stale socket";
      Jolt::WriterJoltSm wj(joltPath(dir), w.trevine());
      wj.doEnableListen();
      ASSERT_TRUE(r.shadow.connectJolt());
      wj.service();
      EXPECT_EQ(wj.readers(), 1u);
      writeBatch(w, model, 2, 0, 5);
      wj.service();
      r.shadow.jolt().service();
      EXPECT_TRUE(matches(r.shadow, model));
      disconnects = static_cast<int>(r.shadow.jolt().counters().disconnects);
   }
   EXPECT_EQ(disconnects, 0);
   // The writer's side is gone, as when its process ends.
   EXPECT_FALSE(std::filesystem::exists(joltPath(dir))) << "the writer unlinks its own socket";
   r.shadow.jolt().service();
   EXPECT_FALSE(r.shadow.connected());
   EXPECT_FALSE(r.shadow.attached()) << "a closed connection is handleDisconnect";
   EXPECT_EQ(r.shadow.jolt().counters().disconnects, 1u);
   EXPECT_TRUE(matches(r.shadow, model)) << "the copy is kept while the writer is away";

   // Writes with nobody listening are harmless.
   Jolt::WriterJoltSm quiet(joltPath(dir), w.trevine());
   writeBatch(w, model, 3, 0, 5);
   quiet.service();
   EXPECT_EQ(quiet.counters().wakeupsSent, 0u);
}

// ---------------------------------------------------------------------------
// Across processes.

namespace {

struct Checkpoint {
   U32 batch = 0;   // 0: done
   U32 members = 0;
   U64 digest = 0;
};

struct ChildReply {
   U32 batch = 0;
   U32 fenix = 0;
   U64 wakeups = 0;
   U64 drains = 0;
   U64 disconnects = 0;
   U64 appeared = 0;
   U64 gone = 0;
   U32 ok = 0;
   // The sentry's reports in order, for the failure message: 'A' appeared
   // and 'G' gone, each with the generation it named.
   U32 reports = 0;
   struct Report {
      char event = 0;
      U32 fenix = 0;
   } report[8];

   std::string history() const {
      std::string text;
      for (U32 i = 0; i < reports && i < 8; ++i) text += fmt::format(" {}:{:#x}", report[i].event, report[i].fenix);
      return text;
   }
};

U64 digestOf(std::map<U64, TestValue> const& model) {
   U64 d = 0;
   for (auto const& [id, v] : model) d += (id + 1) * 1000003u + v.stamp * (id + 7);
   return d;
}

template <typename S>
U64 digestOf(S& s) {
   U64 d = 0;
   TestValue v;
   Zaffa::IterHint hint;
   for (bool more = s.first(v, hint); more; more = s.next(v.key, v, hint)) {
      if (!v.consistent()) return 0;
      d += (v.key.id + 1) * 1000003u + v.stamp * (v.key.id + 7);
   }
   return d;
}

bool writeAll(int fd, void const* p, std::size_t n) { return ::write(fd, p, n) == static_cast<ssize_t>(n); }

// The reader: a sentry and a shadow, and a loop that waits on their
// descriptors and on the parent's pipe, with no timeout but the test's
// overall deadline. It answers each checkpoint once its copy matches it.
[[noreturn]] void shadowChild(std::string const& root, int cmdFd, int replyFd) {
   ShadowOwner r(root, "childShadow");
   ChildReply reply;
   Mem::ReaderSentry sentry(Mem::RootPath(root), [&](Mem::ReaderSentry::Event e, SharedMem::FenixId fenix) {
      if (e != Mem::ReaderSentry::Event::contactAppeared && reply.reports < 8) {
         reply.report[reply.reports++] = {e == Mem::ReaderSentry::Event::writerAppeared ? 'A' : 'G', fenix.value};
      }
      switch (e) {
      case Mem::ReaderSentry::Event::writerAppeared:
         ++reply.appeared;
         r.shadow.initialize("sentry");
         break;
      case Mem::ReaderSentry::Event::writerGone:
         ++reply.gone;
         r.shadow.handleDisconnect();
         break;
      case Mem::ReaderSentry::Event::contactAppeared:
         r.shadow.connectJolt();
         break;
      }
   });
   sentry.start();
   reply.ok = r.shadow.members() == 0 && !r.shadow.attached();
   writeAll(replyFd, &reply, sizeof reply);   // ready
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
   Checkpoint want;
   bool haveWant = false;
   for (;;) {
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) ::_exit(3);
      pollfd fds[3] = {{sentry.fd(), POLLIN, 0}, {r.shadow.jolt().fd(), POLLIN, 0}, {cmdFd, POLLIN, 0}};
      if (::poll(fds, 3, static_cast<int>(left.count())) < 0 && errno != EINTR) ::_exit(4);
      sentry.service();
      r.shadow.jolt().service();
      if (fds[2].revents & POLLIN) {
         if (::read(cmdFd, &want, sizeof want) != static_cast<ssize_t>(sizeof want)) ::_exit(5);
         haveWant = true;
         if (want.batch == 0) break;
      }
      if (haveWant && r.shadow.attached() && r.shadow.members() == want.members && digestOf(r.shadow) == want.digest) {
         reply.batch = want.batch;
         reply.fenix = r.shadow.reader().fenixId().value;
         reply.wakeups = r.shadow.jolt().counters().wakeups;
         reply.drains = r.shadow.jolt().counters().drains;
         reply.disconnects = r.shadow.jolt().counters().disconnects;
         reply.ok = 1;
         if (!writeAll(replyFd, &reply, sizeof reply)) ::_exit(6);
         haveWant = false;
      }
   }
   ::_exit(0);
}

// Services the writer's wake-ups until the child answers (bounded).
bool awaitReply(Jolt::WriterJoltSm* wj, int replyFd, ChildReply& reply, double seconds) {
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
   for (;;) {
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd fds[2] = {{replyFd, POLLIN, 0}, {wj ? wj->fd() : -1, POLLIN, 0}};
      ::poll(fds, 2, static_cast<int>(left.count()));
      if (wj) wj->service();
      if (fds[0].revents & POLLIN) return ::read(replyFd, &reply, sizeof reply) == static_cast<ssize_t>(sizeof reply);
   }
}

} // namespace

TEST(Jolt, ShadowInAChildProcessFollowsItsWriterByWakeUpsAndSentryAlone) {
   TempDir dir;
   std::string const root = dir.path() + "/table";   // not there yet
   int cmd[2], rep[2];
   ASSERT_EQ(::pipe(cmd), 0);
   ASSERT_EQ(::pipe(rep), 0);
   pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      ::close(cmd[1]);
      ::close(rep[0]);
      shadowChild(root, cmd[0], rep[1]);
   }
   ::close(cmd[0]);
   ::close(rep[1]);
   struct Reap {
      pid_t pid;
      ~Reap() {
         if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
         }
      }
   } reap{child};

   ChildReply reply;
   ASSERT_TRUE(awaitReply(nullptr, rep[0], reply, 10)) << "child did not start";
   EXPECT_EQ(reply.ok, 1u) << "before its writer the reader sees an empty table";

   auto checkpoint = [&](Jolt::WriterJoltSm& wj, U32 batch, std::map<U64, TestValue> const& model) {
      wj.service();
      Checkpoint c{batch, static_cast<U32>(model.size()), digestOf(model)};
      ASSERT_TRUE(writeAll(cmd[1], &c, sizeof c));
      ASSERT_TRUE(awaitReply(&wj, rep[0], reply, 10)) << "child never matched batch " << batch;
      ASSERT_EQ(reply.batch, batch);
      ASSERT_EQ(reply.ok, 1u);
   };

   std::map<U64, TestValue> model;
   U32 const batches = 6;
   U32 firstFenix = 0;
   {
      Writer w(config(root, 16, 256));
      w.attach();
      Jolt::WriterJoltSm wj(root + "/" + Zaffa::FileNames::jolt, w.trevine());
      wj.doEnableListen();
      // The child attaches on the fenix file and connects on the socket.
      // A reader that connects drains once on its own and acknowledges; wait
      // for that, or a first batch written before it would be taken by that
      // drain without a wake-up.
      // The reader may drain more than once while it settles (its sentry and
      // its connection each make it due), so wait until no acknowledgement
      // has come for a while: a late one would otherwise acknowledge the
      // first batch before its wake-up.
      auto const until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      auto lastAck = std::chrono::steady_clock::now();
      U64 acks = 0;
      while (std::chrono::steady_clock::now() < until) {
         pollfd p{wj.fd(), POLLIN, 0};
         ::poll(&p, 1, 20);
         wj.service();
         if (wj.counters().acks != acks) {
            acks = wj.counters().acks;
            lastAck = std::chrono::steady_clock::now();
         }
         if (wj.readers() == 1 && acks > 0 && std::chrono::steady_clock::now() - lastAck > std::chrono::milliseconds(300)) break;
      }
      ASSERT_EQ(wj.readers(), 1u);
      ASSERT_GE(wj.counters().acks, 1u);
      for (U32 b = 1; b <= batches; ++b) {
         writeBatch(w, model, b, b * 7, b * 7 + 40);
         for (U64 id = (b - 1) * 7; id < b * 7; ++id) {
            TestValue old;
            if (w.remove(TestKey::of(id), old)) model.erase(id);
         }
         checkpoint(wj, b, model);
      }
      EXPECT_EQ(reply.fenix, w.fenixId().value);
      firstFenix = w.fenixId().value;
      EXPECT_EQ(wj.counters().wakeupsSent, batches) << "one wake-up per batch of ~47 changes";
      EXPECT_EQ(reply.wakeups, batches);
      EXPECT_EQ(reply.appeared, 1u) << "sentry reports:" << reply.history();
      // The writer goes with its files.
      w.cleanup();
   }

   // A new writer formats a new generation with other contents.
   Writer w2(config(root, 16, 256));
   w2.attach();
   Jolt::WriterJoltSm wj2(root + "/" + Zaffa::FileNames::jolt, w2.trevine());
   wj2.doEnableListen();
   std::map<U64, TestValue> model2;
   writeBatch(w2, model2, 100, 0, 30);
   checkpoint(wj2, batches + 1, model2);
   EXPECT_EQ(reply.fenix, w2.fenixId().value);
   // Whether the closed connection or the removed files told the child
   // first depends on when it ran; the new generation is reported either way.
   EXPECT_EQ(reply.appeared, 2u) << "sentry reports:" << reply.history() << " writers: "
                                 << SharedMem::FenixId{firstFenix}.toString() << " then " << w2.fenixId().toString();
   EXPECT_LE(reply.gone, 1u) << "sentry reports:" << reply.history();

   Checkpoint done;
   ASSERT_TRUE(writeAll(cmd[1], &done, sizeof done));
   int status = 0;
   ::waitpid(child, &status, 0);
   reap.pid = 0;
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
   ::close(cmd[1]);
   ::close(rep[0]);
}
