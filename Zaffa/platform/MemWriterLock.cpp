#include "Zaffa/platform/MemWriterLock.h"

#include "Zaffa/platform/Jorro.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
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

Vor::U32 WriterLock::holderPid() const {
   struct stat st;
   if (::stat(path_.c_str(), &st) != 0) return 0;
   // Lines read "1: FLOCK  ADVISORY  WRITE 4711 fe:00:11174115 0 EOF": the
   // holder's pid, then the device (major and minor in hex) and inode of the
   // locked file. A waiting request adds "->" after the number and is not a
   // holder.
   std::ifstream locks("/proc/locks");
   std::string line;
   while (std::getline(locks, line)) {
      std::istringstream in(line);
      std::string number, kind, mode, access, pid, file;
      if (!(in >> number >> kind) || kind != "FLOCK") continue;
      if (!(in >> mode >> access >> pid >> file) || access != "WRITE") continue;
      unsigned major = 0, minor = 0;
      unsigned long inode = 0;
      if (std::sscanf(file.c_str(), "%x:%x:%lu", &major, &minor, &inode) != 3) continue;
      if (major == ::major(st.st_dev) && minor == ::minor(st.st_dev) && inode == st.st_ino) {
         return static_cast<Vor::U32>(std::strtoul(pid.c_str(), nullptr, 10));
      }
   }
   return 0;
}

} // namespace Mem
