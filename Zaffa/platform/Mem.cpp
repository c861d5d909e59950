#include "Zaffa/platform/Mem.h"

#include "Zaffa/platform/Jorro.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Mem {

bool RootPath::create(std::string& error) const {
   std::error_code ec;
   std::filesystem::create_directories(dir_, ec);
   if (ec) {
      error = ec.message();
      return false;
   }
   return true;
}

std::size_t Local::maxMappingSize() {
   // 16 GiB: some 22 million slots of the hardware shadow, and small enough
   // that a process can reserve it for every file of many tables.
   return std::size_t{1} << 34;
}

std::optional<std::size_t> fileSizeHelper(U64 n, U64 slotBytes, U64 headerBytes) {
   U64 product;
   if (__builtin_mul_overflow(n, slotBytes, &product)) return std::nullopt;
   U64 total;
   if (__builtin_add_overflow(product, headerBytes, &total)) return std::nullopt;
   if (total >= Local::maxMappingSize()) return std::nullopt;
   return static_cast<std::size_t>(total);
}

bool MappedFile::open(std::string const& path, Mode mode, std::string& error) {
   close();
   mode_ = mode;
   path_ = path;
   std::size_t const reservation = Local::maxMappingSize();
   if (mode == Mode::anonymous) {
      void* p = ::mmap(nullptr, reservation, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
      if (p == MAP_FAILED) {
         error = std::strerror(errno);
         return false;
      }
      base_ = static_cast<char*>(p);
      size_ = 0;
      zeroFrom_ = 0;
      highWater_ = 0;
      return true;
   }
   int flags = mode == Mode::readOnly ? O_RDONLY : (O_RDWR | O_CREAT);
   fd_ = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
   if (fd_ < 0) {
      error = std::strerror(errno);
      return false;
   }
   struct stat st;
   if (::fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
      error = errno ? std::strerror(errno) : "not a regular file";
      ::close(fd_);
      fd_ = -1;
      return false;
   }
   size_ = static_cast<std::size_t>(st.st_size);
   int prot = mode == Mode::readOnly ? PROT_READ : (PROT_READ | PROT_WRITE);
   void* p = ::mmap(nullptr, reservation, prot, MAP_SHARED | MAP_NORESERVE, fd_, 0);
   if (p == MAP_FAILED) {
      error = std::strerror(errno);
      ::close(fd_);
      fd_ = -1;
      return false;
   }
   base_ = static_cast<char*>(p);
   zeroFrom_ = size_;
   return true;
}

bool MappedFile::populate(std::size_t from, std::size_t to, bool& unsupported, std::string& error) {
   unsupported = false;
   std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
   from = from / page * page;
   if (to <= from) return true;
#ifdef MADV_POPULATE_WRITE
   if (::madvise(base_ + from, to - from, MADV_POPULATE_WRITE) == 0) return true;
   int err = errno;
   if (err == EINVAL || err == ENOSYS) {
      unsupported = true;
      return false;
   }
   // EFAULT: the file system could not back a page (full); ENOMEM: no memory.
   error = err == EFAULT ? std::strerror(ENOSPC) : std::strerror(err);
   return false;
#else
   unsupported = true;
   return false;
#endif
}

void MappedFile::close() {
   if (base_) ::munmap(base_, Local::maxMappingSize());
   if (fd_ >= 0) ::close(fd_);
   base_ = nullptr;
   fd_ = -1;
   size_ = 0;
   zeroFrom_ = 0;
   highWater_ = 0;
}

bool MappedFile::resize(std::size_t bytes, std::string& error, Provision provision) {
   if (bytes > Local::maxMappingSize()) {
      error = fmt::format("size {} beyond the largest mapping {}", bytes, Local::maxMappingSize());
      return false;
   }
   if (mode_ == Mode::readOnly) {
      error = "read-only mapping";
      return false;
   }
   if (mode_ == Mode::anonymous) {
      if (bytes < size_) {
         // Give the pages back; the reservation stays.
         std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
         std::size_t from = (bytes + page - 1) / page * page;
         if (from < size_) ::madvise(base_ + from, size_ - from, MADV_DONTNEED);
         zeroFrom_ = bytes;
      } else if (bytes > size_) {
         if (provision == Provision::all && !provide(size_, bytes, error)) return false;
         zeroFrom_ = std::max(size_, highWater_);
         highWater_ = std::max(highWater_, bytes);
      }
      size_ = bytes;
      return true;
   }
   if (::ftruncate(fd_, static_cast<off_t>(bytes)) != 0) {
      error = std::strerror(errno);
      return false;
   }
   if (bytes > size_) {
      // The bytes past the old end of the file read as zeros.
      std::size_t const old = size_;
      size_ = bytes;
      if (provision == Provision::all && !provide(old, bytes, error)) {
         (void)::ftruncate(fd_, static_cast<off_t>(old));
         size_ = old;
         return false;
      }
      zeroFrom_ = old;
   } else {
      size_ = bytes;
      zeroFrom_ = bytes;
   }
   return true;
}

bool MappedFile::provide(std::size_t from, std::size_t to, std::string& error) {
   to = std::min(to, size_);
   if (from >= to) return true;
   bool allocated = false;
   if (mode_ != Mode::anonymous) {
      // Allocating the file's pages in one call before mapping them is
      // cheaper than letting the populate below allocate them one fault at a
      // time (on tmpfs about 1.9 against 2.2 microseconds a page), and a full
      // file system answers ENOSPC here rather than at a store. A file system
      // without fallocate leaves it all to populate.
      if (::fallocate(fd_, 0, static_cast<off_t>(from), static_cast<off_t>(to - from)) == 0) {
         allocated = true;
      } else if (errno != EOPNOTSUPP && errno != EINVAL) {
         error = std::strerror(errno);
         return false;
      }
   }
   bool unsupported = false;
   if (populate(from, to, unsupported, error)) return true;
   if (!unsupported) return false;
   if (mode_ == Mode::anonymous || allocated) return true;   // pages come at first touch
   // Reserve the blocks at least; the pages then come one fault at a time.
   int rc = ::posix_fallocate(fd_, static_cast<off_t>(from), static_cast<off_t>(to - from));
   if (rc == 0 || rc == EOPNOTSUPP || rc == EINVAL) return true;
   error = std::strerror(rc);
   return false;
}

void MappedFile::discard(std::size_t offset, std::size_t length) {
   if (!base_ || mode_ == Mode::readOnly || offset >= size_) return;
   length = std::min(length, size_ - offset);
   std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
   if (mode_ == Mode::anonymous) {
      std::size_t from = (offset + page - 1) / page * page;
      std::size_t to = (offset + length) / page * page;
      if (to > from) ::madvise(base_ + from, to - from, MADV_DONTNEED);
      return;
   }
   // Not all file systems can punch holes; the memory then stays in use,
   // which costs space but nothing else.
   (void)::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                     static_cast<off_t>(length));
}

std::size_t MappedFile::refreshSize() {
   if (fd_ >= 0) {
      struct stat st;
      if (::fstat(fd_, &st) == 0) size_ = static_cast<std::size_t>(st.st_size);
   }
   return size_;
}

void Atomics::checkCpuSupport() {
   // The table needs lock-free, naturally aligned 8-byte loads and stores.
   if (!std::atomic_ref<U64>::is_always_lock_free || !std::atomic<U64>::is_always_lock_free ||
       sizeof(void*) != 8) {
      Jorro::throwInvalidInitialize("Hardware does not support Atomics");
   }
}

} // namespace Mem
