// The slot file's format: header fields at their offsets, what the checksum
// covers, and which files of an earlier life are re-formatted at attach.

#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>

using namespace ZaffaTest;
using Zaffa::SlotTableHeader;

namespace {

std::vector<char> readFile(std::string const& path) {
   std::ifstream in(path, std::ios::binary);
   return std::vector<char>(std::istreambuf_iterator<char>(in), {});
}

template <typename T>
T at(std::vector<char> const& bytes, std::size_t offset) {
   T v;
   std::memcpy(&v, bytes.data() + offset, sizeof v);
   return v;
}

// Maps the slot file of a detached table for surgery.
struct SlotFile {
   Mem::MappedFile file;
   explicit SlotFile(std::string const& path) {
      std::string error;
      EXPECT_TRUE(file.open(path, Mem::MappedFile::Mode::readWrite, error)) << error;
   }
   SlotTableHeader* header() { return reinterpret_cast<SlotTableHeader*>(file.base()); }
};

} // namespace

TEST(SlotTable, NewTableHeaderHasTheFileFormat) {
   TempDir dir;
   U32 fenix;
   {
      Writer w(config(dir.path(), 16, 64));
      w.attach();
      fenix = w.fenixId().value;
   }
   auto bytes = readFile(dir.file(Zaffa::FileNames::slots));
   ASSERT_EQ(bytes.size(), 944u + 16u * 752u);
   EXPECT_EQ(std::string(bytes.data(), 8), "ZAFFASLT");
   EXPECT_EQ(at<U64>(bytes, 0), 0x544c53414646415aull);
   EXPECT_EQ(at<U32>(bytes, 8), 18u);
   EXPECT_EQ(at<U32>(bytes, 12), fenix);
   EXPECT_EQ(at<U32>(bytes, 16), 2u);
   EXPECT_STREQ(bytes.data() + 20, "ZaffaTest::TestValue");
   EXPECT_STREQ(bytes.data() + 84, "ZaffaTest");
   EXPECT_EQ(at<U32>(bytes, 148), 736u);
   EXPECT_EQ(at<U32>(bytes, 152), 752u);
   EXPECT_EQ(at<U32>(bytes, 156), 64u);
   EXPECT_EQ(at<Vor::U16>(bytes, 160), 2u);
   EXPECT_EQ(at<Vor::U16>(bytes, 162), 0u);
   auto const* h = reinterpret_cast<SlotTableHeader const*>(bytes.data());
   EXPECT_EQ(at<U32>(bytes, 164), h->doHash());
   EXPECT_EQ(at<U32>(bytes, 168), 0u);                // occupiedSlots
   EXPECT_EQ(at<U32>(bytes, 172), 0u);                // freeSlots: slot 0 first
   EXPECT_EQ(at<U32>(bytes, 176), 16u);               // mostSlots
   EXPECT_EQ(at<U32>(bytes, 184), 0u);                // numSlots version
   EXPECT_EQ(at<U32>(bytes, 188), 16u);               // numSlots
   // Lookaside slot: link (0, end), sequence 0, rhash 0.
   EXPECT_EQ(at<U32>(bytes, 192), 0u);
   EXPECT_EQ(at<U32>(bytes, 196), 0xFFFFFFFFu);
   EXPECT_EQ(at<U32>(bytes, 200), 0u);
   // The free list runs 0, 1, ..., 15, end; each link raised once.
   for (U32 i = 0; i < 16; ++i) {
      std::size_t slot = 944 + i * 752;
      EXPECT_EQ(at<U32>(bytes, slot), 4u) << i;
      EXPECT_EQ(at<U32>(bytes, slot + 4), i == 15 ? 0xFFFFFFFFu : i + 1) << i;
   }
   EXPECT_NE(h->toString().find("magic:0x544c53414646415a version:18"), std::string::npos);
   EXPECT_NE(h->toString().find("valueSize:736 slotSize:752 maxSlots:64 constFlags:0x2"),
             std::string::npos);
}

