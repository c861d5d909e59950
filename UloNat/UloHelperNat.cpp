#include "UloNat/UloHelperNat.h"

#include <cstdio>
#include <optional>

#include "framework/AclPortSpec.h"
#include "UloNat/UloNatAclTypes.h"
#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloHelperNat")

// An invariant whose message is given as text, for the few whose message
// names the fields by the accessor spelling that operators know from the
// logs rather than by this code's expression.
#define ULO_ASSERT_TEXT(condition, text)                                                    \
   ((condition) ? static_cast<void>(0)                                                      \
                : ::Ulo::assertFailed(text, __FILE__, __LINE__, __PRETTY_FUNCTION__))

namespace UloHelper {

namespace {
// The most port ranges one side of a trap filter may need.
} // namespace

enum class UloHelperNat::Operation : U8 {
   hwInit = 1,
   hwCleanup,
   setNatProfile,
   clearNatProfile,
   doHandleAsyncHwStatus,
   addStaticSrcIpTranslation,
   addStaticDstIpTranslation,
   addStaticIpTranslations,
   updateStaticDstIpTranslation,
   updateStaticSrcIpTranslation,
   updateStaticDstIpTranslations,
   updateStaticSrcIpTranslations,
   deleteStaticIpTranslations,
   deleteStaticSrcIpTranslation,
   deleteStaticDstIpTranslation,
   commitHwTranslations,
   addTrapAllRule,
   addTrapRules,
   addTrapRule,
   addProtocolTrapRule,
   delTrapRule,
   commitTrapRules,
   addDynamicSrcIpTranslation,
   addDynamicDstIpTranslation,
   updateDynamicDstIpTranslation,
   deleteDynamicSrcIpTranslation,
   deleteDynamicDstIpTranslation,
   getStaticSrcCountersSinceLastPoll,
   getStaticDstCountersSinceLastPoll,
   getDynamicSrcCountersSinceLastPoll,
   getDynamicDstCountersSinceLastPoll,
   getTwiceNatSrcCountersSinceLastPoll,
   getTwiceNatDstCountersSinceLastPoll,
   dynamicTwiceActive,
   addTwiceNatTranslation,
   delTwiceNatTranslation,
   updateTwiceNatTranslation,
   addStaticVrfSrcIpTranslation,
   addStaticVrfDstIpTranslation,
   deleteStaticVrfSrcIpTranslation,
   deleteStaticVrfDstIpTranslation,
   updateVrfSourcePolicer,
   handleVerifyInit,
   verifyStaticNat,
   verifyDynamicNat,
   verifyTwiceNat,
   updateCounterStatus,
   addServiceTrapRule,
   addAddrOnlyAclRule,
   delAddrOnlyAclSliceRule,
   addAddrOnlyDenyAllAcl,
   doMaybeDelAddrOnlyDenyAllAcl,
   commitAddrOnlyAclSliceRules,
   replayReconcile,
   immediateCommit,
};

// One call of a single operation from a composite: while it lives, the
// default implementation of `op` marks it as having run. Probes nest (an
// override may itself call a composite), the innermost one listening.
class UloHelperNat::DefaultProbe {
 public:
   DefaultProbe(UloHelperNat* helper, Operation op) : helper_(helper), op_(op), outer_(helper->probe_) {
      helper_->probe_ = this;
   }
   ~DefaultProbe() { helper_->probe_ = outer_; }
   DefaultProbe(DefaultProbe const&) = delete;
   DefaultProbe& operator=(DefaultProbe const&) = delete;

   Operation op() const { return op_; }
   bool ranAsDefault() const { return ranAsDefault_; }
   void ranAsDefaultIs() { ranAsDefault_ = true; }

