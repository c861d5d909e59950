// zaffa-tool: inspect a shared-memory table without changing it.
//
//   zaffa-tool info DIR [--json] headers of all files, counts, generation,
//                                whether the writer runs, whether an
//                                operation was interrupted
//   zaffa-tool validate DIR      the attach-time validator, read-only;
//                                exit 0 when the table is valid, 1 when not
//   zaffa-tool dump DIR [--json] every entry as text (or JSON)
//
// The files are mapped read-only; nothing is ever repaired. Exit 2 for a
// directory that is missing, unreadable or does not hold a table.
//
// A table whose writer runs may change while it is read. What looks broken
// then is believed only if the table stood still over the whole reading
// (no operation in progress, no change counted); otherwise the tool reads
// again, and after a bounded number of tries it says that it could not get
// a still table and exits 3.

#include "UloNat/UloNatAsyncTypes.h"
#include "UloNat/UloNatVersion.h"
#include "Zaffa/platform/MemWriterLock.h"
#include "Zaffa/platform/SharedMemFenixFile.h"
#include "Zaffa/platform/SharedMemOwnerFile.h"
#include "Zaffa/Validator.h"
#include "Zaffa/WriterHashMap.h"
#include "Zaffa/ZaffaUtil.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Zaffa::U32;
using Zaffa::U64;

class UsageError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// How often, and for how long at most, a reading that a running writer
// disturbed is tried again.
constexpr int maxTries = 50;
constexpr auto triesFor = std::chrono::seconds(10);
constexpr auto betweenTries = std::chrono::milliseconds(10);
constexpr int exitUnsettled = 3;

// The JSON layout of the tools' outputs. Raise it when a field changes
// meaning or goes away; adding a field leaves it.
constexpr int jsonFormat = 1;

// One moment of the table as its writer marks it: each changing operation
// sets a runtime flag while it runs and counts its change in the queue;
// resizes raise the versions of the slot and bucket counts.
struct Stamp {
   bool inOperation = false;
   U64 writerSeq = 0;
   U32 slotsVersion = 0;
   U32 bucketsVersion = 0;
   bool operator==(Stamp const&) const = default;
};

// True when nothing changed between the two stamps.
bool stoodStill(Stamp const& before, Stamp const& after) {
   return before == after && !before.inOperation;
}

// The files of one table, mapped read-only.
class Table {
 public:
   explicit Table(std::string dir) : root_(std::move(dir)) {
      std::error_code ec;
      if (!std::filesystem::is_directory(root_.dir(), ec)) {
         throw UsageError(fmt::format("{}: not a directory or not readable", root_.dir()));
      }
      open(slotFile_, Zaffa::FileNames::slots, true);
      if (slotFile_.size() < sizeof(Zaffa::SlotTableHeader)) {
         throw UsageError(fmt::format("{}: not a Zaffa table (slot file of {} bytes)", slotFile_.path(),
                                      slotFile_.size()));
      }
      U64 magic;
      std::memcpy(&magic, slots().header()->magic, sizeof magic);
      if (magic != Zaffa::slotFileMagic) {
         throw UsageError(fmt::format("{}: not a Zaffa table (bad magic: {:x})", slotFile_.path(), magic));
      }
      open(bucketFile_, Zaffa::FileNames::buckets, false);
      open(trevineFile_, Zaffa::FileNames::trevine, false);
      fenix_ = SharedMem::FenixFile(root_.file(Zaffa::FileNames::fenix)).read();
   }

