#include "Zaffa/platform/SharedMemOwnerFile.h"

#include "Zaffa/platform/Jorro.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace SharedMem {

namespace {

constexpr char ownerMagic[8] = {'Z', 'O', 'W', 'N', 'E', 'R', '0', '1'};
constexpr U32 ownerVersion = 1;

struct OwnerRecord {
   char magic[8];
   U32 version;
   U32 pid;
   U32 tableId;
   char socketName[108];
   U32 check;
};
static_assert(sizeof(OwnerRecord) == 132);

U32 recordCheck(OwnerRecord const& r) {
   return Jorro::Impl::HashMix::mix(Jorro::Impl::HashMix::basis, &r, offsetof(OwnerRecord, check));
}

bool readRecord(int fd, OwnerRecord& r, std::string& message) {
   if (fd < 0) {
      message = "owner file not open";
      return false;
   }
   ssize_t n = ::pread(fd, &r, sizeof r, 0);
   if (n != static_cast<ssize_t>(sizeof r)) {
      message = fmt::format("owner file short read: {} bytes", n);
      return false;
   }
   return true;
}

bool writeRecord(int fd, OwnerRecord& r) {
   r.check = recordCheck(r);
   return ::pwrite(fd, &r, sizeof r, 0) == static_cast<ssize_t>(sizeof r);
}

} // namespace

std::string ShocketInfo::toString() const {
   return fmt::format("socket:{} tableId:{}", socketName, tableId);
}

OwnerFile::~OwnerFile() {
   if (fd_ >= 0) ::close(fd_);
}

bool OwnerFile::open(std::string& error) {
   if (fd_ >= 0) return true;
   fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
   if (fd_ < 0) {
      error = fmt::format("cannot open owner file {}: {}", path_, std::strerror(errno));
      return false;
   }
   if (::lseek(fd_, 0, SEEK_END) == 0) {
      OwnerRecord r{};
      std::memcpy(r.magic, ownerMagic, sizeof ownerMagic);
      r.version = ownerVersion;
      r.pid = static_cast<U32>(::getpid());
      if (!writeRecord(fd_, r)) {
         error = fmt::format("cannot write owner file {}: {}", path_, std::strerror(errno));
         return false;
      }
   }
   return true;
}

bool OwnerFile::openReadOnly(std::string& error) {
   if (fd_ >= 0) return true;
   fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd_ < 0) {
      error = fmt::format("cannot open owner file {}: {}", path_, std::strerror(errno));
      return false;
   }
   return true;
}

void OwnerFile::lock() {
   while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
   }
   locked_ = true;
}

void OwnerFile::unlock() {
   if (locked_) ::flock(fd_, LOCK_UN);
   locked_ = false;
}

bool OwnerFile::validate() const {
   std::string message;
   return validate(message);
}

bool OwnerFile::validate(std::string& message) const {
   OwnerRecord r;
   if (!readRecord(fd_, r, message)) return false;
   if (std::memcmp(r.magic, ownerMagic, sizeof ownerMagic) != 0) {
      message = "owner file: bad magic";
      return false;
   }
   if (r.version != ownerVersion) {
      message = fmt::format("owner file: bad version: {}", r.version);
      return false;
   }
   if (recordCheck(r) != r.check) {
      message = fmt::format("owner file: checksum fail: {:x} != {:x}", recordCheck(r), r.check);
      return false;
   }
   if (::strnlen(r.socketName, sizeof r.socketName) == sizeof r.socketName) {
      message = "owner file: socket name not terminated";
      return false;
   }
   return true;
}

void OwnerFile::validateFile() const {
   std::string message;
   if (!validate(message)) throw Jorro::CorruptionDetectedException(message);
}

std::string OwnerFile::headerToString() const {
   OwnerRecord r;
   std::string message;
   if (!readRecord(fd_, r, message)) return message;
   r.socketName[sizeof r.socketName - 1] = 0;
   return fmt::format("magic:\"{}\" version:{} pid:{} tableId:{} socket:\"{}\" check:{:#x}",
                      std::string(r.magic, ::strnlen(r.magic, sizeof r.magic)), r.version, r.pid,
                      r.tableId, r.socketName, r.check);
}

ShocketInfo OwnerFile::shocketInfo() const {
   OwnerRecord r;
   std::string message;
   if (!validate(message) || !readRecord(fd_, r, message)) return {};
   return ShocketInfo{std::string(r.socketName), r.tableId};
}

bool OwnerFile::shocketInfoIs(ShocketInfo const& info) {
   if (fd_ < 0 || info.socketName.size() >= sizeof(OwnerRecord::socketName)) return false;
   OwnerRecord r{};
   std::memcpy(r.magic, ownerMagic, sizeof ownerMagic);
   r.version = ownerVersion;
   r.pid = static_cast<U32>(::getpid());
   r.tableId = info.tableId;
   std::memcpy(r.socketName, info.socketName.data(), info.socketName.size());
   return writeRecord(fd_, r);
}

U32 OwnerFile::ownerPid() const {
   OwnerRecord r;
   std::string message;
   return readRecord(fd_, r, message) ? r.pid : 0;
}

} // namespace SharedMem
