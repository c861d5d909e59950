// The global hardware status: local changes copied into it, failed hardware
// keys withdrawing whole connections from it and returning them, and a
// randomized run checked against a model of "local minus failed".

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>

#include "UloNat/UloNatHwStatusAggregateSm.h"
#include "framework/VorLog.h"
#include "sim/SimSystem.h"

namespace {

using Ip::Nat::HwIntfStatus;
using Ip::Nat::NatCounter;
using Ip::Nat::StaticKey;
using Lumet::ConnTuple;
using Lumet::IpAndPort;
using Ulo::NatHwKey;
using Vor::Ptr;
using Vor::U16;

IpAndPort ipp(char const* text) { return *Sim::parseIpAndPort(text); }
Lumet::IpAddrWithFullMask filter(char const* text) { return *Sim::parseFilter(text); }
StaticKey skey(char const* local) { return StaticKey(ipp(local)); }
Lumet::IntfId const eth1("Ethernet1");
Lumet::IntfId const eth2("Ethernet2");

// The keys under which the programmer reports a plain source rule
// local -> global.
NatHwKey snatKey(char const* local, char const* global) {
   return NatHwKey(NatHwKey::staticSnat, ipp(local), ipp(global), IpAndPort(), IpAndPort(), Ulo::NatAclId(), false);
}
NatHwKey dnatKey(char const* local, char const* global) {
   return NatHwKey(NatHwKey::staticDnat, IpAndPort(), IpAndPort(), ipp(global), ipp(local), Ulo::NatAclId(), true);
}
NatHwKey twiceForwardKey(U16 group, ConnTuple const& t, Ip::Nat::HwNatTwiceAddr const& a) {
   return NatHwKey(NatHwKey::twiceNatForward, t.srcAddr(), a.srcNew(), t.dstAddr(), a.dstNew(), Ulo::NatAclId(),
                   false, 0, group);
}
NatHwKey twiceReverseKey(U16 group, ConnTuple const& t, Ip::Nat::HwNatTwiceAddr const& a) {
   return NatHwKey(NatHwKey::twiceNatReverse, a.dstNew(), t.dstAddr(), a.srcNew(), t.srcAddr(), Ulo::NatAclId(),
                   false, 0, group);
}

class AggregateTest : public ::testing::Test {
 protected:
   void SetUp() override { build(); }
   void build() {
      sm_ = nullptr;
      sm_ = Ulo::natHwStatusAggregateSmFactory(local_, localDynamic_, failed_, global_, globalDynamic_, acls_);
   }
   Ptr<HwIntfStatus> localIntf(Lumet::IntfId const& intf) { return local_->intfStatusIs("cfg", intf); }
   Ptr<HwIntfStatus> globalIntf(Lumet::IntfId const& intf) { return global_->intfStatus(intf); }
   Ptr<Ip::Nat::HwNatStaticConnection> addStatic(Lumet::IntfId const& intf, char const* local, char const* global,
                                                  std::vector<char const*> filters = {"198.51.100.0/24"}) {
      auto conn = localIntf(intf)->staticConnectionHwIs(skey(local), ipp(global), Ip::Nat::source_, 0, 10, true);
      for (auto f : filters) conn->filterAddressIs(filter(f), true);
      return conn;
   }

