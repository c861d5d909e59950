#pragma once
// A reader's watch on the root directory of a table.
//
// Mem::ReaderSentry tells its owner (a reader or a shadow, through a
// callback) when a writer's files appear in the root directory, when they go,
// and when the writer's contact for wake-ups appears. It watches with
// inotify, so nothing polls; its descriptor goes into the agent's event loop,
// and service() is a non-blocking step.
//
// What counts as the writer being there: the fenix file holds a valid id and
// the slot file exists. A writer writes the fenix file last in its attach,
// after the files are validated, so a reader that attaches on that event
// finds complete files. Every attach writes it, so a writer that restarts on
// the same files, or one that re-formats them into a new generation, is
// reported again as writerAppeared (with the id), and the owner resynchronises
// (ZaffaShadow::initialize reports exactly the keys that differ).
//
// Events, at most one per service() call, decided on the state after all
// pending inotify events were read (so a burst of file operations is one
// report):
//   writerAppeared   the files are there and the fenix file was (re)written
//                    since the write last reported, or they were not there
//                    at the last report; each write is reported once;
//   writerGone       they were there and are not any more (removed, or the
//                    root directory went);
//   contactAppeared  the writer's socket was (re)created while its files
//                    stay: a reader that could not connect its wake-ups
//                    should try again.
// An owner whose attach on writerAppeared is refused because a writer is
// attaching (it holds the owner file's lock) need not retry on a timer: that
// writer writes the fenix file after it releases the lock, and the write is
// reported as writerAppeared.
// A writer that dies without removing its files is not seen here: its
// readers learn of it from the closed wake-up connection
// (Jolt::ReaderJoltSm).
//
// The root directory need not exist: the sentry then watches its nearest
// existing ancestor and moves down as the directories are created.
//
// Q9_CHROOT: in a build chroot inotify or the directories may be missing.
// When the variable is set, a failure in start() is traced and swallowed
// (the sentry then watches nothing); otherwise it is raised.
//
// Thread safety: one thread (the owner's activity thread).
//
// Invariants:
//   1. While watching(), exactly one inotify watch is held: on the root
//      directory if it exists, otherwise on its nearest existing ancestor.
//   2. writerPresent() is the state of the last report (or of start()).

#include "framework/DovTask.h"
#include "Zaffa/platform/Jolt.h"
#include "Zaffa/platform/Mem.h"
#include "Zaffa/platform/SharedMemFenixFile.h"

#include <functional>
#include <string>

namespace Mem {

class ReaderSentry {
 public:
   enum class Event { writerAppeared, writerGone, contactAppeared };
   using Callback = std::function<void(Event, SharedMem::FenixId)>;

   ReaderSentry(RootPath root, Callback callback);
   ~ReaderSentry();
   ReaderSentry(ReaderSentry const&) = delete;
   ReaderSentry& operator=(ReaderSentry const&) = delete;

   // Sets up the watch, then reports writerAppeared at once if the writer's
   // files are already there. Raises Jorro::InvalidInitializeException when
   // the watch cannot be set up ("cannot watch {}: {}"), unless Q9_CHROOT is
   // set (see above). A second start() does nothing.
   void start();
   bool watching() const { return watch_ >= 0; }

   // Readable when something happened in the watched directory; -1 before
   // start().
   int fd() const { return fd_; }
   void taskSchedulerIs(Vor::Ptr<Dov::TaskScheduler> const& scheduler, Dov::TaskPriority priority = 2);
   void handleReadable();
   // Reads the pending events and reports at most one (see above). Never
   // blocks.
   void service();

   bool writerPresent() const { return present_; }
   SharedMem::FenixId fenixId() const { return fenix_; }
   RootPath const& root() const { return root_; }
   std::string const& watchedDir() const { return watchedDir_; }

   static char const* toString(Event e);

   // Tells one write of the fenix file from another (see the .cpp).
   struct FenixWrite {
      U64 device = 0;
      U64 inode = 0;
      bool operator==(FenixWrite const&) const = default;
   };

 private:
   // Watches the root, or its nearest existing ancestor. Raises on failure.
   void arm();
   // The writer's files are there; their fenix id, and which write of the
   // fenix file it came from.
   bool filesPresent(SharedMem::FenixId& fenix, FenixWrite& write) const;
   void report(Event e);

   RootPath root_;
   std::string dir_;   // absolute
   Callback callback_;
   int fd_ = -1;
   int watch_ = -1;
   bool watchingRoot_ = false;
   std::string watchedDir_;
   bool present_ = false;
   SharedMem::FenixId fenix_;
   FenixWrite fenixWrite_;   // the write of the fenix file last reported
   Vor::Ptr<Jolt::ServiceTask> task_;
};

} // namespace Mem