 private:
   UloHelperNat* helper_;
   Operation op_;
   DefaultProbe* outer_;
   bool ranAsDefault_ = false;
};

void UloHelperNat::operationRanAsDefault(Operation op) {
   if (probe_ && probe_->op() == op) probe_->ranAsDefaultIs();
}

template <typename Call>
bool UloHelperNat::programmed(Operation op, Call call) {
   DefaultProbe probe(this, op);
   bool const ok = call();
   return ok && !probe.ranAsDefault();
}

char const* natHwResultName(NatHwResult result) {
   switch (result) {
      case NatHwResult::success: return "success";
      case NatHwResult::tableFull: return "tableFull";
      case NatHwResult::duplicateEntry: return "duplicateEntry";
      case NatHwResult::error: return "error";
   }
   return "unknown";
}

UloHelperNat::UloHelperNat(Vor::String name) : Ulo::UloBaseHelper(std::move(name)) {}

UloHelperNat::~UloHelperNat() = default;

void UloHelperNat::counterPollingIntervalIs(double v) {
   // A NaN compares unequal to everything, itself included, so it always
   // counts as a change.
   scalarIs(counterPollingInterval_, v, counterPollingIntervalId);
}

bool UloHelperNat::fullConeHwEntries(U8 proto) const {
   if (proto == 6) return fullConeHwTcpEntries_;
   if (proto == 17) return fullConeHwUdpEntries_;
   return false;
}

namespace {

std::optional<bool> parseBool(std::string const& text) {
   if (text == "true" || text == "1") return true;
   if (text == "false" || text == "0") return false;
   return std::nullopt;
}

Vor::AttributeDescription boolAttribute(char const* name, Vor::AttributeId id,
                                        bool (UloHelperNat::*get)() const,
                                        void (UloHelperNat::*set)(bool)) {
   Vor::AttributeDescription a;
   a.name = name;
   a.id = id;
   a.get = [get](Vor::Entity const& e) {
      return std::string((static_cast<UloHelperNat const&>(e).*get)() ? "true" : "false");
   };
   a.set = [set, name](Vor::Entity& e, std::string const& text) -> std::optional<std::string> {
      std::optional<bool> v = parseBool(text);
      if (!v) return "invalid value '" + text + "' for " + name + ": expected true, false, 1 or 0";
      (static_cast<UloHelperNat&>(e).*set)(*v);
      return std::nullopt;
   };
   return a;
}

} // namespace

Vor::TypeDescription const& UloHelperNat::typeDescription() {
   static Vor::TypeDescription const type = [] {
      using H = UloHelperNat;
      Vor::TypeDescription t("UloHelper::UloHelperNat");
      t.attributeIs(boolAttribute("replay", replayId, &H::replay, &H::replayIs));
      t.attributeIs(boolAttribute("hwInitialized", hwInitializedId, &H::hwInitialized, &H::hwInitializedIs));
      t.attributeIs(boolAttribute("hwNatProfileSupported", hwNatProfileSupportedId,
                                  &H::hwNatProfileSupported, &H::hwNatProfileSupportedIs));
      t.attributeIs(boolAttribute("skipDeferredProcessingOnInit", skipDeferredProcessingOnInitId,
                                  &H::skipDeferredProcessingOnInit, &H::skipDeferredProcessingOnInitIs));
      t.attributeIs(boolAttribute("globalHwDynamicEntries", globalHwDynamicEntriesId,
                                  &H::globalHwDynamicEntries, &H::globalHwDynamicEntriesIs));
      t.attributeIs(boolAttribute("fullConeHwUdpEntries", fullConeHwUdpEntriesId, &H::fullConeHwUdpEntries,
                                  &H::fullConeHwUdpEntriesIs));
      t.attributeIs(boolAttribute("fullConeHwTcpEntries", fullConeHwTcpEntriesId, &H::fullConeHwTcpEntries,
                                  &H::fullConeHwTcpEntriesIs));
      Vor::AttributeDescription interval;
      interval.name = "counterPollingInterval";
      interval.id = counterPollingIntervalId;
      interval.get = [](Vor::Entity const& e) {
         return std::to_string(static_cast<H const&>(e).counterPollingInterval());
      };
      interval.set = [](Vor::Entity& e, std::string const& text) -> std::optional<std::string> {
         try {
            std::size_t used = 0;
            double v = std::stod(text, &used);
            if (used != text.size()) throw std::invalid_argument(text);
            static_cast<H&>(e).counterPollingIntervalIs(v);
            return std::nullopt;
         } catch (std::exception const&) {
            return "invalid value '" + text + "' for counterPollingInterval: expected seconds";
         }
      };
      t.attributeIs(interval);
      t.attributeIs(boolAttribute("srcVrfTranslationResult", srcVrfTranslationResultId,
                                  &H::srcVrfTranslationResult, &H::srcVrfTranslationResultIs));
      t.attributeIs(boolAttribute("dstVrfTranslationResult", dstVrfTranslationResultId,
                                  &H::dstVrfTranslationResult, &H::dstVrfTranslationResultIs));
      return t;
   }();
   return type;
}

Vor::TypeDescription const* UloHelperNat::fwkType() const { return &typeDescription(); }

// ---------------------------------------------------------------------------
// Composite static operations

namespace {

// The two translations of a static connection. The source translation
// rewrites the side that the rule's target names as seen from inside.
struct StaticAddressPairs {
   Lumet::IpAndPort srcOld;
   Lumet::IpAndPort srcNew;
   Lumet::IpAndPort dstOld;
   Lumet::IpAndPort dstNew;
   bool forward;
};

StaticAddressPairs staticAddressPairs(Ip::Nat::NatStaticConnection const& connEntry,
                                      Ip::Nat::StaticKey const& staticKey) {
   Lumet::IpAndPort const local = staticKey.localAddress();
   Lumet::IpAndPort const global = connEntry.globalAddress();
   if (connEntry.target() == Ip::Nat::source_) {
      return {local, global, global, local, connEntry.forward()};
   }
   return {global, local, local, global, !connEntry.forward()};
}

std::string filterAddressText(Lumet::IpAddrWithFullMask const& addr) {
   return addr.ip().stringValue() + "/" + std::to_string(addr.prefixLength());
}

// "localIp: %s globalIp: %s filterIp: %s vlan: %d target: %d tbl: %d dir: %d"
std::string staticEntryText(Ip::Nat::NatStaticConnection const& connEntry,
                            Ip::Nat::StaticKey const& staticKey, Lumet::IpAddrWithFullMask const& filter,
                            U16 vlan, bool forward) {
   Vor::String const text =
      Vor::format("localIp: %s globalIp: %s filterIp: %s vlan: %d target: %d tbl: %d dir: %d",
                  staticKey.localAddress().stringValue().c_str(),
                  connEntry.globalAddress().stringValue().c_str(), filterAddressText(filter).c_str(),
                  static_cast<int>(vlan), static_cast<int>(connEntry.target()),
                  static_cast<int>(staticKey.table()), static_cast<int>(forward));
   return text.stdString();
}

// Walks a connection's filter addresses in order while the calls made for
// each may change the collection: after each step it finds its place again
// from the address just handled (the next one above it; if that one is
// gone, the next larger), so that nothing is visited twice and nothing
// still present is skipped. `visit` returns false to stop the walk; the
// walk then returns false.
template <typename Set, typename Visit>
bool walkInOrder(Set const& set, Visit visit) {
   auto it = set.begin();
   while (it != set.end()) {
      auto const current = *it;
      if (!visit(current)) return false;
      it = set.upper_bound(current);
   }
   return true;
}

} // namespace

bool UloHelperNat::addStaticIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                           Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                           MulticastInfo multicastInfo, Ulo::VrfId vrfId,
                                           bool /*aclSharing*/) {
   StaticAddressPairs const pairs = staticAddressPairs(connEntry, staticKey);
   Ip::Nat::NatTarget const target = connEntry.target();
   bool const egress = staticKey.table() == Ip::Nat::StaticKey::egress;
   U8 const protocol = connEntry.protocol();

   return walkInOrder(connEntry.filterAddress(), [&](Lumet::IpAddrWithFullMask const& filter) {
      std::string const text = staticEntryText(connEntry, staticKey, filter, vlan, pairs.forward);
      // A multicast group as translated address never gets a source
      // translation; an egress entry gets only the translation that its
      // target names.
      bool const skipSource =
         pairs.srcNew.ip().isMulticast() || (target == Ip::Nat::destination && egress);
      if (!skipSource) {
         bool const ok = programmed(Operation::addStaticSrcIpTranslation, [&] {
            return addStaticSrcIpTranslation(pairs.srcOld, pairs.srcNew, filter, protocol, vlan, staticKey,
                                             pairs.forward, vrfId);
         });
         if (!ok) {
            VOR_TRACE(1, "Error programming SNAT in HW: " << text);
            return false;
         }
      }
      bool const skipDestination = target == Ip::Nat::source_ && egress;
      if (!skipDestination) {
         bool const ok = programmed(Operation::addStaticDstIpTranslation, [&] {
            return addStaticDstIpTranslation(pairs.dstOld, pairs.dstNew, filter, protocol, vlan, staticKey,
                                             nextHop, multicastInfo, pairs.forward, vrfId);
         });
         if (!ok) {
            VOR_TRACE(1, "Error programming DNAT in HW: " << text);
            return false;
         }
      }
      return true;
   });
}