TEST(SlotTable, ChecksumCoversOnlyTheConstantFields) {
   SlotTableHeader base{};
   std::strcpy(base.valueType, "A");
   std::strcpy(base.classType, "B");
   base.valueSize = 736;
   base.slotSize = 752;
   base.maxSlots = 100;
   base.constFlags = 2;
   base.hashSeed = 7;
   U32 const h = base.doHash();

   std::vector<std::function<void(SlotTableHeader&)>> counters = {
      [](SlotTableHeader& x) { x.occupiedSlots = 99; },
      [](SlotTableHeader& x) { x.freeSlots = 3; },
      [](SlotTableHeader& x) { x.mostSlots = 1000; },
      [](SlotTableHeader& x) { x.runtimeFlags = 1; },
      [](SlotTableHeader& x) { x.numSlots = Mem::VerU32{5, 500}; },
      [](SlotTableHeader& x) { x.fenix = 0x10001; },
   };
   for (auto& change : counters) {
      SlotTableHeader x = base;
      change(x);
      EXPECT_EQ(x.doHash(), h);
   }
   std::vector<std::function<void(SlotTableHeader&)>> constants = {
      [](SlotTableHeader& x) { x.valueType[1] = 'x'; },
      [](SlotTableHeader& x) { x.classType[63] = 'x'; },
      [](SlotTableHeader& x) { x.valueSize = 735; },
      [](SlotTableHeader& x) { x.slotSize = 760; },
      [](SlotTableHeader& x) { x.maxSlots = 101; },
      [](SlotTableHeader& x) { x.constFlags = 3; },
      [](SlotTableHeader& x) { x.hashSeed = 8; },
   };
   for (auto& change : constants) {
      SlotTableHeader x = base;
      change(x);
      EXPECT_NE(x.doHash(), h);
   }
}

TEST(SlotTable, HeaderValidationChecksInOrder) {
   TempDir dir;
   Writer w(config(dir.path(), 16, 64));
   w.attach();
   for (U64 i = 0; i < 5; ++i) w.write(TestValue::of(i, 1), true);
   SlotTableHeader h = *w.slotTable().header();
   std::size_t size = w.slotTable().fileSize();
   std::string message;
   EXPECT_TRUE(h.validate(false, size, h.fenix, message)) << message;
   EXPECT_TRUE(h.validate(false, size, 0, message)) << "a wanted fenix of 0 matches any";
   EXPECT_FALSE(h.validate(false, size, h.fenix + 1, message));
   EXPECT_EQ(message, fmt::format("bad fenix:{} wanted:{}", h.fenix, h.fenix + 1));

   SlotTableHeader x = h;
   x.occupiedSlots = 17;
   EXPECT_FALSE(x.validate(false, size, 0, message));
   EXPECT_EQ(message, "bad occupiedSlots: 17 num slots: 16");
   x = h;
   x.freeSlots = 16;
   EXPECT_FALSE(x.validate(false, size, 0, message));
   EXPECT_EQ(message, "bad freeSlots: 16 slots: 16");
   x = h;
   x.mostSlots = 15;
   EXPECT_FALSE(x.validate(false, size, 0, message));
   EXPECT_EQ(message, "bad mostSlots:15 numSlots:16");
   EXPECT_FALSE(h.validate(false, 900, 0, message));
   EXPECT_EQ(message, "bad header file size: 900 wanted:944");
   EXPECT_FALSE(h.validate(false, size - 1, 0, message));
   EXPECT_EQ(message, fmt::format("bad shmem size:{} wanted:{} for 16 slots", size - 1, size));
   x = h;
   x.platform = 1;
   EXPECT_FALSE(x.validate(false, size, 0, message));
   EXPECT_EQ(message, "bad platform specification: lp32-le expecting: lp64-le");
   x.version = 17;   // checked before the platform
   EXPECT_FALSE(x.validate(false, size, 0, message));
   EXPECT_EQ(message, "bad version: 17");
}

// A file of another life is re-formatted, with the entries lost and the
// generation raised, and the reason is traced. zaffa-tool, run on the same
// files first, must say what the writer found; a sound table of another type
// is the one file it calls valid, since it is not told which table to expect.
struct Reformat {
   char const* name;
   std::function<void(TempDir const&, SlotFile&)> damage;
   char const* reason;
   char const* toolSays;
};

class SlotTableReformat : public ::testing::TestWithParam<Reformat> {};

TEST_P(SlotTableReformat, FileOfAnotherLifeIsReformatted) {
   TempDir dir;
   SharedMem::FenixId before;
   {
      Writer w(config(dir.path()));
      w.attach();
      for (U64 i = 0; i < 40; ++i) w.write(TestValue::of(i, 1), true);
      before = w.fenixId();
   }
   {
      SlotFile f(dir.file(Zaffa::FileNames::slots));
      GetParam().damage(dir, f);
   }
   ToolRun verdict = zaffaTool("validate " + dir.path());
   EXPECT_NE(verdict.output.find(GetParam().toolSays), std::string::npos) << verdict.output;
   EXPECT_EQ(verdict.status, std::string_view(GetParam().toolSays).starts_with("invalid") ? 1 : 0)
      << verdict.output;
   TraceCapture traces;
   Writer w(config(dir.path()));
   w.attach();
   EXPECT_EQ(w.members(), 0u);
   EXPECT_NE(w.fenixId(), before);
   EXPECT_EQ(w.slotTable().header()->fenix, w.fenixId().value);
   EXPECT_TRUE(traces.contains(fmt::format("all entries from {} will be lost", dir.path())))
      << traces.all();
   EXPECT_TRUE(traces.contains(GetParam().reason)) << traces.all();
   EXPECT_TRUE(traces.contains("re-formatted successfully"));
   EXPECT_EQ(w.slotTable().header()->version, 18u);
   EXPECT_TRUE(w.validate());
   EXPECT_EQ(SharedMem::FenixFile(dir.file(Zaffa::FileNames::fenix)).read(), w.fenixId());
}

