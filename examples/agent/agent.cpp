// An agent of the NAT engine, written from the README and the headers: it
// builds the state-store entities the root takes, a chip behind the helper
// interface, one interface in a VRF, adds and removes static rules, drives
// the scheduler, and reads back what hardware status says.
//
// The scheduler runs on a virtual clock so that the example finishes at
// once; a real agent leaves it on real time and calls runOnce(maxWait) from
// its event loop.

#include <cstdio>
#include <map>
#include <tuple>

#include "UloNat/UloHelperNat.h"
#include "UloNat/UloNatSm.h"
#include "UloNat/UloNatVersion.h"
#include "framework/DovTask.h"
#include "framework/IpNatDynamicConnectionStatus.h"
#include "framework/IpNatHwCapabilities.h"
#include "framework/IpNatHwStatus.h"
#include "framework/IpNatStatus.h"
#include "framework/MrouteLibStaticNatInfo.h"
#include "framework/RoutingHwRouteStatus.h"
#include "framework/UloL3IntfTable.h"
#include "framework/UloNextHopMap.h"

namespace {

int failures = 0;

void check(bool ok, char const* what) {
   std::printf("%s: %s\n", ok ? "ok" : "FAILED", what);
   if (!ok) ++failures;
}

// A chip with a table of `capacity` translations. Only the single-address
// static operations are implemented; the base class splits a rule into them,
// one per filter address. Capability: immediate commit.
class ToyChip : public UloHelper::UloHelperNat {
 public:
   using Key = std::tuple<bool, Vor::U16, Ip::Nat::StaticKey, Lumet::IpAddrWithFullMask>;

   explicit ToyChip(std::size_t capacity) : UloHelper::UloHelperNat("toyChip"), capacity_(capacity) {}

   std::size_t entries() const { return table_.size(); }
   void capacityIs(std::size_t capacity) { capacity_ = capacity; }

   bool immediateCommit() const override { return true; }

   // An add for a rule the chip holds replaces it: a rule changed to fewer
   // filter addresses must not leave the dropped ones behind.
   bool addStaticIpTranslations(Ip::Nat::NatStaticConnection const& conn, Vor::U16 vlan,
                                Ip::Nat::StaticKey const& key, NextHop nextHop, MulticastInfo multicast,
                                Ulo::VrfId vrfId, bool aclSharing) override {
      erase(true, vlan, key);
      erase(false, vlan, key);
      return UloHelper::UloHelperNat::addStaticIpTranslations(conn, vlan, key, nextHop, multicast, vrfId,
                                                              aclSharing);
   }
   bool addStaticSrcIpTranslation(IpAndPort const&, IpAndPort const& newIpAndPort, IpAddrWithFullMask const& filter,
                                  Vor::U8, Vor::U16 vlan, Ip::Nat::StaticKey const& key, bool,
                                  Ulo::VrfId) override {
      return put(Key{true, vlan, key, filter}, newIpAndPort);
   }
   bool addStaticDstIpTranslation(IpAndPort const&, IpAndPort const& newIpAndPort, IpAddrWithFullMask const& filter,
                                  Vor::U8, Vor::U16 vlan, Ip::Nat::StaticKey const& key, NextHop, MulticastInfo,
                                  bool, Ulo::VrfId) override {
      return put(Key{false, vlan, key, filter}, newIpAndPort);
   }
   // Deletes name the rule, not a filter address, and may find nothing: the
   // undo after a refused add deletes both directions.
   bool deleteStaticSrcIpTranslation(Vor::U16 vlan, Ip::Nat::StaticKey const& key, bool, Ulo::VrfId) override {
      erase(true, vlan, key);
      return true;
   }
   bool deleteStaticDstIpTranslation(Vor::U16 vlan, Ip::Nat::StaticKey const& key, bool, Ulo::VrfId) override {
      erase(false, vlan, key);
      return true;
   }

 private:
   bool put(Key const& key, IpAndPort const& to) {
      if (!table_.count(key) && table_.size() >= capacity_) return false;   // full: refused
      table_[key] = to;
      return true;
   }
   void erase(bool source, Vor::U16 vlan, Ip::Nat::StaticKey const& key) {
      for (auto it = table_.begin(); it != table_.end();) {
         auto const& [s, v, k, f] = it->first;
         it = (s == source && v == vlan && k == key) ? table_.erase(it) : std::next(it);
      }
   }

   std::size_t capacity_;
   std::map<Key, IpAndPort> table_;
};

Lumet::IpAndPort address(char const* text) { return *Lumet::IpAndPort::parse(text); }

Lumet::IpAddrWithFullMask filter(char const* addr, Vor::U32 mask) {
   return Lumet::IpAddrWithFullMask(*Lumet::IpAddr::parse(addr), mask);
}

} // namespace