namespace {

std::string updateFailureText(Ip::Nat::StaticKey const& staticKey) {
   // The same words for the source and the destination update: operators
   // and their scripts look for this text.
   return "NatIntfStatusSm key: " + staticKey.localAddress().stringValue() +
          " acl: " + staticKey.aclName().stdString() + " updateStaticConnection failed DIP";
}

} // namespace

bool UloHelperNat::updateStaticDstIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                                 Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                                 MulticastInfo multicastInfo, Ulo::VrfId vrfId) {
   ULO_ASSERT_TEXT(staticKey.table() != Ip::Nat::StaticKey::egress ||
                      connEntry.target() == Ip::Nat::destination,
                   "staticKey.table() != Ip::Nat::egress() || connEntry.target() == "
                   "Ip::Nat::destination()");
   uloAssert(connEntry.filterAddresss());
   StaticAddressPairs const pairs = staticAddressPairs(connEntry, staticKey);
   U8 const protocol = connEntry.protocol();
   return walkInOrder(connEntry.filterAddress(), [&](Lumet::IpAddrWithFullMask const& filter) {
      bool const ok = programmed(Operation::updateStaticDstIpTranslation, [&] {
         return updateStaticDstIpTranslation(pairs.dstOld, pairs.dstNew, filter, protocol, vlan, staticKey,
                                             nextHop, multicastInfo, pairs.forward, vrfId);
      });
      if (!ok) {
         VOR_TRACE(1, "Error updating DIP in HW: " << updateFailureText(staticKey));
         return false;
      }
      return true;
   });
}

