#include "sim/SimAsyncViews.h"

#include <set>
#include <sstream>

#include "framework/UloAssert.h"

namespace Sim {

std::pair<Ulo::NatHwKey, Ulo::NatHwKey> staticHwKeys(Ip::Nat::NatStaticConnection const& conn) {
   Ulo::NatHwKey src;
   Ulo::NatHwKey dst;
   src.keyTypeIs(Ulo::NatHwKey::staticSnat);
   dst.keyTypeIs(Ulo::NatHwKey::staticDnat);
   Ulo::NatHwData srcData;
   Ulo::NatHwData dstData;
   // Without an ACL name no ACL table is consulted, and without data no
   // next hop or multicast information: the keys alone.
   Ulo::NatAsyncHelper::doPopulateStaticNatHwKeyAndData(src, srcData, dst, dstData, conn, conn.vlanId(), conn.key(),
                                                        nullptr, nullptr, nullptr, false, false);
   return {src, dst};
}

ShadowCounts shadowCounts(SimSystem const& sys) {
   uloAssert(sys.hwShadow() && "shadow counts need the asynchronous mode");
   ShadowCounts counts;
   sys.hwShadow()->entryForEach([&](Ulo::NatHwShadowEntry const& entry) {
      ++counts.entries;
      if (entry.key().filterAddrId() != 0) return true;
      switch (entry.dirty()) {
      case Ulo::NatHwShadowEntry::clean: ++counts.clean; break;
      case Ulo::NatHwShadowEntry::setting: ++counts.setting; break;
      case Ulo::NatHwShadowEntry::clearing: ++counts.clearing; break;
      }
      return true;
   });
   return counts;
}

std::vector<std::string> asyncChipMismatches(SimSystem const& sys) {
   uloAssert(sys.chip() && sys.asyncHelper() && "chip mismatches need the asynchronous mode with its programmer");
   std::vector<std::string> out;
   auto const& failed = sys.asyncHelper()->failedHwKey();

   // Static keys the configuration wants on interfaces that have an engine.
   std::set<Ulo::NatHwKey, Ulo::NatHwKeyFullLess> wantedStatic;
   for (auto const& [intf, is] : sys.status()->intfStatus()) {
      if (!sys.root()->natIntfStatusSm(intf)) continue;
      for (auto const& [key, conn] : is->staticConnection()) {
         auto const [src, dst] = staticHwKeys(conn);
         for (Ulo::NatHwKey const& k : {src, dst}) {
            if (!failed->entryHas(k)) wantedStatic.insert(k);
         }
      }
   }
   std::size_t failedTwice = 0;
   for (auto const& it : failed->entry()) failedTwice += it.key().isTwiceNat() ? 1 : 0;
   std::size_t const wantedTwice = 2 * sys.hwTwiceCount() - failedTwice;

   std::set<Ulo::NatHwKey, Ulo::NatHwKeyFullLess> staticOnChip;
   std::size_t twiceOnChip = 0;
   std::size_t chipEntries = 0;
   sys.chip()->forEach([&](Ulo::NatHwKey const& key, Ulo::NatHwData const& data) {
      ++chipEntries;
      Ulo::NatHwShadowEntry const entry = sys.hwShadow()->entry(key);
      if (!(entry.key() == key)) {
         out.push_back("on the chip, not in the shadow: " + key.stringValue());
      } else if (!(entry.data() == data)) {
         out.push_back("on the chip as " + data.stringValue() + ", in the shadow as " + entry.data().stringValue() +
                       ": " + key.stringValue());
      } else if (key.filterAddrId() == 0 && entry.dirty() != Ulo::NatHwShadowEntry::clean) {
         out.push_back(std::string("shadow entry ") + Ulo::NatHwShadowEntry::dirtyName(entry.dirty()) +
                       " at rest: " + key.stringValue());
      }
      if (key.filterAddrId() != 0) return;
      if (key.isStaticNat()) staticOnChip.insert(key);
      if (key.isTwiceNat()) ++twiceOnChip;
   });
   for (auto const& k : wantedStatic) {
      if (!staticOnChip.count(k)) out.push_back("configured, not on the chip: " + k.stringValue());
   }
   for (auto const& k : staticOnChip) {
      if (!wantedStatic.count(k)) out.push_back("on the chip, not configured: " + k.stringValue());
   }
   if (twiceOnChip != wantedTwice) {
      out.push_back("twice halves on the chip: " + std::to_string(twiceOnChip) + ", for hardware status " +
                    std::to_string(wantedTwice));
   }
   std::size_t const shadowEntries = sys.hwShadow()->entrys();
   if (shadowEntries != chipEntries) {
      out.push_back("shadow entries " + std::to_string(shadowEntries) + ", chip entries " +
                    std::to_string(chipEntries));
   }
   return out;
}

std::vector<std::pair<std::string, std::string>> asyncChipLines(SimSystem const& sys) {
   uloAssert(sys.chip() && "chip lines need the asynchronous mode with its programmer");
   std::vector<std::pair<std::string, std::string>> lines;
   sys.chip()->forEach([&](Ulo::NatHwKey const& key, Ulo::NatHwData const& data) {
      std::ostringstream os;
      os << "filter " << data.filterAddr().stringValue() << " proto " << int(data.protocol()) << " vlans";
      for (Vor::U32 i = 0; i < data.vlanIds(); ++i) {
         os << (i ? "," : " ") << data.vlanId(Ulo::NatVlanIdIndex(i));
      }
      if (data.nextHopId()) os << " nexthop " << data.nextHopId();
      if (data.multicast()) os << " multicast";
      std::string text = key.stringValue();
      if (key.filterAddrId() != 0) text += " #" + std::to_string(key.filterAddrId());
      lines.emplace_back(text, os.str());
   });
   return lines;
}

} // namespace Sim