int main() {
   std::printf("libUloNat %s (headers %s)\n", Ulo::natLibraryVersion(), ULONAT_VERSION_STRING);

   // The scheduler every machine of the library runs on.
   auto scheduler = Dov::TaskSchedulerRoot::findOrCreateScheduler();
   scheduler->virtualTimeIs(true, 0.0);

   // The central state store's entities: inputs the agent writes, outputs
   // the engine writes.
   Vor::Ptr<Ip::Nat::Status> status(new Ip::Nat::Status());
   Vor::Ptr<Ip::Nat::HwStatus> hwStatus(new Ip::Nat::HwStatus());
   Vor::Ptr<Routing::Hardware::RouteStatus> routeStatus(new Routing::Hardware::RouteStatus());
   Vor::Ptr<ToyChip> chip(new ToyChip(4));

   auto root = Ulo::natSmFactory(
      Vor::Ptr<Ulo::UloCommonSmData>(new Ulo::UloCommonSmData(Vor::Ptr<Ulo::VerifyData>(new Ulo::VerifyData()))),
      status, hwStatus, Vor::Ptr<Ip::Nat::DynamicConnectionStatus>(new Ip::Nat::DynamicConnectionStatus()),
      Vor::Ptr<Ip::Nat::DynamicConnectionHwStatus>(new Ip::Nat::DynamicConnectionHwStatus()),
      Vor::Ptr<Ip::Nat::HwCapabilities>(new Ip::Nat::HwCapabilities()),
      Vor::Ptr<Ulo::NextHopMapConfig>(new Ulo::NextHopMapConfig()),
      Vor::Ptr<Ulo::NextHopMapStatus>(new Ulo::NextHopMapStatus()), routeStatus, chip,
      Vor::Ptr<MrouteLib::StaticNatInfo>(new MrouteLib::StaticNatInfo()), Vor::Ptr<UloL3Intf::Table const>());
   root->initializedIs(true);

   // An interface in VRF "blue", with its one member on VLAN 10. It gets an
   // engine once the VRF is in hardware with an id.
   Lumet::IntfId const intf("Ethernet1");
   status->intfConfigKeyIs(intf, "Ethernet1");
   auto intfStatus = status->intfStatusIs(intf);
   intfStatus->validIntfIs(intf, 10);
   intfStatus->vrfNameIs(L3::VrfName("blue"));
   scheduler->runUntilIdle();
   check(root->natIntfStatusSms().size() == 0, "no engine while VRF blue is not in hardware");
   routeStatus->vrfStatusIs(L3::VrfName("blue"))->vrfIdIs(Ulo::VrfId(7));
   scheduler->runUntilIdle();
   check(root->natIntfStatusSms().size() == 1, "an engine once VRF blue has an id");

   // Two rules: one with two filter addresses (two entries each way), one
   // without. The chip holds four entries, so the second is refused.
   Ip::Nat::NatStaticConnection first(Ip::Nat::StaticKey(address("10.0.0.1:0")), address("192.0.2.1:0"),
                                      Ip::Nat::source_, 0, 10, true);
   first.filterAddressIs(filter("198.51.100.0", 0xffffff00u), true);
   first.filterAddressIs(filter("203.0.113.0", 0xffffff00u), true);
   Ip::Nat::NatStaticConnection second(Ip::Nat::StaticKey(address("10.0.0.2:0")), address("192.0.2.2:0"),
                                       Ip::Nat::source_, 0, 10, true);
   intfStatus->staticConnectionIs(first);
   intfStatus->staticConnectionIs(second);
   scheduler->runUntilIdle();
   auto hw = hwStatus->intfStatus(intf);
   check(hw && hw->staticConnectionHw(first.key()), "the first rule is in hardware status");
   check(hw && !hw->staticConnectionHw(second.key()), "the refused rule is not");
   check(chip->entries() == 4, "the chip holds the first rule's four entries");

   // Room made on the chip: the review, every 5 seconds, retries the refused rule.
   chip->capacityIs(8);
   scheduler->runFor(6.0);
   check(hw->staticConnectionHw(second.key()) != nullptr, "the refused rule is programmed by the review");
   check(chip->entries() == 6, "the chip holds both rules");

   // A rule changed to one filter address replaces what was programmed.
   first.filterAddressIs(filter("203.0.113.0", 0xffffff00u), false);
   intfStatus->staticConnectionIs(first);
   scheduler->runUntilIdle();
   check(chip->entries() == 4, "the changed rule left no dropped filter's entries");

   // Removing the interface: its rules first, then the interface.
   intfStatus->staticConnectionDelAll();
   scheduler->runUntilIdle();
   check(chip->entries() == 0 && hw->staticConnectionHw().empty(), "the rules are gone from chip and status");
   status->intfStatusDel(intf);
   status->intfConfigKeyDel(intf);
   scheduler->runUntilIdle();
   check(root->natIntfStatusSms().size() == 0 && !hwStatus->intfStatus(intf), "the interface is gone");

   root = nullptr;
   Dov::TaskSchedulerRoot::schedulerIs(nullptr);
   std::printf("%s\n", failures ? "example agent: FAILED" : "example agent: all checks held");
   return failures ? 1 : 0;
}