bool UloHelperNat::updateStaticSrcIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                                 Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                                 MulticastInfo multicastInfo, Ulo::VrfId vrfId) {
   ULO_ASSERT_TEXT(staticKey.table() != Ip::Nat::StaticKey::egress ||
                      connEntry.target() == Ip::Nat::source_,
                   "staticKey.table() != Ip::Nat::egress() || connEntry.target() == Ip::Nat::source_");
   uloAssert(connEntry.filterAddresss());
   StaticAddressPairs const pairs = staticAddressPairs(connEntry, staticKey);
   U8 const protocol = connEntry.protocol();
   return walkInOrder(connEntry.filterAddress(), [&](Lumet::IpAddrWithFullMask const& filter) {
      bool const ok = programmed(Operation::updateStaticSrcIpTranslation, [&] {
         return updateStaticSrcIpTranslation(pairs.srcOld, pairs.srcNew, filter, protocol, vlan, staticKey,
                                             nextHop, multicastInfo, pairs.forward, vrfId);
      });
      if (!ok) {
         VOR_TRACE(1, "Error updating SIP in HW: " << updateFailureText(staticKey));
         return false;
      }
      return true;
   });
}

void UloHelperNat::deleteStaticIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                              Ip::Nat::StaticKey const& staticKey, Ulo::VrfId vrfId) {
   Ip::Nat::NatTarget const target = connEntry.target();
   bool const egress = staticKey.table() == Ip::Nat::StaticKey::egress;
   bool const forward = target == Ip::Nat::destination ? !connEntry.forward() : connEntry.forward();
   // A delete left at its default does nothing, so calling it is the same
   // as not calling it; the results are not examined either way.
   if (!(target == Ip::Nat::destination && egress)) {
      (void)deleteStaticSrcIpTranslation(vlan, staticKey, forward, vrfId);
   }
   if (!egress || target == Ip::Nat::destination) {
      (void)deleteStaticDstIpTranslation(vlan, staticKey, forward, vrfId);
   }
}

// ---------------------------------------------------------------------------
// Trap rule expansion

