#include "Zaffa/platform/SharedMemFenixFile.h"

#include "Zaffa/platform/Jorro.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace SharedMem {

namespace {

constexpr char fenixMagic[8] = {'Z', 'F', 'E', 'N', 'I', 'X', '0', '1'};

struct FenixRecord {
   char magic[8];
   U32 id;
   U32 check;
};

U32 recordCheck(FenixRecord const& r) {
   return Jorro::Impl::HashMix::mix(Jorro::Impl::HashMix::basis, &r, offsetof(FenixRecord, check));
}

} // namespace

std::string FenixId::toString() const { return fmt::format("{:#x}", value); }

FenixId newFenixId() {
   static std::atomic<U32> counter{0};
   U32 generation = counter.fetch_add(1) + 1;
   return FenixId::of(static_cast<U32>(::getpid()), generation);
}

std::optional<FenixId> FenixFile::read() const {
   int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) return std::nullopt;
   FenixRecord r;
   ssize_t n = ::pread(fd, &r, sizeof r, 0);
   ::close(fd);
   if (n != static_cast<ssize_t>(sizeof r)) return std::nullopt;
   if (std::memcmp(r.magic, fenixMagic, sizeof fenixMagic) != 0) return std::nullopt;
   if (recordCheck(r) != r.check || r.id == 0) return std::nullopt;
   return FenixId{r.id};
}

bool FenixFile::write(FenixId id) const {
   FenixRecord r;
   std::memcpy(r.magic, fenixMagic, sizeof fenixMagic);
   r.id = id.value;
   r.check = recordCheck(r);
   std::string tmp = path_ + ".tmp";
   int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   if (fd < 0) return false;
   bool ok = ::write(fd, &r, sizeof r) == static_cast<ssize_t>(sizeof r);
   ok = (::close(fd) == 0) && ok;
   return ok && std::rename(tmp.c_str(), path_.c_str()) == 0;
}

bool FenixFile::validate(FenixId id) const {
   auto stored = read();
   return stored && *stored == id;
}

std::time_t FenixFile::mtime() const {
   struct stat st;
   return ::stat(path_.c_str(), &st) == 0 ? st.st_mtime : 0;
}

} // namespace SharedMem
