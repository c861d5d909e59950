// The reader's sentry: a reader started before its writer (even before the
// root directory exists) waits with an empty table and attaches when the
// files appear; files removed are reported once; a writer killed without
// removing its files is seen through its closed wake-up connection, and the
// next writer's new generation makes the shadow resynchronise; a sentry that
// cannot be set up raises, unless in a build chroot.

#include "Zaffa/platform/MemReaderSentry.h"
#include "Zaffa/ZaffaShadow.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <map>
#include <poll.h>
#include <set>
#include <sys/wait.h>
#include <vector>

using namespace ZaffaTest;
using Event = Mem::ReaderSentry::Event;

namespace {

using Shadow = Zaffa::ZaffaShadow<TestKey, TestValue>;

// A shadow driven by its sentry, as the table's map drives it.
struct SentryOwner {
   std::set<U64> reported;
   std::vector<Event> events;
   Shadow shadow;
   Mem::ReaderSentry sentry;
   explicit SentryOwner(std::string const& root)
       : shadow(Mem::RootPath(root),
                Mem::Notify<TestKey, TestValue>{[this](TestKey const& k) { reported.insert(k.id); }, {}, {}, {}}),
         sentry(Mem::RootPath(root), [this](Event e, SharedMem::FenixId) {
            events.push_back(e);
            if (e == Event::writerAppeared) shadow.initialize("sentry");
            if (e == Event::writerGone) shadow.handleDisconnect();
            if (e == Event::contactAppeared) shadow.connectJolt();
         }) {}
};

bool sameContents(Shadow& s, std::map<U64, TestValue> const& model) {
   if (s.members() != model.size()) return false;
   for (auto const& [id, want] : model) {
      TestValue v;
      if (!s.lookup(TestKey::of(id), v) || std::memcmp(&v, &want, sizeof v) != 0) return false;
   }
   return true;
}

class EnvGuard {
 public:
   explicit EnvGuard(char const* name) : name_(name) {
      char const* v = std::getenv(name);
      if (v) old_ = v;
      had_ = v != nullptr;
   }
   ~EnvGuard() {
      if (had_) {
         ::setenv(name_, old_.c_str(), 1);
      } else {
         ::unsetenv(name_);
      }
   }

 private:
   char const* name_;
   std::string old_;
   bool had_ = false;
};

} // namespace

TEST(MemReaderSentry, ReaderBeforeItsWriterWaitsEmptyThenAttachesAndSeesTheFilesGo) {
   TempDir dir;
   std::string const root = dir.path() + "/a/b/table";
   SentryOwner o(root);
   o.sentry.start();
   EXPECT_TRUE(o.sentry.watching());
   EXPECT_EQ(o.sentry.watchedDir(), dir.path()) << "the nearest existing ancestor";
   EXPECT_TRUE(o.events.empty());
   EXPECT_EQ(o.shadow.members(), 0u);
   TestValue v;
   EXPECT_FALSE(o.shadow.lookup(TestKey::of(1), v));

   // Directories on the way appear one by one; nothing is reported yet.
   std::filesystem::create_directories(dir.path() + "/a");
   o.sentry.service();
   EXPECT_EQ(o.sentry.watchedDir(), dir.path() + "/a");
   EXPECT_TRUE(o.events.empty());

   std::map<U64, TestValue> model;
   Writer w(config(root));
   w.attach();   // makes a/b/table and the files, the fenix file last
   for (U64 id = 0; id < 25; ++id) model[id] = *w.write(TestValue::of(id, 1), true);
   o.sentry.service();
   ASSERT_EQ(o.events, std::vector<Event>{Event::writerAppeared});
   EXPECT_EQ(o.sentry.watchedDir(), root);
   EXPECT_TRUE(o.shadow.attached());
   EXPECT_TRUE(sameContents(o.shadow, model));
   EXPECT_EQ(o.reported.size(), 25u);
   EXPECT_EQ(o.sentry.fenixId(), w.fenixId());

   // Writes alone are no sentry event.
   w.write(TestValue::of(99, 1), true);
   o.sentry.service();
   EXPECT_EQ(o.events.size(), 1u);

   // The contact appears after the files (a writer that listens late).
   Jolt::WriterJoltSm wj(root + "/" + Zaffa::FileNames::jolt, w.trevine());
   EXPECT_FALSE(o.shadow.connected());
   wj.doEnableListen();
   o.sentry.service();
   ASSERT_EQ(o.events.back(), Event::contactAppeared);
   EXPECT_TRUE(o.shadow.connected());

   w.cleanup();
   o.sentry.service();
   EXPECT_EQ(o.events.back(), Event::writerGone);
   EXPECT_EQ(o.events.size(), 3u);
   EXPECT_FALSE(o.shadow.attached());
   EXPECT_FALSE(o.sentry.writerPresent());

   // The root directory itself goes and comes back with a writer.
   std::filesystem::remove_all(dir.path() + "/a");
   o.sentry.service();
   EXPECT_EQ(o.events.size(), 3u);
   Writer w2(config(root));
   w2.attach();
   o.sentry.service();
   EXPECT_EQ(o.events.back(), Event::writerAppeared);
   EXPECT_TRUE(o.shadow.attached());
   EXPECT_EQ(o.shadow.members(), 0u);
}