bool UloHelperNat::addTrapRules(Vor::Ptr<Ip::Nat::NatDynamicTrapRule const> trapRule, Vor::String aclName,
                                Lumet::IntfId natIntf) {
   if (!trapRule) return false;
   Ip::Nat::NatDynamicTrapRule const& rule = *trapRule;
   std::string const failurePrefix = std::string("NatIntfStatusSm - ") + "addTrapRules" +
                                     ", natIntf: " + natIntf.stringValue() + ", acl: " + aclName.stdString();
   auto const& filters = rule.trapFilter();
   auto it = filters.begin();
   while (it != filters.end()) {
      Ip::Nat::NatTrapFilter const filter = *it;
      std::uint64_t const version = rule.trapFilterVersion();
      VOR_TRACE(5, "SeqNum: " << filter.seqNum() << ", src: " << filter.srcIpAndMask().stringValue()
                              << ", dst: " << filter.dstIpAndMask().stringValue()
                              << ", proto: " << static_cast<int>(filter.proto()));
      if (filter.srcPort() != 0 || filter.dstPort() != 0) {
         // A service filter (FTP and the like) exists only on address-only
         // rules.
         uloAssert(trapRule->addrOnly());
         bool const ok = programmed(Operation::addServiceTrapRule, [&] {
            return addServiceTrapRule(rule.vlanId(), aclName, rule.ruleId(), filter.srcIpAndMask(),
                                      filter.srcPort(), filter.dstIpAndMask(), filter.dstPort(),
                                      filter.filterFlag(), filter.deny(), rule.target());
         });
         if (!ok) {
            VOR_TRACE(1, "Failed to add addr only ftp acl rule");
            VOR_TRACE(1, failurePrefix << ", addServiceTrapRule failed");
            return true;
         }
      } else {
         bool ok;
         if (filter.proto() != 0) {
            ok = addProtocolTrapRules(aclName, trapRule, filter);
         } else {
            ok = programmed(Operation::addTrapRule, [&] {
               return addTrapRule(rule.vlanId(), aclName, rule.ruleId(), filter.seqNum(),
                                  filter.srcIpAndMask(), filter.dstIpAndMask(), filter.filterFlag(),
                                  filter.deny(), rule.addrOnly(), rule.fullCone(), rule.key().group(),
                                  rule.poolId(), rule.target());
            });
         }
         if (!ok) {
            VOR_TRACE(1, "Failed to add Trap rule");
            VOR_TRACE(1, failurePrefix << ", handleTrapRule failed");
            return true;
         }
         if (rule.addrOnly() && !filter.deny()) {
            bool const aclOk = programmed(Operation::addAddrOnlyAclRule, [&] {
               return addAddrOnlyAclRule(rule.vlanId(), aclName, rule.ruleId(), filter.srcIpAndMask(),
                                         filter.dstIpAndMask(), filter.filterFlag(), rule.target());
            });
            if (!aclOk) {
               VOR_TRACE(1, "Failed to add addr only acl rule");
               VOR_TRACE(1, failurePrefix << ", addAddrOnlyAclRule failed");
               return true;
            }
         }
      }
      // The calls may have changed the rule's filters: find the place again
      // from this filter when they did.
      if (rule.trapFilterVersion() != version) {
         it = filters.upper_bound(filter);
      } else {
         ++it;
      }
   }
   return false;
}

bool UloHelperNat::addProtocolTrapRules(Vor::String aclName,
                                        Vor::Ptr<Ip::Nat::NatDynamicTrapRule const> trapRule,
                                        Ip::Nat::NatTrapFilter const& filter) {
   Ip::Nat::NatDynamicTrapRule const& rule = *trapRule;
   // Each side's ports as ranges, and each range as value-and-mask pairs;
   // ports that match anything give one pseudo-range whose only pair has
   // value and mask 0. A negative count is the expansion's error.
   std::vector<Acl::U16FieldRange> srcRanges;
   std::vector<std::vector<Ulo::NatPortValueMask>> srcVect;
   int const srcCount = Ulo::natPortSpecValueMasks(filter.srcPortSpec(), srcRanges, srcVect);
   if (srcCount < 0) return srcCount;
   std::vector<Acl::U16FieldRange> dstRanges;
   std::vector<std::vector<Ulo::NatPortValueMask>> dstVect;
   int const dstCount = Ulo::natPortSpecValueMasks(filter.dstPortSpec(), dstRanges, dstVect);
   if (dstCount < 0) return dstCount;

   VOR_TRACE(6, "Sports: " << filter.srcPortSpec().stringValue());
   for (std::size_t i = 0; i < srcRanges.size(); ++i) {
      std::size_t const srcSize = srcVect[i].size();
      VOR_TRACE(6, "  Sport: " << i << ", low: " << srcRanges[i].low << ", high: " << srcRanges[i].high
                               << ", srcSize: " << srcSize);
      uloAssert(srcSize);
      for (auto const& pair : srcVect[i]) {
         VOR_TRACE(6, "    Id: " << pair.value << ", mask: 0x" << std::hex << pair.mask << std::dec);
      }
   }
   VOR_TRACE(6, "Dports: " << filter.dstPortSpec().stringValue());
   for (std::size_t i = 0; i < dstRanges.size(); ++i) {
      std::size_t const dstSize = dstVect[i].size();
      VOR_TRACE(6, "  Dport: " << i << ", low: " << dstRanges[i].low << ", high: " << dstRanges[i].high
                               << ", dstSize: " << dstSize);
      uloAssert(dstSize);
      for (auto const& pair : dstVect[i]) {
         VOR_TRACE(6, "    Id: " << pair.value << ", mask: 0x" << std::hex << pair.mask << std::dec);
      }
   }

   // Source pairs are the outer loop; every combination carries the
   // filter's sequence number.
   for (std::size_t iSrc = 0; iSrc < srcVect.size(); ++iSrc) {
      for (auto const& src : srcVect[iSrc]) {
         for (std::size_t iDst = 0; iDst < dstVect.size(); ++iDst) {
            for (auto const& dst : dstVect[iDst]) {
               uloAssert(srcVect[ iSrc ].size());
               uloAssert(dstVect[ iDst ].size());
               bool const ok = programmed(Operation::addProtocolTrapRule, [&] {
                  return addProtocolTrapRule(rule.vlanId(), aclName, rule.ruleId(), filter.seqNum(),
                                             filter.proto(), filter.srcIpAndMask(), filter.dstIpAndMask(),
                                             src.value, src.mask, dst.value, dst.mask, filter.filterFlag(),
                                             filter.deny(), rule.addrOnly(), rule.fullCone(),
                                             rule.key().group(), rule.poolId(), rule.target());
               });
               if (!ok) return false;
            }
         }
      }
   }
   return true;
}