   Zaffa::SlotMemory slots() const { return Zaffa::SlotMemory(slotFile_.base()); }
   Zaffa::SlotTableHeader const* header() const { return slots().header(); }
   bool hasBuckets() const { return bucketFile_.isOpen() && bucketFile_.size() >= ZaffaCore::bucketHeaderBytes; }
   bool hasTrevine() const { return trevineFile_.isOpen() && trevineFile_.size() >= sizeof(Trevine::TrevineHeader); }
   ZaffaCore::BucketView<Zaffa::SlotLink> buckets() const { return ZaffaCore::BucketView<Zaffa::SlotLink>(bucketFile_.base()); }
   Trevine::TrevineView trevine() const { return Trevine::TrevineView(trevineFile_.base()); }
   std::optional<SharedMem::FenixId> fenix() const { return fenix_; }
   U64 slotFileSize() const { return slotFile_.size(); }
   // The slot file's length as it is now, not as it was mapped: a running
   // writer may have grown it since.
   U64 slotFileSizeNow() const {
      std::error_code ec;
      auto const n = std::filesystem::file_size(root_.file(Zaffa::FileNames::slots), ec);
      return ec ? slotFile_.size() : static_cast<U64>(n);
   }
   Mem::RootPath const& root() const { return root_; }
   // The process that holds the writer lock now; 0 when no writer runs.
   U32 writerPid() const { return Mem::WriterLock(root_.file(Zaffa::FileNames::writerLock)).holderPid(); }

   Stamp stamp() const {
      Stamp st;
      st.inOperation = (__atomic_load_n(&header()->runtimeFlags, __ATOMIC_ACQUIRE) &
                        Zaffa::runtimeFlagInOperation) != 0;
      st.slotsVersion = Mem::loadVerU32(&header()->numSlots).version;
      if (hasTrevine()) st.writerSeq = Mem::load64(&trevine().header()->writerSeq);
      if (hasBuckets()) st.bucketsVersion = buckets().numBuckets().version;
      return st;
   }

   // Takes in what a running writer changed since the files were opened:
   // their lengths and the generation.
   void refresh() {
      slotFile_.refreshSize();
      bucketFile_.refreshSize();
      trevineFile_.refreshSize();
      fenix_ = SharedMem::FenixFile(root_.file(Zaffa::FileNames::fenix)).read();
   }

   // Slots that lie inside the slot file as it is now: a chain link beyond
   // them is broken, and must not be followed into unbacked memory.
   U32 slotsInFile() const {
      U64 const slotSize = header()->slotSize;
      U64 const first = header()->headerBytes();   // the header, then the lookaside slot
      if (slotSize == 0 || slotFile_.size() < first) return 0;
      return static_cast<U32>(std::min<U64>((slotFile_.size() - first) / slotSize, header()->numSlotsValue()));
   }
   bool shadowEntries() const { return std::string_view(header()->valueType) == "Ulo::NatHwShadowEntry"; }

   Zaffa::TableView view() const {
      Zaffa::TableView v;
      v.slots = slots();
      v.slotFileSize = slotFile_.size();
      v.buckets = buckets();
      v.bucketFileSize = bucketFile_.size();
      v.trevine = trevine();
      v.trevineFileSize = trevineFile_.size();
      if (shadowEntries()) {
         using KeyOf = Zaffa::ValueKey<Ulo::NatHwKey, Ulo::NatHwShadowEntry>;
         v.keyMatchesRhash = [](char const* value, U32 rhash, U32 seed) {
            auto const& k = KeyOf::get(*reinterpret_cast<Ulo::NatHwShadowEntry const*>(value));
            return Jorro::Util::reverse(k.hash(seed)) == rhash;
         };
         v.compareKeys = [](char const* a, char const* b) {
            auto const& ka = KeyOf::get(*reinterpret_cast<Ulo::NatHwShadowEntry const*>(a));
            auto const& kb = KeyOf::get(*reinterpret_cast<Ulo::NatHwShadowEntry const*>(b));
            return ka < kb ? -1 : (kb < ka ? 1 : 0);
         };
      }
      return v;
   }

   // Copies slot s as a reader does: retried while the writer changes it.
   // Returns false when the slot does not hold a stable value.
   bool readSlot(U32 s, std::vector<char>& value, U32& rhash) const {
      U32 const valueSize = header()->valueSize;
      value.resize(valueSize);
      for (int attempt = 0; attempt < 1000; ++attempt) {
         Zaffa::RawSlot slot = slots().slot(s);
         U32 seq = slot.seq();
         Zaffa::RawSlot from = (seq & Zaffa::seqLookaside) ? slots().lookaside() : slot;
         rhash = from.rhash();
         std::memcpy(value.data(), from.value(), valueSize);
         std::atomic_thread_fence(std::memory_order_acquire);
         if (slot.seq() == seq) return (seq & Zaffa::seqOccupied) != 0;
      }
      return false;
   }

