// The mapping wrappers' growth contract, on which the slot table relies when
// it leaves just-extended memory as it is: what a growth adds reads as
// zeros from zeroFrom() on, and a growth that the file system cannot back
// fails cleanly instead of leaving pages that raise SIGBUS when touched.
// And the writer lock's answer to who holds it now, which tools rely on.

#include "Zaffa/platform/Mem.h"
#include "Zaffa/platform/MemWriterLock.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <csignal>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::size_t pageSize() { return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)); }

// Fills [0, size) with a pattern, shrinks to 1.5 pages, grows to 4 pages,
// and checks that every byte from zeroFrom() on is zero, and that the bytes
// below the shrunk size kept the pattern.
void checkGrowthAfterShrink(Mem::MappedFile& f, std::size_t maxZeroFrom) {
   std::string error;
   std::size_t const p = pageSize();
   ASSERT_TRUE(f.resize(3 * p, error)) << error;
   std::memset(f.base(), 0xAB, 3 * p);
   ASSERT_TRUE(f.resize(p + p / 2, error)) << error;
   ASSERT_TRUE(f.resize(4 * p, error)) << error;
   ASSERT_EQ(f.size(), 4 * p);
   std::size_t z = f.zeroFrom();
   EXPECT_GE(z, p + p / 2) << "the bytes below the shrunk size were never given up";
   EXPECT_LE(z, maxZeroFrom) << "zeroFrom() promises less than it could";
   for (std::size_t i = z; i < 4 * p; ++i) ASSERT_EQ(f.base()[i], 0) << "byte " << i << " of zeroFrom " << z;
   for (std::size_t i = 0; i < p + p / 2; ++i) ASSERT_EQ(static_cast<unsigned char>(f.base()[i]), 0xAB) << i;
}

} // namespace

TEST(MemMappedFile, GrowthReadsAsZerosFromZeroFrom) {
   ZaffaTest::TempDir dir;
   std::size_t const p = pageSize();
   {
      Mem::MappedFile f;
      std::string error;
      ASSERT_TRUE(f.open(dir.file("grow"), Mem::MappedFile::Mode::readWrite, error)) << error;
      // A file cut back to 1.5 pages and extended again reads zeros from
      // there: the truncation dropped the rest.
      checkGrowthAfterShrink(f, p + p / 2);
   }
   {
      Mem::MappedFile f;
      std::string error;
      ASSERT_TRUE(f.open("", Mem::MappedFile::Mode::anonymous, error)) << error;
      // Anonymous memory gives back whole pages only: half of the second page
      // keeps the pattern, so nothing below the old largest size is promised.
      checkGrowthAfterShrink(f, 3 * p);
   }
   {
      // Reopening knows nothing of the content.
      Mem::MappedFile f;
      std::string error;
      ASSERT_TRUE(f.open(dir.file("grow"), Mem::MappedFile::Mode::readWrite, error)) << error;
      EXPECT_EQ(f.zeroFrom(), f.size());
   }
}

TEST(MemMappedFile, GrowthBeyondAFullFileSystemFailsAndKeepsTheSize) {
   ZaffaTest::TempDir dir;
   std::string mnt = dir.file("small");
   ASSERT_EQ(::mkdir(mnt.c_str(), 0755), 0);
   if (::mount("ulonat-test", mnt.c_str(), "tmpfs", 0, "size=1m") != 0) {
      GTEST_SKIP() << "cannot mount a small tmpfs here: " << std::strerror(errno);
   }
   {
      Mem::MappedFile f;
      std::string error;
      ASSERT_TRUE(f.open(mnt + "/table", Mem::MappedFile::Mode::readWrite, error)) << error;
      ASSERT_TRUE(f.resize(256 * 1024, error)) << error;
      std::memset(f.base(), 0x11, 256 * 1024);
      EXPECT_FALSE(f.resize(8 * 1024 * 1024, error));
      EXPECT_NE(error.find("No space left on device"), std::string::npos) << error;
      EXPECT_EQ(f.size(), 256u * 1024);
      EXPECT_EQ(f.refreshSize(), 256u * 1024) << "the file was cut back";
      EXPECT_EQ(f.base()[256 * 1024 - 1], 0x11);
      // What fits still grows.
      EXPECT_TRUE(f.resize(512 * 1024, error)) << error;
      std::memset(f.base(), 0x22, 512 * 1024);
   }
   ::umount2(mnt.c_str(), MNT_DETACH);
}

TEST(MemWriterLock, HolderIsTheProcessThatHoldsTheLockNotTheLastOneRecorded) {
   ZaffaTest::TempDir dir;
   std::string const path = dir.file("writer");
   Mem::WriterLock probe(path);
   EXPECT_EQ(probe.holderPid(), 0u) << "no lock file yet";
   {
      Mem::WriterLock mine(path);
      mine.acquireWriterLock();
      EXPECT_EQ(probe.holderPid(), static_cast<Vor::U32>(::getpid()));
   }
   EXPECT_EQ(probe.holderPid(), 0u) << "released";
   EXPECT_EQ(probe.ownerPid(), static_cast<Vor::U32>(::getpid())) << "the record stays";

   int ready[2];
   ASSERT_EQ(::pipe(ready), 0);
   pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      Mem::WriterLock lock(path);
      lock.acquireWriterLock();
      char c = 1;
      (void)!::write(ready[1], &c, 1);
      ::pause();
      ::_exit(0);
   }
   char c;
   ASSERT_EQ(::read(ready[0], &c, 1), 1);
   EXPECT_EQ(probe.holderPid(), static_cast<Vor::U32>(child));
   ::kill(child, SIGKILL);
   ::waitpid(child, nullptr, 0);
   EXPECT_EQ(probe.holderPid(), 0u) << "the kernel dropped a dead holder's lock";
   EXPECT_EQ(probe.ownerPid(), static_cast<Vor::U32>(child));
   ::close(ready[0]);
   ::close(ready[1]);
}