INSTANTIATE_TEST_SUITE_P(
   Zaffa, SlotTableReformat,
   ::testing::Values(
      Reformat{"version", [](TempDir const&, SlotFile& f) { f.header()->version = 17; },
               "bad version: 17", "invalid: bad version: 17"},
      Reformat{"platform", [](TempDir const&, SlotFile& f) { f.header()->platform = 1; },
               "bad platform specification: lp32-le expecting: lp64-le",
               "invalid: bad platform specification: lp32-le expecting: lp64-le"},
      Reformat{"anotherValueType",
               [](TempDir const&, SlotFile& f) {
                  // A consistent file of another value type: its own hash fits.
                  std::strcpy(f.header()->valueType, "Other::Value");
                  f.header()->hash = f.header()->doHash();
               },
               "checksum fail", "valid: 40 occupied"},
      Reformat{"anotherMaxSlots",
               [](TempDir const&, SlotFile& f) {
                  f.header()->maxSlots = 65;
                  f.header()->hash = f.header()->doHash();
               },
               "checksum fail", "valid: 40 occupied"},
      // Each constant field changed under an intact hash: the file's own
      // checksum fails, whatever the writer expects.
      Reformat{"valueTypeBitFlipped", [](TempDir const&, SlotFile& f) { f.header()->valueType[3] ^= 0x20; },
               "checksum fail: ", "invalid: checksum fail: "},
      Reformat{"classTypeBitFlipped", [](TempDir const&, SlotFile& f) { f.header()->classType[0] ^= 1; },
               "checksum fail: ", "invalid: checksum fail: "},
      Reformat{"valueSizeChanged", [](TempDir const&, SlotFile& f) { f.header()->valueSize = 737; },
               "checksum fail: ", "invalid: checksum fail: "},
      Reformat{"slotSizeSmaller", [](TempDir const&, SlotFile& f) { f.header()->slotSize = 744; },
               "checksum fail: ", "invalid: checksum fail: "},
      Reformat{"maxSlotsChanged", [](TempDir const&, SlotFile& f) { f.header()->maxSlots = 65; },
               "checksum fail: ", "invalid: checksum fail: "},
      Reformat{"constFlagsCleared", [](TempDir const&, SlotFile& f) { f.header()->constFlags = 0; },
               "checksum fail: ", "invalid: checksum fail: "},
      Reformat{"hashSeedChanged", [](TempDir const&, SlotFile& f) { f.header()->hashSeed ^= 0x100; },
               "checksum fail: ", "invalid: checksum fail: "},
      Reformat{"generation",
               [](TempDir const&, SlotFile& f) { f.header()->fenix ^= 0x10000; },
               "failed to attach to existing files", "invalid: bad fenix:"},
      Reformat{"fenixFile",
               [](TempDir const& d, SlotFile&) {
                  SharedMem::FenixFile(d.file(Zaffa::FileNames::fenix)).write(SharedMem::FenixId{0x7777});
               },
               // The slot file is checked against itself and passes; the
               // bucket file is the first to disagree with the fenix file.
               "failed to attach to existing files", "invalid: bucket file bad fenix:"}),
   [](auto const& testInfo) { return std::string(testInfo.param.name); });

TEST(SlotTable, ExistingConsistentFilesAreKept) {
   TempDir dir;
   SharedMem::FenixId fenix;
   {
      Writer w(config(dir.path()));
      w.attach();
      for (U64 i = 0; i < 100; ++i) w.write(TestValue::of(i, i), true);
      fenix = w.fenixId();
   }
   TraceCapture traces;
   Writer w(config(dir.path()));
   w.attach();
   EXPECT_EQ(w.fenixId(), fenix);
   EXPECT_EQ(w.members(), 100u);
   EXPECT_FALSE(traces.contains("will be lost")) << traces.all();
   EXPECT_TRUE(traces.contains("to existing"));
   for (U64 i = 0; i < 100; ++i) {
      auto const* v = w.lookup(TestKey::of(i));
      ASSERT_NE(v, nullptr);
      EXPECT_EQ(v->stamp, i);
   }
}

TEST(SlotTable, TypeNamesAreLimited) {
   auto c = config("");
   c.className = std::string(64, 'c');
   try {
      Writer w(c);
      FAIL() << "a 64-character class name must be refused";
   } catch (Jorro::InvalidInitializeException const& e) {
      EXPECT_EQ(std::string(e.what()), fmt::format("class typename: {} exceeds 64 characters ", c.className));
   }
}