 private:
   void open(Mem::MappedFile& file, char const* name, bool required) {
      std::string error;
      if (!file.open(root_.file(name), Mem::MappedFile::Mode::readOnly, error) && required) {
         throw UsageError(fmt::format("{}: not a Zaffa table ({}: {})", root_.dir(), name, error));
      }
   }

   Mem::RootPath root_;
   Mem::MappedFile slotFile_, bucketFile_, trevineFile_;
   std::optional<SharedMem::FenixId> fenix_;
};

// What came of reading a table that its writer may be changing.
enum class Reading { whole, broken, unsettled };

// Runs `read` (true when what it read was whole) until it reads whole. A
// failed read is a real fault when no writer runs, or when the table stood
// still over it; otherwise it is tried again, with the file lengths read
// anew, up to maxTries times within triesFor. `tries` tells how many it took.
template <typename Read>
Reading readWhole(Table& t, U32 writer, int& tries, Read&& read) {
   auto const until = std::chrono::steady_clock::now() + triesFor;
   for (tries = 1;; ++tries) {
      Stamp const before = t.stamp();
      if (read()) return Reading::whole;
      if (!writer || stoodStill(before, t.stamp())) return Reading::broken;
      if (tries >= maxTries || std::chrono::steady_clock::now() >= until) return Reading::unsettled;
      std::this_thread::sleep_for(betweenTries);
      t.refresh();
   }
}

int info(Table const& t, bool json) {
   auto const* h = t.header();
   SharedMem::OwnerFile owner(t.root().file(Zaffa::FileNames::owner));
   std::string error;
   bool const ownerOk = std::filesystem::exists(owner.path()) && owner.open(error);
   auto const fenix = t.fenix();
   SharedMem::FenixId const id{h->fenix};
   // The in-operation flag means an interrupted operation only when no
   // writer is left to finish it.
   U32 const writer = t.writerPid();
   bool const flagged = t.stamp().inOperation;
   std::string const marker = Zaffa::Util::readCorruptionMarker(t.root());
   // A writer grows the file before it counts the new slots, so a file
   // shorter than its counted slots was cut short by something else.
   // The count is read before the length: a writer that grows the table
   // lengthens the file first, so a length read after the count that is
   // short of it was cut, not caught in the middle of a growth.
   U64 const needed = h->headerBytes() + U64{h->numSlotsValue()} * h->slotSize;
   U64 const fileBytes = t.slotFileSizeNow();
   bool const cutShort = fileBytes < needed;

   if (json) {
      nlohmann::json doc = {
         {"format", jsonFormat},
         {"table", t.root().dir()},
         {"valueType", h->valueType},
         {"members", h->occupiedSlots},
         {"capacity", h->numSlotsValue()},
         {"mostSlots", h->mostSlots},
         {"maxSlots", h->maxSlots},
         {"generation", id.generation()},
         {"writerPid", writer},
         {"writerRunning", writer != 0},
         {"inOperation", flagged},
         {"interrupted", flagged && !writer},
         {"corruptionDetected", marker.empty() ? nlohmann::json(nullptr) : nlohmann::json(marker)},
         {"slotFile", {{"bytes", fileBytes}, {"bytesNeeded", needed}, {"cutShort", cutShort}}},
         {"headers",
          {{"slots", h->toString()},
           {"buckets", t.hasBuckets() ? nlohmann::json(t.buckets().headerToString()) : nlohmann::json(nullptr)},
           {"trevine", t.hasTrevine() ? nlohmann::json(t.trevine().headerToString()) : nlohmann::json(nullptr)},
           {"owner", ownerOk ? nlohmann::json(owner.headerToString()) : nlohmann::json(nullptr)},
           {"fenix", fenix ? nlohmann::json(fenix->toString()) : nlohmann::json(nullptr)}}}};
      std::printf("%s\n", doc.dump(2).c_str());
   } else {
      std::printf("table: %s\n", t.root().dir().c_str());
      std::printf("slots: %s\n", h->toString().c_str());
      std::printf("buckets: %s\n", t.hasBuckets() ? t.buckets().headerToString().c_str() : "missing");
      std::printf("trevine: %s\n", t.hasTrevine() ? t.trevine().headerToString().c_str() : "missing");
      std::printf("owner: %s\n", ownerOk ? owner.headerToString().c_str() : "missing");
      std::printf("fenix file: %s\n", fenix ? fenix->toString().c_str() : "missing");
      std::printf("members: %u\ncapacity: %u\nmostSlots: %u\nmaxSlots: %u\n", h->occupiedSlots,
                  h->numSlotsValue(), h->mostSlots, h->maxSlots);
      std::printf("generation: %u (pid half %u)\n", id.generation(), id.pid());
      std::printf("writer: %s\n", writer ? fmt::format("running, pid {}", writer).c_str() : "not running");
      std::printf("interrupted: %s\n", !flagged ? "no" : writer ? "no (an operation is in progress)" : "yes");
      std::printf("corruption-detected: %s\n", marker.empty() ? "no" : marker.c_str());
      if (cutShort) {
         std::printf("slot file: cut short: %llu bytes, %llu needed for %u slots\n",
                     static_cast<unsigned long long>(fileBytes), static_cast<unsigned long long>(needed),
                     h->numSlotsValue());
      }
   }
   return cutShort ? 1 : 0;
}

