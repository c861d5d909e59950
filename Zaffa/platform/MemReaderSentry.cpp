#include "Zaffa/platform/MemReaderSentry.h"

#include "Zaffa/platform/Jorro.h"
#include "Zaffa/ZaffaUtil.h"
#include "framework/VorTrace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

VOR_TRACE_HANDLE("ZaffaReaderSentry");

namespace Mem {

namespace {

constexpr std::uint32_t rootMask = IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM |
                                   IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t ancestorMask = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

bool exists(std::string const& path) {
   struct stat st;
   return ::lstat(path.c_str(), &st) == 0;
}

// Every write of the fenix file renames a newly created file into place, and
// the new file exists before the old one goes, so each write has an inode
// number other than the one it replaces. The change time is no mark: a stat
// that races with the next write (or an unlink) can see the replaced inode
// with the change time that its removal gave it, and would look like a write
// of its own.
ReaderSentry::FenixWrite fenixWriteOf(std::string const& path) {
   struct stat st;
   if (::stat(path.c_str(), &st) != 0) return {};
   return ReaderSentry::FenixWrite{static_cast<U64>(st.st_dev), static_cast<U64>(st.st_ino)};
}

} // namespace

ReaderSentry::ReaderSentry(RootPath root, Callback callback) : root_(std::move(root)), callback_(std::move(callback)) {
   std::error_code ec;
   auto abs = std::filesystem::absolute(root_.dir(), ec);
   dir_ = ec ? root_.dir() : abs.lexically_normal().string();
   while (dir_.size() > 1 && dir_.back() == '/') dir_.pop_back();
}

ReaderSentry::~ReaderSentry() {
   if (task_) task_->unscheduleTask();
   if (fd_ >= 0) ::close(fd_);
}

char const* ReaderSentry::toString(Event e) {
   switch (e) {
   case Event::writerAppeared: return "writerAppeared";
   case Event::writerGone: return "writerGone";
   case Event::contactAppeared: return "contactAppeared";
   }
   return "unknown";
}

void ReaderSentry::start() {
   if (fd_ >= 0) return;
   try {
      fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
      if (fd_ < 0) Jorro::throwInvalidInitialize("cannot watch {}: {}", dir_, std::strerror(errno));
      arm();
   } catch (std::exception const& e) {
      if (fd_ >= 0) ::close(fd_);
      fd_ = -1;
      watch_ = -1;
      if (std::getenv("Q9_CHROOT")) {
         DUOLOG(3, "sentry on {} not set up in build chroot: {}", dir_, e.what());
         return;
      }
      throw;
   }
   SharedMem::FenixId fenix;
   FenixWrite write;
   if (filesPresent(fenix, write)) {
      present_ = true;
      fenix_ = fenix;
      fenixWrite_ = write;
      report(Event::writerAppeared);
   }
}

void ReaderSentry::arm() {
   if (watch_ >= 0) ::inotify_rm_watch(fd_, watch_);
   watch_ = -1;
   std::string dir = dir_;
   for (;;) {
      bool const isRoot = dir == dir_;
      int w = ::inotify_add_watch(fd_, dir.c_str(), isRoot ? rootMask : ancestorMask);
      if (w >= 0) {
         watch_ = w;
         watchingRoot_ = isRoot;
         watchedDir_ = dir;
         DUOLOG(7, "watching {} for {}", dir, dir_);
         return;
      }
      if ((errno != ENOENT && errno != ENOTDIR) || dir == "/" || dir.empty()) {
         Jorro::throwInvalidInitialize("cannot watch {}: {}", dir, std::strerror(errno));
      }
      auto const slash = dir.find_last_of('/');
      dir = slash == 0 ? std::string("/") : dir.substr(0, slash);
   }
}

void ReaderSentry::taskSchedulerIs(Vor::Ptr<Dov::TaskScheduler> const& scheduler, Dov::TaskPriority priority) {
   if (task_) task_->unscheduleTask();
   task_ = scheduler
              ? Vor::Ptr<Jolt::ServiceTask>(new Jolt::ServiceTask(scheduler, priority, "readerSentry", [this] { service(); }))
              : Vor::Ptr<Jolt::ServiceTask>();
}

void ReaderSentry::handleReadable() {
   if (task_) {
      task_->scheduleTask();
   } else {
      service();
   }
}

bool ReaderSentry::filesPresent(SharedMem::FenixId& fenix, FenixWrite& write) const {
   // Taken before the contents: if the file is replaced in between, we hold
   // the older write's identity, and the newer write's event reports again.
   write = fenixWriteOf(root_.file(Zaffa::FileNames::fenix));
   // No file when we looked: one that is there now was put there after our
   // watch was, and its event is on its way; reporting it now would report
   // the one write twice.
   if (write.inode == 0) return false;
   auto id = SharedMem::FenixFile(root_.file(Zaffa::FileNames::fenix)).read();
   if (!id || id->value == 0 || !exists(root_.file(Zaffa::FileNames::slots))) return false;
   fenix = *id;
   return true;
}

void ReaderSentry::report(Event e) {
   DUOLOG(5, "sentry {} {} fenixId:{}", dir_, toString(e), fenix_.toString());
   if (callback_) callback_(e, fenix_);
}

void ReaderSentry::service() {
   if (fd_ < 0) return;
   bool fenixWritten = false;
   bool contactCreated = false;
   bool rearm = false;
   alignas(inotify_event) char buffer[4096];
   for (;;) {
      ssize_t n = ::read(fd_, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      for (char* p = buffer; p < buffer + n;) {
         auto const* ev = reinterpret_cast<inotify_event const*>(p);
         p += sizeof(inotify_event) + ev->len;
         if (ev->wd != watch_) continue;   // a watch we have already left
         if (ev->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_Q_OVERFLOW)) {
            rearm = true;
            continue;
         }
         if (!watchingRoot_) {
            // Something was created on the way down to the root.
            rearm = true;
            continue;
         }
         std::string_view const name = ev->len ? std::string_view(ev->name) : std::string_view();
         if (name == Zaffa::FileNames::fenix && (ev->mask & (IN_MOVED_TO | IN_CLOSE_WRITE | IN_CREATE))) {
            fenixWritten = true;
         } else if (name == Zaffa::FileNames::jolt && (ev->mask & (IN_CREATE | IN_MOVED_TO))) {
            contactCreated = true;
         }
      }
   }
   if (rearm) {
      bool const wasRoot = watchingRoot_;
      arm();
      // Files may have been made before the new watch was in place.
      if (!wasRoot && watchingRoot_) fenixWritten = true;
      if (!wasRoot && watchingRoot_) contactCreated = true;
   }
   SharedMem::FenixId fenix;
   FenixWrite write;
   bool const present = filesPresent(fenix, write);
   // The files are looked at after the events were read, so a write whose
   // event was still on its way can already have been reported on the state
   // it left: its event then finds the same write, and is not reported
   // twice.
   if (present && (!present_ || (fenixWritten && !(write == fenixWrite_)) || !(fenix == fenix_))) {
      present_ = true;
      fenix_ = fenix;
      fenixWrite_ = write;
      report(Event::writerAppeared);
   } else if (!present && present_) {
      present_ = false;
      report(Event::writerGone);
   } else if (present && contactCreated && exists(root_.file(Zaffa::FileNames::jolt))) {
      report(Event::contactAppeared);
   }
}

} // namespace Mem