// ---------------------------------------------------------------------------
// Defaults

void UloHelperNat::hwInit() {
   operationRanAsDefault(Operation::hwInit);
   hwInitializedIs(true);
}

void UloHelperNat::hwCleanup() { operationRanAsDefault(Operation::hwCleanup); }

void UloHelperNat::setNatProfile(U16, U16, L3::VrfName) { operationRanAsDefault(Operation::setNatProfile); }

void UloHelperNat::clearNatProfile(U16) { operationRanAsDefault(Operation::clearNatProfile); }

bool UloHelperNat::doHandleAsyncHwStatus(Ulo::NatHwKey const&) {
   operationRanAsDefault(Operation::doHandleAsyncHwStatus);
   return true;
}

bool UloHelperNat::addStaticSrcIpTranslation(IpAndPort const&, IpAndPort const&, IpAddrWithFullMask const&,
                                             U8, U16, Ip::Nat::StaticKey const&, bool, Ulo::VrfId) {
   operationRanAsDefault(Operation::addStaticSrcIpTranslation);
   return false;
}

bool UloHelperNat::addStaticDstIpTranslation(IpAndPort const&, IpAndPort const&, IpAddrWithFullMask const&,
                                             U8, U16, Ip::Nat::StaticKey const&, NextHop, MulticastInfo, bool,
                                             Ulo::VrfId) {
   operationRanAsDefault(Operation::addStaticDstIpTranslation);
   return false;
}

bool UloHelperNat::updateStaticDstIpTranslation(IpAndPort const&, IpAndPort const&,
                                                IpAddrWithFullMask const&, U8, U16, Ip::Nat::StaticKey const&,
                                                NextHop, MulticastInfo, bool, Ulo::VrfId) {
   operationRanAsDefault(Operation::updateStaticDstIpTranslation);
   return false;
}

bool UloHelperNat::updateStaticSrcIpTranslation(IpAndPort const&, IpAndPort const&,
                                                IpAddrWithFullMask const&, U8, U16, Ip::Nat::StaticKey const&,
                                                NextHop, MulticastInfo, bool, Ulo::VrfId) {
   operationRanAsDefault(Operation::updateStaticSrcIpTranslation);
   return false;
}

bool UloHelperNat::deleteStaticSrcIpTranslation(U16, Ip::Nat::StaticKey const&, bool, Ulo::VrfId) {
   operationRanAsDefault(Operation::deleteStaticSrcIpTranslation);
   return false;
}

bool UloHelperNat::deleteStaticDstIpTranslation(U16, Ip::Nat::StaticKey const&, bool, Ulo::VrfId) {
   operationRanAsDefault(Operation::deleteStaticDstIpTranslation);
   return false;
}

bool UloHelperNat::commitHwTranslations() {
   operationRanAsDefault(Operation::commitHwTranslations);
   return false;
}

bool UloHelperNat::addTrapAllRule(U32, Vor::String, U32, bool, bool, U16, U32, Ip::Nat::NatTarget) {
   operationRanAsDefault(Operation::addTrapAllRule);
   return false;
}

bool UloHelperNat::addTrapRule(U32, Vor::String, U32, U32, IpAddrWithFullMask const&,
                               IpAddrWithFullMask const&, bool, bool, bool, bool, U16, U32,
                               Ip::Nat::NatTarget) {
   operationRanAsDefault(Operation::addTrapRule);
   return false;
}

bool UloHelperNat::addProtocolTrapRule(U32, Vor::String, U32, U32, U8, IpAddrWithFullMask const&,
                                       IpAddrWithFullMask const&, U16, U16, U16, U16, bool, bool, bool, bool,
                                       U16, U32, Ip::Nat::NatTarget) {
   operationRanAsDefault(Operation::addProtocolTrapRule);
   return false;
}