int validate(Table& t) {
   if (!t.hasBuckets() || !t.hasTrevine()) {
      std::printf("invalid: %s\n", !t.hasBuckets() ? "bucket file missing" : "trevine file missing");
      return 1;
   }
   U32 const writer = t.writerPid();
   std::optional<Zaffa::ValidatorCore> validator;
   int tries = 0;
   switch (readWhole(t, writer, tries, [&] {
      validator.emplace(t.view());
      return validator->validate(t.fenix() ? t.fenix()->value : 0);
   })) {
   case Reading::whole:
      std::printf("valid: %u occupied, %u free slots%s\n", validator->occupiedSeen(), validator->freeSeen(),
                  t.shadowEntries() ? "" : " (keys checked by rhash only: unknown value type)");
      return 0;
   case Reading::broken:
      std::printf("invalid: %s\n", validator->message().c_str());
      return 1;
   case Reading::unsettled:
      break;
   }
   std::printf("no verdict: the table changed during each of %d tries to validate it (writer pid %u is running)\n",
               tries, writer);
   return exitUnsettled;
}

std::string hex(char const* p, std::size_t n) {
   std::string s;
   for (std::size_t i = 0; i < n; ++i) s += fmt::format("{:02x}", static_cast<unsigned char>(p[i]));
   return s;
}

struct Entry {
   U32 slot;
   U32 rhash;
   bool stable;
   std::string key;
   std::string text;
   // For hardware-shadow tables: the key and data field by field, as the
   // JSON dump gives them.
   nlohmann::json fields;
};

nlohmann::json keyJson(Ulo::NatHwKey const& k) {
   return {{"keyType", Ulo::NatHwKey::keyTypeName(k.keyType())},
           {"srcIpAndPortOld", k.srcIpAndPortOld().stringValue()},
           {"srcIpAndPortNew", k.srcIpAndPortNew().stringValue()},
           {"dstIpAndPortOld", k.dstIpAndPortOld().stringValue()},
           {"dstIpAndPortNew", k.dstIpAndPortNew().stringValue()},
           {"aclId", k.aclId().value()},
           {"reverse", k.reverse()},
           {"dynProto", k.dynProto()},
           {"groupId", k.groupId()},
           {"filterAddrId", k.filterAddrId()}};
}

