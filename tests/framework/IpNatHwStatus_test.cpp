#include "framework/IpNatHwStatus.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/VorException.h"
#include "framework/VorReactor.h"

namespace {

using namespace Ip::Nat;
using Lumet::ConnTuple;
using Lumet::IntfId;
using Lumet::IpAddr;
using Lumet::IpAndPort;

struct HwWatcher {
   HwIntfStatus const* hw = nullptr;
   std::vector<std::string> log;
   void onStatic(StaticKey const& k) {
      // The member is gone from the map but, for a removal, the reactor may
      // still be handed it by whoever kept a pointer.
      log.push_back("static " + k.stringValue() + (hw->staticConnectionHwHas(k) ? " +" : " -"));
   }
   void onTwice(U16 const& g) {
      log.push_back("twice " + std::to_string(g) + (hw->twiceNatConnectionHwHas(g) ? " +" : " -"));
   }
   void onTotal() { log.push_back("total " + std::to_string(hw->dynamicConnectionHwTotalCnt())); }
};

struct HwReactor : Vor::Reactor<HwIntfStatus, HwWatcher> {
   static Bindings const& table() {
      static Bindings const b{
         onKey<&HwWatcher::onStatic>(HwIntfStatus::staticConnectionHwId),
         onKey<&HwWatcher::onTwice>(HwIntfStatus::twiceNatConnectionHwId),
         onScalar<&HwWatcher::onTotal>(HwIntfStatus::dynamicConnectionHwTotalCntId)};
      return b;
   }
   explicit HwReactor(HwWatcher* w) : Reactor(w, table()) {}
};

TEST(IpNatHwIntfStatus, StaticAndTwiceEntriesInstantiateIdempotentlyAndNotifyPerMember) {
   Vor::Ptr<HwStatus> hwStatus(new HwStatus());
   Vor::Ptr<HwIntfStatus> hw = hwStatus->intfStatusIs("Et1", IntfId("Ethernet1"));
   // Every pass over an interface calls this; it must keep what is there.
   EXPECT_EQ(hwStatus->intfStatusIs("other", IntfId("Ethernet1")).ptr(), hw.ptr());
   EXPECT_EQ(hw->name(), Vor::String("Et1"));

   HwWatcher w;
   w.hw = hw.ptr();
   HwReactor reactor(&w);
   reactor.notifierIs(hw);

   StaticKey const key(IpAndPort(IpAddr(10, 0, 0, 1), 80));
   IpAndPort const global(IpAddr(1, 1, 1, 1), 8080);
   auto entry = hw->staticConnectionHwIs(key, global, source_, 6, 10, true);
   EXPECT_EQ(hw->staticConnectionHwIs(key, global, source_, 6, 10, true).ptr(), entry.ptr());
   EXPECT_THROW(hw->staticConnectionHwIs(key, global, destination, 6, 10, true),
                Vor::ReinstantiationException);
   entry->filterAddressIs(Lumet::IpAddrWithFullMask(IpAddr(20, 0, 0, 0), 0xff000000), true);
   EXPECT_EQ(entry->filterAddresss(), 1u);

   auto twice = hw->twiceNatConnectionHwIs(4, 17, 10, false);
   EXPECT_THROW(hw->twiceNatConnectionHwIs(4, 17, 10, true), Vor::ReinstantiationException);
   ConnTuple const tuple(IpAndPort(IpAddr(10, 0, 0, 2), 1000), IpAndPort(IpAddr(8, 8, 8, 8), 53), 17);
   twice->entryIs(tuple, HwNatTwiceAddr());
   twice->lastChangedTimeIs(tuple, 12.5);
   EXPECT_EQ(twice->lastChangedTime(tuple), 12.5);

   auto const staticVersion = hw->staticConnectionHwVersion();
   hw->staticConnectionHwDel(key);
   hw->staticConnectionHwDel(key);
   EXPECT_EQ(hw->staticConnectionHwVersion(), staticVersion + 1);
   hw->twiceNatConnectionHwDelAll();
   // The entry outlives its removal for whoever holds it.
   EXPECT_EQ(entry->globalAddress(), global);

   hw->dynamicConnectionHwTotalCntInc(2);
   hw->dynamicConnectionHwTotalCntDec(5);   // stops at zero
   hw->dynamicConnectionHwTotalCntDec(1);   // already zero: nothing

   std::vector<std::string> const expected{"static " + key.stringValue() + " +", "twice 4 +",
                                           "static " + key.stringValue() + " -", "twice 4 -", "total 2",
                                           "total 0"};
   EXPECT_EQ(w.log, expected);
}

TEST(IpNatHwIntfStatus, CountersReadZeroWhenAbsent) {
   Vor::Ptr<HwIntfStatus> hw(new HwIntfStatus("Et1", IntfId("Ethernet1")));
   ConnTuple const tuple(IpAndPort(IpAddr(10, 0, 0, 2), 1000), IpAndPort(IpAddr(8, 8, 8, 8), 53), 17);
   EXPECT_EQ(hw->dynamicConnectionHwCount(tuple), NatCounter());
   NatCounter c;
   c.pktCountInc(3);
   hw->dynamicConnectionHwCountIs(tuple, c);
   EXPECT_EQ(hw->dynamicConnectionHwCount(tuple).pktCount(), 3u);
   auto count = hw->twiceNatConnectionHwCountIs(9);
   EXPECT_EQ(hw->twiceNatConnectionHwCountIs(9).ptr(), count.ptr());
   count->countIs(tuple, c);
   EXPECT_EQ(count->count(tuple).pktCount(), 3u);
   EXPECT_EQ(count->count(ConnTuple()).pktCount(), 0u);
}

TEST(IpNatHwVrfStatus, StaticNatEntriesAndVrfStatusLifetime) {
   Vor::Ptr<HwStatus> hwStatus(new HwStatus());
   auto vrf = hwStatus->vrfStatusIs(L3::VrfName("red"));
   EXPECT_EQ(hwStatus->vrfStatusIs(L3::VrfName("red")).ptr(), vrf.ptr());
   auto conn = vrf->staticNatIs(IpAddr(10, 0, 0, 1));
   conn->insideVrfIdIs(3);
   conn->outsideVrfIdIs(4);
   conn->outsideVrfIs(L3::VrfName("blue"));
   conn->srcAddressNewIs(IpAddr(1, 1, 1, 1));
   conn->targetIs(destination);
   EXPECT_EQ(vrf->staticNat(IpAddr(10, 0, 0, 1))->outsideVrfId(), 4u);
   EXPECT_EQ(vrf->staticNats(), 1u);
   vrf->staticNatDelAll();
   EXPECT_EQ(vrf->staticNats(), 0u);
   hwStatus->vrfStatusDelAll();
   EXPECT_FALSE(hwStatus->vrfStatus(L3::VrfName("red")));
}

} // namespace