bool UloHelperNat::delTrapRule(U32, Ip::Nat::DynamicKey const&) {
   operationRanAsDefault(Operation::delTrapRule);
   return false;
}

bool UloHelperNat::commitTrapRules() {
   operationRanAsDefault(Operation::commitTrapRules);
   return false;
}

bool UloHelperNat::addDynamicSrcIpTranslation(Lumet::ConnTuple const&, IpAndPort const&, IpAndPort const&,
                                              IpAndPort const&, U16, Ulo::VrfId) {
   operationRanAsDefault(Operation::addDynamicSrcIpTranslation);
   return false;
}

bool UloHelperNat::addDynamicDstIpTranslation(Lumet::ConnTuple const&, IpAndPort const&, IpAndPort const&,
                                              IpAndPort const&, NextHop, U16, bool, Ulo::VrfId) {
   operationRanAsDefault(Operation::addDynamicDstIpTranslation);
   return false;
}

bool UloHelperNat::updateDynamicDstIpTranslation(Lumet::ConnTuple const&, IpAndPort const&, IpAndPort const&,
                                                 IpAndPort const&, NextHop, U16, bool, Ulo::VrfId) {
   operationRanAsDefault(Operation::updateDynamicDstIpTranslation);
   return false;
}

bool UloHelperNat::deleteDynamicSrcIpTranslation(Lumet::ConnTuple const&, IpAndPort const&, IpAndPort const&,
                                                 IpAndPort const&, U16, Ulo::VrfId) {
   operationRanAsDefault(Operation::deleteDynamicSrcIpTranslation);
   return false;
}

bool UloHelperNat::deleteDynamicDstIpTranslation(Lumet::ConnTuple const&, IpAndPort const&, IpAndPort const&,
                                                 IpAndPort const&, U16, bool, Ulo::VrfId) {
   operationRanAsDefault(Operation::deleteDynamicDstIpTranslation);
   return false;
}

Ip::Nat::NatCounter UloHelperNat::getStaticSrcCountersSinceLastPoll(
   Vor::Ptr<Ip::Nat::HwNatStaticConnection const>, NatCounter const&, Ulo::VrfId) {
   operationRanAsDefault(Operation::getStaticSrcCountersSinceLastPoll);
   return NatCounter();
}

Ip::Nat::NatCounter UloHelperNat::getStaticDstCountersSinceLastPoll(
   Vor::Ptr<Ip::Nat::HwNatStaticConnection const>, NatCounter const&, Ulo::VrfId) {
   operationRanAsDefault(Operation::getStaticDstCountersSinceLastPoll);
   return NatCounter();
}

Ip::Nat::NatCounter UloHelperNat::getDynamicSrcCountersSinceLastPoll(U16, Lumet::ConnTuple const&, Ulo::VrfId) {
   operationRanAsDefault(Operation::getDynamicSrcCountersSinceLastPoll);
   return NatCounter();
}

Ip::Nat::NatCounter UloHelperNat::getDynamicDstCountersSinceLastPoll(U16, Lumet::ConnTuple const&, bool,
                                                                     IpAndPort const&, Ulo::VrfId) {
   operationRanAsDefault(Operation::getDynamicDstCountersSinceLastPoll);
   return NatCounter();
}

Ip::Nat::NatCounter UloHelperNat::getTwiceNatSrcCountersSinceLastPoll(U16, U8, U16, IpAndPort, IpAndPort,
                                                                      Ulo::VrfId) {
   operationRanAsDefault(Operation::getTwiceNatSrcCountersSinceLastPoll);
   return NatCounter();
}

Ip::Nat::NatCounter UloHelperNat::getTwiceNatDstCountersSinceLastPoll(U16, U8, U16, IpAndPort, IpAndPort,
                                                                      Ulo::VrfId) {
   operationRanAsDefault(Operation::getTwiceNatDstCountersSinceLastPoll);
   return NatCounter();
}

bool UloHelperNat::dynamicTwiceActive(U16, U8, IpAndPort, IpAndPort, IpAndPort, IpAndPort) {
   operationRanAsDefault(Operation::dynamicTwiceActive);
   return false;
}

NatHwResult UloHelperNat::addTwiceNatTranslation(IpAndPort, IpAndPort, IpAndPort, IpAndPort, U8, U16, NextHop,
                                                 MulticastInfo, bool, U16, Ulo::VrfId, bool) {
   operationRanAsDefault(Operation::addTwiceNatTranslation);
   // Value 1, not success: a helper without twice NAT refuses every entry.
   return static_cast<NatHwResult>(1);
}