nlohmann::json dataJson(Ulo::NatHwData const& d) {
   nlohmann::json vlans = nlohmann::json::array();
   // A damaged slot may count more cells than the array has.
   for (U32 i = 0; i < std::min<U32>(d.vlanIds(), Ulo::NatVlanIdIndex::max + 1); ++i) vlans.push_back(d.vlanId(Ulo::NatVlanIdIndex(i)));
   nlohmann::json egress = nlohmann::json::array();
   for (U32 i = 0; i < std::min<U32>(d.egressIntfs(), Ulo::NatEgressIntfIndex::max + 1); ++i) egress.push_back(d.egressIntf(Ulo::NatEgressIntfIndex(i)).stringValue());
   return {{"protocol", d.protocol()},
           {"filterAddr", d.filterAddr().stringValue()},
           {"numFilterAddrs", d.numFilterAddrs()},
           {"nextHopId", d.nextHopId()},
           {"staticAclSharing", d.staticAclSharing()},
           {"mcastGroupId", d.mcastGroupId()},
           {"multicast", d.multicast()},
           {"vlanIds", vlans},
           {"egressIntfs", egress}};
}

// The entries of one chain, in chain order. False when the chain is broken
// (a link out of the slot file, or a cycle), with the slot in `brokenAt`.
bool readChain(Table const& t, U32 bucket, std::vector<Entry>& out, U32& brokenAt) {
   out.clear();
   U32 const numSlots = t.slotsInFile();
   std::vector<char> value;
   U32 steps = 0;
   for (Zaffa::SlotLink l = Zaffa::loadLink(t.buckets().head(bucket)); !l.endOfChain();
        l = Zaffa::loadLink(t.slots().slot(l.next).link())) {
      if (l.next >= numSlots || ++steps > numSlots) {
         brokenAt = l.next;
         return false;
      }
      Entry e{l.next, 0, false, {}, {}, {}};
      e.stable = t.readSlot(l.next, value, e.rhash);
      if (t.shadowEntries()) {
         auto const* v = reinterpret_cast<Ulo::NatHwShadowEntry const*>(value.data());
         e.key = v->key().stringValue();
         e.text = v->stringValue();
         e.fields = {{"key", keyJson(v->key())},
                     {"data", dataJson(v->data())},
                     {"dirty", Ulo::NatHwShadowEntry::dirtyName(v->dirty())}};
      } else {
         e.key = hex(value.data(), std::min<std::size_t>(value.size(), 40));
         e.text = hex(value.data(), value.size());
      }
      out.push_back(std::move(e));
   }
   return true;
}

int dump(Table& t, bool json) {
   if (!t.hasBuckets()) throw UsageError(fmt::format("{}: bucket file missing", t.root().dir()));
   U32 const writer = t.writerPid();
   Stamp const start = t.stamp();
   U32 const numBuckets = t.buckets().numBuckets().value;
   nlohmann::json entries = nlohmann::json::array();
   std::vector<Entry> chain;
   U64 count = 0;
   for (U32 b = 0; b < numBuckets; ++b) {
      // A chain that a running writer is changing may look broken for a
      // moment.
      U32 brokenAt = 0;
      int tries = 0;
      Reading r = readWhole(t, writer, tries, [&] { return readChain(t, b, chain, brokenAt); });
      if (r == Reading::broken) {
         std::fprintf(stderr, "zaffa-tool: bucket %u: broken chain at slot %u\n", b, brokenAt);
         return 1;
      }
      if (r == Reading::unsettled) {
         std::fprintf(stderr, "zaffa-tool: bucket %u: the chain changed during each of %d tries to read it "
                              "(writer pid %u is running)\n", b, tries, writer);
         return exitUnsettled;
      }
      for (Entry const& e : chain) {
         if (json) {
            // A hardware-shadow entry is its fields, so that jq can select
            // by any of them; another table's key and value stay hex.
            nlohmann::json j = {{"slot", e.slot}, {"bucket", b}, {"rhash", e.rhash}, {"stable", e.stable}};
            if (e.fields.is_null()) {
               j["key"] = e.key;
               j["value"] = e.text;
            } else {
               j.update(e.fields);
            }
            entries.push_back(std::move(j));
         } else {
            std::printf("slot:%u bucket:%u rhash:%#x%s key:%s value:%s\n", e.slot, b, e.rhash,
                        e.stable ? "" : " (unstable)", e.key.c_str(), e.text.c_str());
         }
         ++count;
      }
   }
   // Entries that moved between chains while they were read may be missing
   // or appear twice; say so rather than pass the dump off as a snapshot.
   bool const snapshot = !writer || stoodStill(start, t.stamp());
   if (json) {
      nlohmann::json doc = {{"format", jsonFormat}, {"table", t.root().dir()}, {"valueType", t.header()->valueType},
                            {"members", t.header()->occupiedSlots}, {"snapshot", snapshot},
                            {"entries", entries}};
      std::printf("%s\n", doc.dump(2).c_str());
   } else {
      std::printf("entries: %llu\n", static_cast<unsigned long long>(count));
      if (!snapshot) {
         std::printf("not a snapshot: the writer (pid %u) changed the table during the dump\n", writer);
      }
   }
   return 0;
}