   Vor::CapturingLogSink logs_;
   Ptr<Ip::Nat::HwStatus> local_{new Ip::Nat::HwStatus("local")};
   Ptr<Ip::Nat::HwStatus> global_{new Ip::Nat::HwStatus("global")};
   Ptr<Ip::Nat::DynamicConnectionHwStatus> localDynamic_{new Ip::Nat::DynamicConnectionHwStatus("localDyn")};
   Ptr<Ip::Nat::DynamicConnectionHwStatus> globalDynamic_{new Ip::Nat::DynamicConnectionHwStatus("globalDyn")};
   Ptr<Ulo::NatFailedHwKeyStatus> failed_{new Ulo::NatFailedHwKeyStatus("failed")};
   Ptr<Ulo::NatAclNameIdTable> acls_{new Ulo::NatAclNameIdTable("acls")};
   Ptr<Ulo::NatHwStatusAggregateSm> sm_;
};

// Disabled: shows a fault not yet mended. The machine copies a VRF-to-VRF
// rule when it is added, but the VRF engine sets the rule's fields after the
// add, so the global copy keeps the fields of the moment of the add; the
// machine must watch each rule's fields.
TEST_F(AggregateTest, DISABLED_StartEmptiesTheGlobalStatusAndCopiesOnlyLaterChanges) {
   addStatic(eth1, "10.0.0.1", "192.0.2.1");
   global_->intfStatusIs("stale", eth2);
   global_->vrfStatusIs(L3::VrfName("red"));
   build();
   // What stood in the local status at start is watched, not copied.
   EXPECT_EQ(global_->intfStatuss(), 0u);
   EXPECT_EQ(global_->vrfStatuss(), 0u);
   ASSERT_NE(sm_->localIntfStatus(eth1), nullptr);
   EXPECT_EQ(sm_->localIntfStatus(eth1)->localStaticConnections(), 1u);

   // An interface comes and its rules follow, filter addresses included.
   localIntf(eth2);
   ASSERT_TRUE(globalIntf(eth2));
   auto conn = addStatic(eth2, "10.0.0.2", "192.0.2.2", {"198.51.100.0/24", "203.0.113.0/24"});
   auto copy = globalIntf(eth2)->staticConnectionHw(skey("10.0.0.2"));
   ASSERT_TRUE(copy);
   EXPECT_EQ(copy->filterAddresss(), 2u);
   conn->filterAddressDel(filter("203.0.113.0/24"));
   conn->filterAddressIs(filter("192.0.2.128/25"), true);
   EXPECT_EQ(copy->filterAddress(), conn->filterAddress());
   localIntf(eth2)->staticConnectionHwDel(skey("10.0.0.2"));
   EXPECT_FALSE(globalIntf(eth2)->staticConnectionHwHas(skey("10.0.0.2")));
   local_->intfStatusDel(eth2);
   EXPECT_FALSE(globalIntf(eth2));
   EXPECT_EQ(sm_->localIntfStatus(eth2), nullptr);

   // VRF-to-VRF rules are copied field by field.
   auto vrf = local_->vrfStatusIs(L3::VrfName("red"));
   auto rule = vrf->staticNatIs(*Lumet::IpAddr::parse("10.9.0.1"));
   rule->srcAddressNewIs(*Lumet::IpAddr::parse("192.0.2.99"));
   rule->outsideVrfIdIs(7);
   auto globalRule = global_->vrfStatus(L3::VrfName("red"))->staticNat(*Lumet::IpAddr::parse("10.9.0.1"));
   ASSERT_TRUE(globalRule);
   EXPECT_EQ(globalRule->srcAddressNew(), rule->srcAddressNew());
   EXPECT_EQ(globalRule->outsideVrfId(), 7u);
   vrf->staticNatDel(*Lumet::IpAddr::parse("10.9.0.1"));
   EXPECT_FALSE(global_->vrfStatus(L3::VrfName("red"))->staticNatHas(*Lumet::IpAddr::parse("10.9.0.1")));
}

TEST_F(AggregateTest, FailedStaticKeyWithdrawsEverywhereAndClearingReturnsIt) {
   localIntf(eth1);
   localIntf(eth2);
   addStatic(eth1, "10.0.0.1", "192.0.2.1", {"198.51.100.0/24", "203.0.113.0/24"});
   addStatic(eth2, "10.0.0.1", "192.0.2.1");
   addStatic(eth1, "10.0.0.2", "192.0.2.2");
   ASSERT_TRUE(globalIntf(eth1)->staticConnectionHwHas(skey("10.0.0.1")));

   failed_->entryIs(dnatKey("10.0.0.1", "192.0.2.1"));
   EXPECT_FALSE(globalIntf(eth1)->staticConnectionHwHas(skey("10.0.0.1")));
   EXPECT_FALSE(globalIntf(eth2)->staticConnectionHwHas(skey("10.0.0.1")));
   EXPECT_TRUE(globalIntf(eth1)->staticConnectionHwHas(skey("10.0.0.2")));
   EXPECT_EQ(logs_.count("NAT_HW_RESOURCE_NORMAL"), 0u);

   // A local change meanwhile does not bring it back.
   localIntf(eth1)->staticConnectionHw(skey("10.0.0.1"))->filterAddressIs(filter("192.0.2.128/25"), true);
   localIntf(eth1)->staticConnectionHwDel(skey("10.0.0.1"));
   addStatic(eth1, "10.0.0.1", "192.0.2.1", {"198.51.100.0/24", "203.0.113.0/24", "192.0.2.128/25"});
   EXPECT_FALSE(globalIntf(eth1)->staticConnectionHwHas(skey("10.0.0.1")));

   // A second failed key; clearing the first leaves the set non-empty.
   failed_->entryIs(snatKey("10.0.0.2", "192.0.2.2"));
   EXPECT_FALSE(globalIntf(eth1)->staticConnectionHwHas(skey("10.0.0.2")));
   failed_->entryDel(dnatKey("10.0.0.1", "192.0.2.1"));
   EXPECT_EQ(logs_.count("NAT_HW_RESOURCE_NORMAL"), 0u);
   // Back on both interfaces at once, with all the filter addresses.
   ASSERT_TRUE(globalIntf(eth1)->staticConnectionHwHas(skey("10.0.0.1")));
   EXPECT_EQ(globalIntf(eth1)->staticConnectionHw(skey("10.0.0.1"))->filterAddresss(), 3u);
   EXPECT_TRUE(globalIntf(eth2)->staticConnectionHwHas(skey("10.0.0.1")));

   failed_->entryDel(snatKey("10.0.0.2", "192.0.2.2"));
   EXPECT_TRUE(globalIntf(eth1)->staticConnectionHwHas(skey("10.0.0.2")));
   EXPECT_EQ(logs_.count("NAT_HW_RESOURCE_NORMAL"), 1u);

   // A rule translated to a multicast address has no source key: a failed
   // key that would be its source half does not hold it back.
   failed_->entryIs(snatKey("10.0.0.3", "239.1.1.1"));
   addStatic(eth1, "10.0.0.3", "239.1.1.1");
   EXPECT_TRUE(globalIntf(eth1)->staticConnectionHwHas(skey("10.0.0.3")));
   failed_->entryDel(snatKey("10.0.0.3", "239.1.1.1"));

   // A rule with an ACL: the key carries the ACL's id, read back by name.
   Ulo::NatAclId const id = acls_->allocateAclId("web");
   auto conn = localIntf(eth1)->staticConnectionHwIs(StaticKey(ipp("10.0.0.4"), "web"), ipp("192.0.2.4"),
                                                     Ip::Nat::source_, 0, 10, true);
   conn->filterAddressIs(filter("198.51.100.0/24"), true);
   ASSERT_TRUE(globalIntf(eth1)->staticConnectionHwHas(StaticKey(ipp("10.0.0.4"), "web")));
   failed_->entryIs(NatHwKey(NatHwKey::staticSnat, ipp("10.0.0.4"), ipp("192.0.2.4"), IpAndPort(), IpAndPort(),
                             id, false));
   EXPECT_FALSE(globalIntf(eth1)->staticConnectionHwHas(StaticKey(ipp("10.0.0.4"), "web")));
}

TEST_F(AggregateTest, TwiceGroupsWithdrawWholeAndReturnOnlyWhenAbsent) {
   auto local = localIntf(eth1);
   ConnTuple const a(ipp("10.0.0.1"), ipp("198.51.100.1"), 0);
   ConnTuple const b(ipp("10.0.0.2"), ipp("198.51.100.2"), 0);
   Ip::Nat::HwNatTwiceAddr const addrA(ipp("192.0.2.1"), ipp("203.0.113.1"));
   Ip::Nat::HwNatTwiceAddr const addrB(ipp("192.0.2.2"), ipp("203.0.113.2"));
   auto group = local->twiceNatConnectionHwIs(1, 0, 10, false);
   group->entryIs(a, addrA);
   group->entryIs(b, addrB);
   ASSERT_TRUE(globalIntf(eth1)->twiceNatConnectionHw(1));
   EXPECT_EQ(globalIntf(eth1)->twiceNatConnectionHw(1)->entrys(), 2u);

   // Counters come across, for failed keys too.
   local->twiceNatConnectionHwCountIs(1)->countIs(a, NatCounter(4, 1));
   failed_->entryIs(twiceReverseKey(1, a, addrA));
   EXPECT_FALSE(globalIntf(eth1)->twiceNatConnectionHwHas(1));   // both entries go
   group->entryIs(a, addrA);   // no change: no notification
   group->entryDel(a);
   group->entryIs(a, addrA);
   EXPECT_FALSE(globalIntf(eth1)->twiceNatConnectionHwHas(1));
   EXPECT_EQ(globalIntf(eth1)->twiceNatConnectionHwCount(1)->count(a), NatCounter(4, 1));

   // Clearing returns the whole group in one go.
   failed_->entryDel(twiceReverseKey(1, a, addrA));
   ASSERT_TRUE(globalIntf(eth1)->twiceNatConnectionHwHas(1));
   EXPECT_EQ(globalIntf(eth1)->twiceNatConnectionHw(1)->entrys(), 2u);

   // A group that stands when its key clears is left as it is.
   failed_->entryIs(twiceForwardKey(1, b, addrB));
   group->entryIs(ConnTuple(ipp("10.0.0.3"), ipp("198.51.100.3"), 0), addrA);   // comes back with this entry
   ASSERT_TRUE(globalIntf(eth1)->twiceNatConnectionHwHas(1));
   failed_->entryDel(twiceForwardKey(1, b, addrB));
   EXPECT_EQ(globalIntf(eth1)->twiceNatConnectionHw(1)->entrys(), 1u);

   // The last entry's deletion takes the group.
   group->entryDel(ConnTuple(ipp("10.0.0.3"), ipp("198.51.100.3"), 0));
   EXPECT_FALSE(globalIntf(eth1)->twiceNatConnectionHwHas(1));
}

TEST_F(AggregateTest, DynamicFlowsCopyWithCountersAndFailedKeysWithdrawThem) {
   auto local = localIntf(eth1);
   ConnTuple const flow(ipp("10.0.0.1:1000"), ipp("198.51.100.1:80"), 6);
   Ip::Nat::DynamicConnectionKey const key(eth1, flow);
   local->dynamicConnectionHwCountIs(flow, NatCounter(3, 2));
   localDynamic_->dynamicConnectionHwIs(Ip::Nat::DynamicConnectionHw(key, ipp("192.0.2.1:5000"), 1.0));
   ASSERT_TRUE(globalDynamic_->dynamicConnectionHwHas(key));
   EXPECT_EQ(globalIntf(eth1)->dynamicConnectionHwCount(flow), NatCounter(3, 2));
   EXPECT_EQ(globalIntf(eth1)->dynamicConnectionHwTotalCnt(), 1u);
   // A changed record counts again.
   localDynamic_->dynamicConnectionHwIs(Ip::Nat::DynamicConnectionHw(key, ipp("192.0.2.1:5000"), 2.0));
   EXPECT_EQ(globalIntf(eth1)->dynamicConnectionHwTotalCnt(), 2u);
   EXPECT_EQ(globalDynamic_->dynamicConnectionHw(key).record.lastChangedTime(), 2.0);

   failed_->entryIs(NatHwKey(NatHwKey::dynamicSnat, flow.srcAddr(), ipp("192.0.2.1:5000"), flow.dstAddr(),
                             flow.dstAddr(), Ulo::NatAclId(), false, 6));
   EXPECT_FALSE(globalDynamic_->dynamicConnectionHwHas(key));
   EXPECT_EQ(globalIntf(eth1)->dynamicConnectionHwCount(flow), NatCounter(3, 2));

   localDynamic_->dynamicConnectionHwDel(key);
   EXPECT_FALSE(globalIntf(eth1)->dynamicConnectionHwCountHas(flow));
   EXPECT_EQ(globalIntf(eth1)->dynamicConnectionHwTotalCnt(), 1u);
}

TEST_F(AggregateTest, UnsupportedKeyLogsNormalWhenTheSetIsEmpty) {
   failed_->entryIs(NatHwKey());
   EXPECT_EQ(logs_.count("NAT_HW_RESOURCE_NORMAL"), 0u);
   failed_->entryDel(NatHwKey());
   EXPECT_EQ(logs_.count("NAT_HW_RESOURCE_NORMAL"), 1u);
}

TEST_F(AggregateTest, DeathWhenATwiceEntryComesForAGroupTheLocalInterfaceLacks) {
   localIntf(eth1)->twiceNatConnectionHwIs(1, 0, 10, false);
   auto reactor = sm_->localIntfStatus(eth1);
   ASSERT_NE(reactor, nullptr);
   EXPECT_DEATH(reactor->handleTwiceHwEntry(2, ConnTuple()), "localcHwConn");
}

// Random local changes and failed keys. A connection has at most one failed
// key at a time and a twice group one entry, the shapes for which the
// global status is exactly the local one minus the connections with a
// failed key; the model checks that after every step.
// Disabled: fails at step 20 of seed 3471570524 with one static connection
// or twice group more in the global status than the model expects; whether
// the model or the machine is wrong is not known yet.
TEST_F(AggregateTest, DISABLED_RandomChangesKeepGlobalEqualToLocalMinusFailed) {
   char const* seedText = std::getenv("ULONAT_SEED");
   unsigned const seed = seedText ? static_cast<unsigned>(std::strtoul(seedText, nullptr, 10)) : std::random_device()();
   int const steps = std::getenv("ULONAT_LONG") ? 200000 : 4000;
   std::printf("seed %u, %d steps\n", seed, steps);
   std::mt19937 rng(seed);
   auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
   Lumet::IntfId const intfs[] = {eth1, eth2};
   for (auto const& intf : intfs) localIntf(intf);
   auto localAddr = [&](int i) { return IpAndPort(*Lumet::IpAddr::parse("10.0.0." + std::to_string(1 + i)), 0); };
   auto globalAddr = [&](int i) { return IpAndPort(*Lumet::IpAddr::parse("192.0.2." + std::to_string(1 + i)), 0); };
   char const* filters[] = {"198.51.100.0/24", "203.0.113.0/24", "192.0.2.128/25"};

   struct StaticKeys {
      NatHwKey src, dst;
   };
   auto keysOf = [&](Ip::Nat::HwNatStaticConnection const& c) {
      return StaticKeys{NatHwKey(NatHwKey::staticSnat, c.key().localAddress(), c.globalAddress(), IpAndPort(),
                                 IpAndPort(), Ulo::NatAclId(), false),
                        NatHwKey(NatHwKey::staticDnat, IpAndPort(), IpAndPort(), c.globalAddress(),
                                 c.key().localAddress(), Ulo::NatAclId(), true)};
   };
   auto twiceKeysOf = [&](U16 g, ConnTuple const& t, Ip::Nat::HwNatTwiceAddr const& a) {
      return StaticKeys{twiceForwardKey(g, t, a), twiceReverseKey(g, t, a)};
   };
   auto isFailed = [&](StaticKeys const& k) { return failed_->entryHas(k.src) || failed_->entryHas(k.dst); };

   auto check = [&](int step) {
      for (auto const& intf : intfs) {
         auto local = localIntf(intf);
         auto global = globalIntf(intf);
         ASSERT_TRUE(global) << "step " << step;
         std::size_t expectedStatic = 0;
         for (auto const& [key, conn] : local->staticConnectionHw()) {
            auto copy = global->staticConnectionHw(key);
            if (isFailed(keysOf(*conn))) {
               ASSERT_FALSE(copy) << "step " << step << " " << key.stringValue();
               continue;
            }
            ++expectedStatic;
            ASSERT_TRUE(copy) << "step " << step << " " << key.stringValue();
            ASSERT_EQ(copy->globalAddress(), conn->globalAddress()) << "step " << step;
            ASSERT_EQ(copy->filterAddress(), conn->filterAddress()) << "step " << step;
         }
         ASSERT_EQ(global->staticConnectionHws(), expectedStatic) << "step " << step;
         std::size_t expectedGroups = 0;
         for (auto const& [group, conn] : local->twiceNatConnectionHw()) {
            if (conn->entrys() == 0) continue;
            auto const& [tuple, addr] = *conn->entry().begin();
            auto copy = global->twiceNatConnectionHw(group);
            if (isFailed(twiceKeysOf(group, tuple, addr))) {
               ASSERT_FALSE(copy) << "step " << step << " group " << group;
               continue;
            }
            ++expectedGroups;
            ASSERT_TRUE(copy) << "step " << step << " group " << group;
            ASSERT_EQ(copy->entry(), conn->entry()) << "step " << step << " group " << group;
         }
         ASSERT_EQ(global->twiceNatConnectionHws(), expectedGroups) << "step " << step;
      }
   };

   std::vector<NatHwKey> failedKeys;
   for (int step = 0; step < steps; ++step) {
      auto local = localIntf(intfs[pick(2)]);
      int const op = pick(8);
      if (op == 0 || op == 1) {   // add or replace a static rule
         StaticKey const key(localAddr(pick(6)));
         IpAndPort const global = globalAddr(pick(3));
         if (auto old = local->staticConnectionHw(key); old && !(old->globalAddress() == global)) {
            local->staticConnectionHwDel(key);
         }
         auto conn = local->staticConnectionHwIs(key, global, Ip::Nat::source_, 0, 10, true);
         conn->filterAddressIs(filter(filters[pick(3)]), true);
      } else if (op == 2 && local->staticConnectionHws()) {   // filter change or delete
         auto it = local->staticConnectionHw().begin();
         std::advance(it, pick(static_cast<int>(local->staticConnectionHws())));
         auto conn = it->second;
         int const what = pick(3);
         if (what == 0) {
            local->staticConnectionHwDel(conn->key());
         } else {
            conn->filterAddressIs(filter(filters[pick(3)]), what == 1);
         }
      } else if (op == 3) {   // a twice group with one entry: add, replace or delete
         U16 const group = static_cast<U16>(1 + pick(4));
         auto conn = local->twiceNatConnectionHwIs(group, 0, 10, false);
         if (conn->entrys()) conn->entryDel(conn->entry().begin()->first);
         if (pick(3) != 0) {
            ConnTuple const tuple(localAddr(pick(3)), IpAndPort(*Lumet::IpAddr::parse("198.51.100.9"), 0), 0);
            conn->entryIs(tuple, Ip::Nat::HwNatTwiceAddr(globalAddr(pick(3)), globalAddr(3 + pick(2))));
         }
      } else if (op <= 5) {   // fail a key of a connection with none failed
         // A failed key withdraws by rule key (static) or by group (twice)
         // on every interface, so only a connection that every interface
         // holding that rule key or group holds alike is a candidate.
         std::vector<StaticKeys> candidates;
         for (auto const& [key, conn] : local->staticConnectionHw()) {
            bool alike = !isFailed(keysOf(*conn));
            for (auto const& intf : intfs) {
               auto other = localIntf(intf)->staticConnectionHw(key);
               if (other && !(other->globalAddress() == conn->globalAddress())) alike = false;
            }
            if (alike) candidates.push_back(keysOf(*conn));
         }
         for (auto const& [group, conn] : local->twiceNatConnectionHw()) {
            if (!conn->entrys()) continue;
            auto const& [tuple, addr] = *conn->entry().begin();
            bool alike = !isFailed(twiceKeysOf(group, tuple, addr));
            for (auto const& intf : intfs) {
               auto other = localIntf(intf)->twiceNatConnectionHw(group);
               if (other && other->entrys() && !(other->entry() == conn->entry())) alike = false;
            }
            if (alike) candidates.push_back(twiceKeysOf(group, tuple, addr));
         }
         if (!candidates.empty()) {
            auto const& keys = candidates[static_cast<std::size_t>(pick(static_cast<int>(candidates.size())))];
            NatHwKey const k = pick(2) ? keys.src : keys.dst;
            failed_->entryIs(k);
            failedKeys.push_back(k);
         }
      } else if (!failedKeys.empty()) {   // clear a failed key
         std::size_t const i = static_cast<std::size_t>(pick(static_cast<int>(failedKeys.size())));
         failed_->entryDel(failedKeys[i]);
         failedKeys.erase(failedKeys.begin() + static_cast<long>(i));
      }
      check(step);
      if (HasFatalFailure()) {
         std::printf("failed at step %d, seed %u\n", step, seed);
         return;
      }
   }
}

} // namespace
