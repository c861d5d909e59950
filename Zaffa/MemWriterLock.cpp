#include "Zaffa/MemWriterLock.h"

#include "Zaffa/Jorro.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace Mem {

void WriterLock::acquireWriterLock() {
   if (fd_ >= 0) return;
   int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
   if (fd < 0) {
      Jorro::throwInvalidInitialize("cannot open writer lock {}: {}", path_, std::strerror(errno));
   }
   if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      int err = errno;
      ::close(fd);
      if (err == EWOULDBLOCK) {
         Jorro::throwInvalidInitialize("table {} already has a live writer, pid {}", path_,
                                       ownerPid());
      }
      Jorro::throwInvalidInitialize("cannot lock {}: {}", path_, std::strerror(err));
   }
   Vor::U32 pid = static_cast<Vor::U32>(::getpid());
   if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, &pid, sizeof pid, 0) != sizeof pid) {
      int err = errno;
      ::close(fd);
      Jorro::throwInvalidInitialize("cannot record writer in {}: {}", path_, std::strerror(err));
   }
   fd_ = fd;
}

void WriterLock::release() {
   if (fd_ >= 0) ::close(fd_);   // closing drops the flock
   fd_ = -1;
}

Vor::U32 WriterLock::ownerPid() const {
   int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) return 0;
   Vor::U32 pid = 0;
   if (::pread(fd, &pid, sizeof pid, 0) != sizeof pid) pid = 0;
   ::close(fd);
   return pid;
}

bool WriterLock::ownerIsAlive() const {
   Vor::U32 pid = ownerPid();
   if (pid == 0) return false;
   return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

bool WriterLock::ownerIsMe() const {
   return fd_ >= 0 && ownerPid() == static_cast<Vor::U32>(::getpid());
}

} // namespace Mem