// A writer that re-formats or removes its table cuts the files short, and a
// read of a mapped page past the new end raises SIGBUS. Say what happened
// instead of dying of a bus error.
void onBusError(int) {
   static char const text[] = "zaffa-tool: a table file was cut short while it was read "
                              "(its writer re-formatted or removed the table); run again\n";
   (void)!::write(STDERR_FILENO, text, sizeof text - 1);
   ::_exit(exitUnsettled);
}

// A root such as /var/shmem holds each table as <name>/entry; naming those
// tells a user who gave the root which DIR the tool wants.
std::vector<std::string> tablesUnder(std::string const& dir) {
   std::vector<std::string> out;
   std::error_code ec;
   for (auto const& d : std::filesystem::directory_iterator(dir, ec)) {
      auto const entry = d.path() / "entry";
      if (std::filesystem::exists(entry / Zaffa::FileNames::slots, ec)) out.push_back(entry.string());
   }
   std::sort(out.begin(), out.end());
   return out;
}

} // namespace

int main(int argc, char** argv) {
   std::signal(SIGBUS, onBusError);
   CLI::App app{"Inspect a Zaffa shared-memory table (read-only)"};
   app.require_subcommand(1);
   std::string dir;
   bool json = false;
   app.set_version_flag("--version", std::string("zaffa-tool (libUloNat) ") + ULONAT_VERSION_STRING);
   app.footer("DIR is the directory of one table, <root>/<name>/entry (root /var/shmem by default);\n"
              "given a root, the tool names the tables under it.\n"
              "Exit status: 0 done (valid, for validate); 1 info: a file cut short, validate: invalid,\n"
              "dump: a broken chain; 2 bad command line, or DIR is not a table; 3 the table never stood\n"
              "still long enough to be read (its writer runs), or was re-formatted while read.");
   char const* const dirHelp = "directory of the table: <root>/<name>/entry";
   auto* infoCmd = app.add_subcommand("info", "headers, counts, capacity, generation; exit 1 on a file cut short");
   infoCmd->add_option("DIR", dir, dirHelp)->required();
   infoCmd->add_flag("--json", json, "print JSON (with a \"format\" version)");
   auto* validateCmd = app.add_subcommand("validate", "run the validator; exit 0 when valid, 1 when not");
   validateCmd->add_option("DIR", dir, dirHelp)->required();
   auto* dumpCmd = app.add_subcommand("dump", "every entry as text; exit 1 on a broken chain");
   dumpCmd->add_option("DIR", dir, dirHelp)->required();
   dumpCmd->add_flag("--json", json, "print JSON (with a \"format\" version; hardware-shadow entries field by field)");
   try {
      app.parse(argc, argv);
   } catch (CLI::ParseError const& e) {
      return app.exit(e) == 0 ? 0 : 2;
   }
   try {
      Table table(dir);
      if (infoCmd->parsed()) return info(table, json);
      if (validateCmd->parsed()) return validate(table);
      return dump(table, json);
   } catch (std::exception const& e) {
      std::fprintf(stderr, "zaffa-tool: %s\n", e.what());
      if (auto const tables = tablesUnder(dir); !tables.empty()) {
         std::fprintf(stderr, "zaffa-tool: %s holds tables; give one of them as DIR:\n", dir.c_str());
         for (auto const& t : tables) std::fprintf(stderr, "  %s\n", t.c_str());
      }
      return 2;
   }
}
