#include "UloNat/UloHelperNat.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "framework/VorReactor.h"
#include "framework/VorTrace.h"
#include "RecordingHelper.h"

namespace {

using namespace Ip::Nat;
using Lumet::IntfId;
using Lumet::IpAddr;
using Lumet::IpAddrWithFullMask;
using Lumet::IpAndPort;
using UloHelper::NatHwResult;
using UloHelper::UloHelperNat;

using UloTest::RecordingHelper;

IpAndPort const local(IpAddr(10, 0, 0, 1), 80);
IpAndPort const global(IpAddr(1, 1, 1, 1), 8080);
IpAddrWithFullMask const fa1(IpAddr(20, 0, 0, 0), 0xff000000);
IpAddrWithFullMask const fa2(IpAddr(30, 0, 0, 0), 0xffff0000);
IpAddrWithFullMask const fa3(IpAddr(40, 0, 0, 0), 0xffffff00);

NatStaticConnection connection(StaticKey::Table table, NatTarget target, IpAndPort g = global,
                               std::vector<IpAddrWithFullMask> filters = {fa1, fa2}) {
   NatStaticConnection conn(StaticKey(local, "", table), g, target, 6, 10, true);
   for (auto const& f : filters) conn.filterAddressIs(f, true);
   return conn;
}

std::string const L = local.stringValue();
std::string const G = global.stringValue();

TEST(UloHelperNatDefaults, SafeDefaultsAndCapabilities) {
   Vor::Ptr<UloHelperNat> helper(new UloHelperNat("plain"));
   EXPECT_FALSE(helper->hwInitialized());
   helper->hwInit();
   helper->hwInit();
   EXPECT_TRUE(helper->hwInitialized());
   EXPECT_TRUE(helper->doHandleAsyncHwStatus(Ulo::NatHwKey()));
   EXPECT_TRUE(helper->updateVrfSourcePolicer(100, 10, 1));
   EXPECT_FALSE(helper->commitHwTranslations());
   EXPECT_FALSE(helper->immediateCommit());
   // Value 1, which is a failure: callers compare with success only.
   NatHwResult const add = helper->addTwiceNatTranslation({}, {}, {}, {}, 6, 10, nullptr, nullptr, true, 1, 0, false);
   NatHwResult const upd = helper->updateTwiceNatTranslation({}, {}, {}, {}, 6, 10, nullptr, nullptr, true, 1, 0, false);
   EXPECT_EQ(static_cast<U32>(add), 1u);
   EXPECT_NE(upd, NatHwResult::success);
   EXPECT_FALSE(helper->addStaticVrfSrcIpTranslation({}, {}, 1, 2));
   helper->srcVrfTranslationResultIs(true);
   EXPECT_TRUE(helper->addStaticVrfSrcIpTranslation({}, {}, 1, 2));
   EXPECT_TRUE(helper->deleteStaticVrfSrcIpTranslation({}, {}, 1, 2));
   EXPECT_FALSE(helper->addStaticVrfDstIpTranslation({}, {}, 1, 2));
   EXPECT_EQ(helper->getDynamicSrcCountersSinceLastPoll(10, {}, 0), NatCounter());

   helper->fullConeHwTcpEntriesIs(true);
   helper->fullConeHwUdpEntriesIs(true);
   EXPECT_TRUE(helper->fullConeHwEntries(6));
   EXPECT_TRUE(helper->fullConeHwEntries(17));
   EXPECT_FALSE(helper->fullConeHwEntries(1));
}

struct CapabilityWatcher {
   int replay = 0;
   int interval = 0;
   void onReplay() { ++replay; }
   void onInterval() { ++interval; }
};

struct CapabilityReactor : Vor::Reactor<UloHelperNat, CapabilityWatcher> {
   static Bindings const& table() {
      static Bindings const b{onScalar<&CapabilityWatcher::onReplay>(UloHelperNat::replayId),
                              onScalar<&CapabilityWatcher::onInterval>(UloHelperNat::counterPollingIntervalId)};
      return b;
   }
   explicit CapabilityReactor(CapabilityWatcher* w) : Reactor(w, table()) {}
};

TEST(UloHelperNatDefaults, CapabilitySettersNotifyOnChangeAndNaNAlwaysChanges) {
   Vor::Ptr<UloHelperNat> helper(new UloHelperNat("plain"));
   CapabilityWatcher w;
   CapabilityReactor reactor(&w);
   reactor.notifierIs(helper);
   helper->replayIs(false);
   helper->replayIs(true);
   helper->replayIs(true);
   EXPECT_EQ(w.replay, 1);
   EXPECT_FALSE(helper->setByName("counterPollingInterval", "2.5").has_value());
   helper->counterPollingIntervalIs(2.5);
   EXPECT_EQ(helper->counterPollingInterval(), 2.5);
   helper->counterPollingIntervalIs(std::numeric_limits<double>::quiet_NaN());
   helper->counterPollingIntervalIs(std::numeric_limits<double>::quiet_NaN());
   EXPECT_EQ(w.interval, 3);
   EXPECT_FALSE(helper->setByName("hwNatProfileSupported", "true").has_value());
   EXPECT_TRUE(helper->hwNatProfileSupported());
   EXPECT_TRUE(helper->setByName("counterPollingInterval", "soon").has_value());
}

TEST(UloHelperNatStatic, AddProgramsEachFilterAddressWithTheTargetsAddressPairs) {
   Vor::Ptr<RecordingHelper> h(new RecordingHelper());
   h->addSrc = h->addDst = RecordingHelper::succeed;

   // Source target: source translation local -> global, destination
   // translation global -> local, direction as stored.
   NatStaticConnection src = connection(StaticKey::ingress, source_);
   EXPECT_TRUE(h->addStaticIpTranslations(src, 10, src.key(), nullptr, nullptr, 0, false));
   std::vector<std::string> expected{
      "src " + L + ">" + G + " " + fa1.stringValue() + " fwd", "dst " + G + ">" + L + " " + fa1.stringValue() + " fwd",
      "src " + L + ">" + G + " " + fa2.stringValue() + " fwd", "dst " + G + ">" + L + " " + fa2.stringValue() + " fwd"};
   EXPECT_EQ(h->calls, expected);

   // Destination target: the pairs swap and the direction is inverted.
   h->calls.clear();
   NatStaticConnection dst = connection(StaticKey::ingress, destination, global, {fa1});
   EXPECT_TRUE(h->addStaticIpTranslations(dst, 10, dst.key(), nullptr, nullptr, 0, false));
   expected = {"src " + G + ">" + L + " " + fa1.stringValue() + " rev",
               "dst " + L + ">" + G + " " + fa1.stringValue() + " rev"};
   EXPECT_EQ(h->calls, expected);

   // Egress: only the translation that the target names.
   h->calls.clear();
   NatStaticConnection egressSrc = connection(StaticKey::egress, source_, global, {fa1});
   EXPECT_TRUE(h->addStaticIpTranslations(egressSrc, 10, egressSrc.key(), nullptr, nullptr, 0, false));
   NatStaticConnection egressDst = connection(StaticKey::egress, destination, global, {fa1});
   EXPECT_TRUE(h->addStaticIpTranslations(egressDst, 10, egressDst.key(), nullptr, nullptr, 0, false));
   ASSERT_EQ(h->calls.size(), 2u);
   EXPECT_EQ(h->calls[0].substr(0, 4), "src ");
   EXPECT_EQ(h->calls[1].substr(0, 4), "dst ");

   // A multicast group as translated address gets no source translation.
   h->calls.clear();
   IpAndPort const group(IpAddr(239, 1, 1, 1), 0);
   NatStaticConnection mcast = connection(StaticKey::ingress, source_, group, {fa1});
   EXPECT_TRUE(h->addStaticIpTranslations(mcast, 10, mcast.key(), nullptr, nullptr, 0, false));
   ASSERT_EQ(h->calls.size(), 1u);
   EXPECT_EQ(h->calls[0].substr(0, 4), "dst ");

   // No filter address: nothing to program, and that is a success.
   h->calls.clear();
   NatStaticConnection none = connection(StaticKey::ingress, source_, global, {});
   EXPECT_TRUE(h->addStaticIpTranslations(none, 10, none.key(), nullptr, nullptr, 0, false));
   EXPECT_TRUE(h->calls.empty());
}

TEST(UloHelperNatStatic, AnOperationLeftAtItsDefaultFailsTheAdd) {
   std::vector<std::string> traces;
   Vor::traceSinkIs([&](Vor::TraceHandle const& handle, int, std::string_view text) {
      if (std::string(handle.name()) == "UloHelperNat") traces.emplace_back(text);
   });
   Vor::traceEnable("UloHelperNat", 1);

   // Only the destination add is overridden: the source step, still the
   // default, fails the first filter address and the destination step is
   // never reached.
   Vor::Ptr<RecordingHelper> h(new RecordingHelper());
   h->addDst = RecordingHelper::succeed;
   NatStaticConnection conn = connection(StaticKey::ingress, source_);
   EXPECT_FALSE(h->addStaticIpTranslations(conn, 10, conn.key(), nullptr, nullptr, 0, false));
   EXPECT_TRUE(h->calls.empty());
   ASSERT_EQ(traces.size(), 1u);
   EXPECT_EQ(traces[0], "Error programming SNAT in HW: localIp: " + L + " globalIp: " + G +
                           " filterIp: 20.0.0.0/8 vlan: 10 target: 0 tbl: 0 dir: 1");

   // An override that answers true but only by running the base
   // implementation is still the default.
   h->addSrc = RecordingHelper::forwardToBase;
   EXPECT_FALSE(h->addStaticIpTranslations(conn, 10, conn.key(), nullptr, nullptr, 0, false));
   EXPECT_EQ(h->calls.size(), 1u);

   // A refusal on the second filter address leaves the first programmed.
   h->calls.clear();
   h->addSrc = RecordingHelper::succeed;
   h->addDst = RecordingHelper::succeed;
   int adds = 0;
   h->onAddSrc = [&](IpAddrWithFullMask const&) {
      if (++adds == 2) h->addDst = RecordingHelper::fail;
   };
   traces.clear();
   EXPECT_FALSE(h->addStaticIpTranslations(conn, 10, conn.key(), nullptr, nullptr, 0, false));
   EXPECT_EQ(h->calls.size(), 4u);
   ASSERT_EQ(traces.size(), 1u);
   EXPECT_EQ(traces[0].substr(0, 30), "Error programming DNAT in HW: ");

   Vor::traceDisableAll();
   Vor::traceSinkIs(nullptr);
}

TEST(UloHelperNatStatic, FilterAddressWalkSurvivesChangesMadeDuringACall) {
   Vor::Ptr<RecordingHelper> h(new RecordingHelper());
   h->addSrc = h->addDst = RecordingHelper::succeed;
   NatStaticConnection conn = connection(StaticKey::egress, source_, global, {fa1, fa2, fa3});
   IpAddrWithFullMask const fa4(IpAddr(50, 0, 0, 0), 0xff000000);
   IpAddrWithFullMask const fa0(IpAddr(5, 0, 0, 0), 0xff000000);
   // While the first address is programmed, the next one and the one being
   // programmed go, an address behind it and one before it come.
   h->onAddSrc = [&](IpAddrWithFullMask const& f) {
      if (f == fa1) {
         conn.filterAddressDel(fa2);
         conn.filterAddressDel(fa1);
         conn.filterAddressIs(fa4, true);
         conn.filterAddressIs(fa0, true);
      }
   };
   EXPECT_TRUE(h->addStaticIpTranslations(conn, 10, conn.key(), nullptr, nullptr, 0, false));
   std::vector<std::string> visited;
   for (auto const& c : h->calls) visited.push_back(c.substr(c.find(' ', 4) + 1, c.rfind(' ') - c.find(' ', 4) - 1));
   std::vector<std::string> const expected{fa1.stringValue(), fa3.stringValue(), fa4.stringValue()};
   EXPECT_EQ(visited, expected);
}

TEST(UloHelperNatStatic, UpdatesWalkAllFilterAddressesAndReportTheFailureText) {
   std::vector<std::string> traces;
   Vor::traceSinkIs([&](Vor::TraceHandle const&, int, std::string_view text) { traces.emplace_back(text); });
   Vor::traceEnable("UloHelperNat", 1);

   Vor::Ptr<RecordingHelper> h(new RecordingHelper());
   h->updDst = RecordingHelper::succeed;
   NatStaticConnection conn(StaticKey(local, "web", StaticKey::ingress), global, destination, 6, 10, false);
   conn.filterAddressIs(fa1, true);
   conn.filterAddressIs(fa2, true);
   EXPECT_TRUE(h->updateStaticDstIpTranslations(conn, 10, conn.key(), nullptr, nullptr, 0));
   std::vector<std::string> const expected{"updDst " + L + ">" + G + " " + fa1.stringValue(),
                                           "updDst " + L + ">" + G + " " + fa2.stringValue()};
   EXPECT_EQ(h->calls, expected);
   EXPECT_TRUE(traces.empty());

   // The source update is left at its default: a failure, with the text
   // that operators look for (it says DIP for the source update too).
   EXPECT_FALSE(h->updateStaticSrcIpTranslations(conn, 10, conn.key(), nullptr, nullptr, 0));
   ASSERT_EQ(traces.size(), 1u);
   EXPECT_EQ(traces[0], "Error updating SIP in HW: NatIntfStatusSm key: " + L +
                           " acl: web updateStaticConnection failed DIP");
   Vor::traceDisableAll();
   Vor::traceSinkIs(nullptr);
}

TEST(UloHelperNatStaticDeathTest, UpdatesAssertTheirPreconditions) {
   Vor::Ptr<RecordingHelper> h(new RecordingHelper());
   NatStaticConnection egressSrc = connection(StaticKey::egress, source_, global, {fa1});
   EXPECT_DEATH(h->updateStaticDstIpTranslations(egressSrc, 10, egressSrc.key(), nullptr, nullptr, 0),
                "staticKey\\.table\\(\\) != Ip::Nat::egress\\(\\) \\|\\| connEntry\\.target\\(\\) == "
                "Ip::Nat::destination\\(\\)");
   NatStaticConnection egressDst = connection(StaticKey::egress, destination, global, {fa1});
   EXPECT_DEATH(h->updateStaticSrcIpTranslations(egressDst, 10, egressDst.key(), nullptr, nullptr, 0),
                "staticKey\\.table\\(\\) != Ip::Nat::egress\\(\\) \\|\\| connEntry\\.target\\(\\) == "
                "Ip::Nat::source_");
   NatStaticConnection none = connection(StaticKey::ingress, source_, global, {});
   EXPECT_DEATH(h->updateStaticDstIpTranslations(none, 10, none.key(), nullptr, nullptr, 0),
                "connEntry\\.filterAddresss\\(\\)");
   EXPECT_DEATH(h->updateStaticSrcIpTranslations(none, 10, none.key(), nullptr, nullptr, 0),
                "connEntry\\.filterAddresss\\(\\)");
}

TEST(UloHelperNatStatic, DeleteCallsOnlyTheTranslationsTheEntryHas) {
   Vor::Ptr<RecordingHelper> h(new RecordingHelper());
   h->delSrc = h->delDst = RecordingHelper::fail;   // results are ignored
   NatStaticConnection egressSrc = connection(StaticKey::egress, source_);
   h->deleteStaticIpTranslations(egressSrc, 10, egressSrc.key(), 0);
   EXPECT_EQ(h->calls, std::vector<std::string>{"delSrc fwd"});

   h->calls.clear();
   NatStaticConnection egressDst = connection(StaticKey::egress, destination);
   h->deleteStaticIpTranslations(egressDst, 10, egressDst.key(), 0);
   EXPECT_EQ(h->calls, std::vector<std::string>{"delDst rev"});

   // A platform without a destination delete still gets its source delete.
   h->calls.clear();
   h->delDst = RecordingHelper::base;
   NatStaticConnection ingress = connection(StaticKey::ingress, source_);
   h->deleteStaticIpTranslations(ingress, 10, ingress.key(), 0);
   EXPECT_EQ(h->calls, std::vector<std::string>{"delSrc fwd"});
}

Vor::Ptr<NatDynamicTrapRule> trapRule(bool addrOnly) {
   Vor::Ptr<NatDynamicTrapRule> rule(new NatDynamicTrapRule(DynamicKey("dyn", 7)));
   rule->vlanIdIs(10);
   rule->ruleIdIs(3);
   rule->addrOnlyIs(addrOnly);
   return rule;
}

TEST(UloHelperNatTrap, AddTrapRulesAnswersFalseOnSuccessAndTrueOnFailure) {
   Vor::Ptr<RecordingHelper> h(new RecordingHelper());
   IntfId const intf("Ethernet1");
   EXPECT_FALSE(h->addTrapRules(nullptr, "dyn", intf));
   auto rule = trapRule(false);
   EXPECT_FALSE(h->addTrapRules(rule, "dyn", intf));   // no filters

   IpAddrWithFullMask const any;
   rule->trapFilterIs(NatTrapFilter(1, fa1, any));
   rule->trapFilterIs(NatTrapFilter(2, fa2, any));
   EXPECT_TRUE(h->addTrapRules(rule, "dyn", intf));    // addTrapRule left at its default
   h->trap = RecordingHelper::succeed;
   EXPECT_FALSE(h->addTrapRules(rule, "dyn", intf));
   EXPECT_EQ(h->calls, (std::vector<std::string>{"trap 1 group 7", "trap 2 group 7"}));

   // Address-only rules also need the ACL rule of each trapping filter, and
   // its failure fails the whole.
   h->calls.clear();
   auto addrOnly = trapRule(true);
   addrOnly->trapFilterIs(NatTrapFilter(1, fa1, any, true));   // deny: no ACL rule
   addrOnly->trapFilterIs(NatTrapFilter(2, fa2, any));
   h->addrOnlyAcl = RecordingHelper::succeed;
   EXPECT_FALSE(h->addTrapRules(addrOnly, "dyn", intf));
   EXPECT_EQ(h->calls, (std::vector<std::string>{"trap 1 group 7", "trap 2 group 7", "addrOnlyAcl " + fa2.stringValue()}));
   h->addrOnlyAcl = RecordingHelper::fail;
   EXPECT_TRUE(h->addTrapRules(addrOnly, "dyn", intf));

   // A service filter goes to addServiceTrapRule.
   h->calls.clear();
   auto ftp = trapRule(true);
   ftp->trapFilterIs(NatTrapFilter(1, fa1, any, true, false, 0, 21));
   EXPECT_TRUE(h->addTrapRules(ftp, "dyn", intf));
   h->service = RecordingHelper::succeed;
   EXPECT_FALSE(h->addTrapRules(ftp, "dyn", intf));
   EXPECT_EQ(h->calls, std::vector<std::string>{"service 0 21"});
}

TEST(UloHelperNatTrap, FilterWalkSurvivesRemovalOfTheNextFilter) {
   Vor::Ptr<RecordingHelper> h(new RecordingHelper());
   h->trap = RecordingHelper::succeed;
   auto rule = trapRule(false);
   IpAddrWithFullMask const any;
   for (U32 seq : {1u, 2u, 3u}) rule->trapFilterIs(NatTrapFilter(seq, any, any));
   h->onTrap = [&](U32 seq) {
      if (seq == 1) rule->trapFilterDel(NatTrapFilter(2, any, any));
   };
   EXPECT_FALSE(h->addTrapRules(rule, "dyn", IntfId("Ethernet1")));
   EXPECT_EQ(h->calls, (std::vector<std::string>{"trap 1 group 7", "trap 3 group 7"}));
}

TEST(UloHelperNatTrap, ProtocolFiltersExpandIntoPortValueAndMaskPairs) {
   Vor::Ptr<RecordingHelper> h(new RecordingHelper());
   h->protoTrap = RecordingHelper::succeed;
   auto rule = trapRule(false);
   IpAddrWithFullMask const any;
   rule->trapFilterIs(NatTrapFilter(4, fa1, any, false, false, 0, 0, 6, Acl::PortSpec::rangePorts(1024, 65535),
                                    Acl::PortSpec::eqPorts({80})));
   EXPECT_FALSE(h->addTrapRules(rule, "dyn", IntfId("Ethernet1")));
   std::vector<std::string> const expected{
      "proto 4 1024/fc00 80/ffff", "proto 4 2048/f800 80/ffff", "proto 4 4096/f000 80/ffff",
      "proto 4 8192/e000 80/ffff", "proto 4 16384/c000 80/ffff", "proto 4 32768/8000 80/ffff"};
   EXPECT_EQ(h->calls, expected);

   // Any port on both sides: one rule with every value and mask zero.
   h->calls.clear();
   NatTrapFilter const anyPorts(1, any, any, false, false, 0, 0, 17);
   EXPECT_TRUE(h->addProtocolTrapRules("dyn", rule, anyPorts));
   EXPECT_EQ(h->calls, std::vector<std::string>{"proto 1 0/0000 0/0000"});

   // Source ports outside the destination: source pairs are the outer loop.
   h->calls.clear();
   NatTrapFilter const two(2, any, any, false, false, 0, 0, 6, Acl::PortSpec::eqPorts({20, 22}),
                           Acl::PortSpec::rangePorts(6, 7));
   EXPECT_TRUE(h->addProtocolTrapRules("dyn", rule, two));
   EXPECT_EQ(h->calls, (std::vector<std::string>{"proto 2 20/ffff 6/fffe", "proto 2 22/ffff 6/fffe"}));

   // A port list that cannot become ranges ends at once, with true.
   h->calls.clear();
   NatTrapFilter const none(3, any, any, false, false, 0, 0, 6, Acl::PortSpec::ltPort(0));
   EXPECT_TRUE(h->addProtocolTrapRules("dyn", rule, none));
   EXPECT_TRUE(h->calls.empty());

   // The default protocol rule is a failure; through addTrapRules it reads
   // as true.
   h->protoTrap = RecordingHelper::base;
   EXPECT_FALSE(h->addProtocolTrapRules("dyn", rule, anyPorts));
   EXPECT_TRUE(h->addTrapRules(rule, "dyn", IntfId("Ethernet1")));
}

TEST(UloHelperNatTrapDeathTest, ServiceFilterNeedsAnAddressOnlyRule) {
   Vor::Ptr<RecordingHelper> h(new RecordingHelper());
   auto rule = trapRule(false);
   rule->trapFilterIs(NatTrapFilter(1, IpAddrWithFullMask(), IpAddrWithFullMask(), false, false, 0, 21));
   EXPECT_DEATH(h->addTrapRules(rule, "dyn", IntfId("Ethernet1")), "trapRule->addrOnly\\(\\)");
}

} // namespace
