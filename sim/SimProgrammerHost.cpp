#include "sim/SimProgrammerHost.h"

namespace Sim {

SimProgrammerHost::SimProgrammerHost(std::string const& root, std::size_t capacity,
                                     Vor::Ptr<Dov::TaskScheduler> const& scheduler, double watchInterval)
    : scheduler_(scheduler) {
   configDir_ = Ulo::natAsyncHwConfigDirFactory();
   statusDir_ = Ulo::natAsyncHwStatusDirFactory();
   configTable_ = std::make_unique<Ulo::NatAsyncHwConfigTable>(
      configDir_, "natAsyncHwConfigDir", Zaffa::MapDescriptor::sharedReader(root, true), scheduler_);
   configTable_->map().watchIntervalIs(watchInterval);
   statusTable_ = std::make_unique<Ulo::NatAsyncHwStatusTable>(
      statusDir_, "natAsyncHwStatusDir", Zaffa::MapDescriptor::sharedWriter(root, 1024, 1u << 21), scheduler_,
      configTable_.get());
   statusTable_->map().watchIntervalIs(watchInterval);
   // Read directly, not followed: the agent writes a key's shadow entries
   // before its command, and a direct read sees them whatever order the two
   // tables' wake-ups arrive in.
   hwShadow_ = Ulo::natHwShadowFactory("natHwShadow", Zaffa::MapDescriptor::sharedReader(root, false));
   hwShadow_->entryMap().map().watchIntervalIs(watchInterval);
   chip_ = simNatChipFactory(capacity);
   programmer_ = simNatProgrammerFactory(configDir_, statusDir_, hwShadow_, chip_, scheduler_);
}

SimProgrammerHost::~SimProgrammerHost() {
   programmer_ = nullptr;
   statusTable_.reset();
   configTable_.reset();
}

bool SimProgrammerHost::poll() {
   auto& commands = configTable_->map();
   bool const agentThere = commands.mountStatus() == Zaffa::MountStatus::mounted && commands.quiesced() &&
                           hwShadow_->entryMap().map().mountStatus() == Zaffa::MountStatus::mounted;
   if (agentThere && !programmer_->initialized()) {
      ++starts_;
      programmer_->initializedIs(true);
      statusTable_->republishAll();
   } else if (!agentThere && programmer_->initialized()) {
      programmer_->deInit();
   }
   return programmer_->initialized();
}

void SimProgrammerHost::statusIs(std::ostream& out) const {
   SimNatChip::Counts const& c = chip_->counts();
   out << "running " << (programmer_->initialized() ? 1 : 0) << "\n"
       << "starts " << starts_ << "\n"
       << "entries " << chip_->entries() << "\n"
       << "writes " << c.writes << "\n"
       << "rewrites " << c.rewrites << "\n"
       << "removals " << c.removals << "\n"
       << "refusals " << c.refusals << "\n"
       << "steadyStates " << programmer_->steadyStates() << "\n"
       << "adds " << programmer_->addCount() << "\n"
       << "updates " << programmer_->updateCount() << "\n"
       << "dels " << programmer_->delCount() << "\n"
       << "configs " << configDir_->configs() << "\n"
       << "statuses " << statusDir_->statuss() << "\n"
       << "digest " << chipDigest(*chip_) << "\n";
}

void SimProgrammerHost::chipDumpIs(std::ostream& out) const {
   chip_->forEach([&out](Ulo::NatHwKey const& key, Ulo::NatHwData const& data) {
      out << key.stringValue() << "\t" << data.stringValue() << "\n";
   });
}

Vor::U64 entryDigest(Ulo::NatHwKey const& key, Ulo::NatHwData const& data) {
   // FNV-1a over the two texts: stable across processes, unlike std::hash.
   Vor::U64 h = 0xcbf29ce484222325ull;
   auto mix = [&h](std::string const& text) {
      for (unsigned char ch : text) {
         h ^= ch;
         h *= 0x100000001b3ull;
      }
      h ^= 0xff;
      h *= 0x100000001b3ull;
   };
   mix(key.stringValue());
   mix(data.stringValue());
   return h;
}

Vor::U64 chipDigest(SimNatChip const& chip) {
   Vor::U64 sum = 0;
   chip.forEach([&sum](Ulo::NatHwKey const& key, Ulo::NatHwData const& data) { sum += entryDigest(key, data); });
   return sum;
}

Vor::U64 shadowDigest(Ulo::NatHwShadow const& shadow, std::size_t* entries, std::size_t* dirty) {
   Vor::U64 sum = 0;
   std::size_t count = 0;
   std::size_t notClean = 0;
   shadow.entryForEach([&](Ulo::NatHwShadowEntry const& e) {
      sum += entryDigest(e.key(), e.data());
      ++count;
      // A connection is judged by its entry 0: an update leaves the other
      // siblings marked for good.
      if (e.key().filterAddrId() == 0 && e.dirty() != Ulo::NatHwShadowEntry::clean) ++notClean;
      return true;
   });
   if (entries) *entries = count;
   if (dirty) *dirty = notClean;
   return sum;
}

} // namespace Sim