bool UloHelperNat::delTwiceNatTranslation(IpAndPort, IpAndPort, IpAndPort, IpAndPort, U16, bool, U16,
                                          Ulo::VrfId) {
   operationRanAsDefault(Operation::delTwiceNatTranslation);
   return false;
}

NatHwResult UloHelperNat::updateTwiceNatTranslation(IpAndPort, IpAndPort, IpAndPort, IpAndPort, U8, U16,
                                                    NextHop, MulticastInfo, bool, U16, Ulo::VrfId, bool) {
   operationRanAsDefault(Operation::updateTwiceNatTranslation);
   return static_cast<NatHwResult>(1);
}

bool UloHelperNat::addStaticVrfSrcIpTranslation(Lumet::IpAddr, Lumet::IpAddr, U32, U32) {
   operationRanAsDefault(Operation::addStaticVrfSrcIpTranslation);
   return srcVrfTranslationResult_;
}

bool UloHelperNat::addStaticVrfDstIpTranslation(Lumet::IpAddr, Lumet::IpAddr, U32, U32) {
   operationRanAsDefault(Operation::addStaticVrfDstIpTranslation);
   return dstVrfTranslationResult_;
}

bool UloHelperNat::deleteStaticVrfSrcIpTranslation(Lumet::IpAddr, Lumet::IpAddr, U32, U32) {
   operationRanAsDefault(Operation::deleteStaticVrfSrcIpTranslation);
   return srcVrfTranslationResult_;
}

bool UloHelperNat::deleteStaticVrfDstIpTranslation(Lumet::IpAddr, Lumet::IpAddr, U32, U32) {
   operationRanAsDefault(Operation::deleteStaticVrfDstIpTranslation);
   return dstVrfTranslationResult_;
}

bool UloHelperNat::updateVrfSourcePolicer(U32, U32, U32) {
   operationRanAsDefault(Operation::updateVrfSourcePolicer);
   return true;
}

void UloHelperNat::handleVerifyInit() { operationRanAsDefault(Operation::handleVerifyInit); }

void UloHelperNat::verifyStaticNat(Ip::Nat::StaticKey const&, Ip::Nat::NatTarget, IpAndPort, IpAndPort,
                                   IpAddrWithFullMask const&, U8, U16, bool) {
   operationRanAsDefault(Operation::verifyStaticNat);
}

void UloHelperNat::verifyDynamicNat(Vor::Ptr<Ip::Nat::Status const>, Vor::Ptr<Ip::Nat::HwStatus>) {
   operationRanAsDefault(Operation::verifyDynamicNat);
}

void UloHelperNat::verifyTwiceNat(IpAndPort, IpAndPort, IpAndPort, IpAndPort, U8, U16, bool, bool) {
   operationRanAsDefault(Operation::verifyTwiceNat);
}

void UloHelperNat::updateCounterStatus(bool) { operationRanAsDefault(Operation::updateCounterStatus); }

bool UloHelperNat::addServiceTrapRule(U32, Vor::String, U32, IpAddrWithFullMask const&, U16,
                                      IpAddrWithFullMask const&, U16, bool, bool, Ip::Nat::NatTarget) {
   operationRanAsDefault(Operation::addServiceTrapRule);
   return false;
}

bool UloHelperNat::addAddrOnlyAclRule(U32, Vor::String, U32, IpAddrWithFullMask const&,
                                      IpAddrWithFullMask const&, bool, Ip::Nat::NatTarget) {
   operationRanAsDefault(Operation::addAddrOnlyAclRule);
   return false;
}

bool UloHelperNat::delAddrOnlyAclSliceRule(U32, Vor::String) {
   operationRanAsDefault(Operation::delAddrOnlyAclSliceRule);
   return false;
}

bool UloHelperNat::addAddrOnlyDenyAllAcl(U32, Vor::String, U32, Ip::Nat::NatTarget) {
   operationRanAsDefault(Operation::addAddrOnlyDenyAllAcl);
   return false;
}

bool UloHelperNat::doMaybeDelAddrOnlyDenyAllAcl() {
   operationRanAsDefault(Operation::doMaybeDelAddrOnlyDenyAllAcl);
   return false;
}

bool UloHelperNat::commitAddrOnlyAclSliceRules() {
   operationRanAsDefault(Operation::commitAddrOnlyAclSliceRules);
   return false;
}

void UloHelperNat::replayReconcile() { operationRanAsDefault(Operation::replayReconcile); }

bool UloHelperNat::immediateCommit() const { return false; }

} // namespace UloHelper