namespace {

// A writer in a child process: attaches, writes 30 entries, listens for
// wake-ups, says so, and serves until it is killed.
[[noreturn]] void writerChild(std::string const& root, int readyFd) {
   Writer w(config(root));
   w.attach();
   for (U64 id = 0; id < 30; ++id) w.write(TestValue::of(id, 1), true);
   Jolt::WriterJoltSm wj(root + "/" + Zaffa::FileNames::jolt, w.trevine());
   wj.doEnableListen();
   U32 fenix = w.fenixId().value;
   if (::write(readyFd, &fenix, sizeof fenix) != sizeof fenix) ::_exit(2);
   for (int i = 0; i < 200; ++i) {
      pollfd p{wj.fd(), POLLIN, 0};
      ::poll(&p, 1, 50);
      wj.service();
   }
   ::_exit(0);
}

} // namespace

TEST(MemReaderSentry, KilledWriterIsNoticedAndTheNextGenerationResynchronises) {
   TempDir dir;
   SentryOwner o(dir.path());
   o.sentry.start();
   int ready[2];
   ASSERT_EQ(::pipe(ready), 0);
   pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      ::close(ready[0]);
      writerChild(dir.path(), ready[1]);
   }
   ::close(ready[1]);
   U32 oldFenix = 0;
   pollfd p{ready[0], POLLIN, 0};
   ASSERT_EQ(::poll(&p, 1, 10000), 1) << "writer did not start";
   ASSERT_EQ(::read(ready[0], &oldFenix, sizeof oldFenix), static_cast<ssize_t>(sizeof oldFenix));
   ::close(ready[0]);

   o.sentry.service();
   ASSERT_FALSE(o.events.empty());
   EXPECT_EQ(o.events.front(), Event::writerAppeared);
   ASSERT_TRUE(o.shadow.attached());
   EXPECT_EQ(o.shadow.members(), 30u);
   EXPECT_TRUE(o.shadow.connected()) << "the writer listened before it said it was ready";
   std::size_t const eventsBefore = o.events.size();

   ::kill(child, SIGKILL);
   ::waitpid(child, nullptr, 0);
   // Its files stay; the kernel closed its end of the connection.
   o.sentry.service();
   EXPECT_EQ(o.events.size(), eventsBefore) << "nothing changed in the directory";
   pollfd c{o.shadow.jolt().fd(), POLLIN, 0};
   ASSERT_EQ(::poll(&c, 1, 5000), 1);
   o.shadow.jolt().service();
   EXPECT_FALSE(o.shadow.connected());
   EXPECT_FALSE(o.shadow.attached());
   EXPECT_EQ(o.shadow.members(), 30u) << "the copy is kept while the writer is away";

   // The next writer finds the slot file damaged and formats a new
   // generation, with other contents.
   {
      std::fstream f(dir.file(Zaffa::FileNames::slots), std::ios::in | std::ios::out | std::ios::binary);
      f.write("XXXXXXXX", 8);
   }
   Writer w(config(dir.path()));
   w.attach();
   EXPECT_NE(w.fenixId().value, oldFenix);
   std::map<U64, TestValue> model;
   for (U64 id = 20; id < 50; ++id) model[id] = *w.write(TestValue::of(id, 2), true);
   o.reported.clear();
   o.sentry.service();
   EXPECT_EQ(o.events.back(), Event::writerAppeared);
   EXPECT_EQ(o.sentry.fenixId(), w.fenixId());
   ASSERT_TRUE(o.shadow.attached());
   EXPECT_EQ(o.shadow.reader().fenixId(), w.fenixId());
   EXPECT_TRUE(sameContents(o.shadow, model));
   std::set<U64> expected;
   for (U64 id = 0; id < 50; ++id) expected.insert(id);   // 0..19 gone, 20..29 changed, 30..49 new
   EXPECT_EQ(o.reported, expected);
}

TEST(MemReaderSentry, SetUpFailureRaisesUnlessInABuildChroot) {
   EnvGuard guard("Q9_CHROOT");
   std::string const tooLong = "/dev/shm/" + std::string(5000, 'x');
   int calls = 0;
   {
      ::unsetenv("Q9_CHROOT");
      Mem::ReaderSentry s{Mem::RootPath(tooLong), [&](Event, SharedMem::FenixId) { ++calls; }};
      EXPECT_THROW(s.start(), Jorro::InvalidInitializeException);
      EXPECT_FALSE(s.watching());
   }
   {
      ::setenv("Q9_CHROOT", "1", 1);
      TraceCapture trace;
      Mem::ReaderSentry s{Mem::RootPath(tooLong), [&](Event, SharedMem::FenixId) { ++calls; }};
      EXPECT_NO_THROW(s.start());
      EXPECT_FALSE(s.watching());
      EXPECT_EQ(s.fd(), -1);
      s.service();
      EXPECT_TRUE(trace.contains("not set up in build chroot"));
   }
   EXPECT_EQ(calls, 0);
}
