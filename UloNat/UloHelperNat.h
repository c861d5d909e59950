#pragma once
// UloHelper::UloHelperNat: the one seam between the NAT logic and a switch's
// forwarding hardware.
//
// The state machines never touch hardware: they call the virtual operations
// below on one helper object, which a platform supplies by subclassing. The
// class itself does two jobs:
//  1. It defines every operation with a safe default, so that a platform
//     overrides only what it supports. The defaults are listed with each
//     operation; note the few that answer true or NatHwResult value 1 on
//     purpose.
//  2. It implements the composite operations that turn one static
//     connection into one single translation per filter address
//     (addStaticIpTranslations, updateStaticDstIpTranslations,
//     updateStaticSrcIpTranslations, deleteStaticIpTranslations), and the
//     expansion of a dynamic rule's trap filters into single hardware rules
//     (addTrapRules, addProtocolTrapRules).
//
// Results. No operation throws. A bool result of a hardware operation is
// true when the hardware took the request and false when it refused; a
// refusal is an ordinary event and the caller records the entry as
// unprogrammed. The one exception is addTrapRules, whose result is inverted:
// true means that a filter failed. NatHwResult results are compared with
// NatHwResult::success only. Broken invariants are uloAssert()s.
//
// "Still the default". A composite treats a single operation that the
// platform did not override as a failure (a helper that cannot program a
// source translation must not report a static entry as programmed). Each
// default implementation records, for the composite that called it, that it
// ran as the default; a platform that overrides an operation and, from its
// override, calls the base implementation is treated as not overriding it.
//
// Capability attributes. Set by the platform, directly or by name through
// the generic attribute interface (fwkType()). Each setter stores and
// notifies the helper's reactors only when the value changes; for
// counterPollingInterval a NaN always counts as a change.
//
// Thread safety: none. The helper lives on the agent's one scheduler thread
// with all its callers; its setters notify synchronously.

#include <string>
#include <vector>

#include "UloNat/UloNatAsyncTypes.h"
#include "UloNat/UloNatTypes.h"
#include "framework/IpNatHwStatus.h"
#include "framework/IpNatStatus.h"
#include "framework/IpNatTypes.h"
#include "framework/L3VrfName.h"
#include "framework/LumetConnTuple.h"
#include "framework/LumetIntfId.h"
#include "framework/LumetIpAddr.h"
#include "framework/UloBaseSm.h"
#include "framework/UloVrfId.h"
#include "framework/VorPtr.h"
#include "framework/VorString.h"

namespace UloHelper {

using Vor::U16;
using Vor::U32;
using Vor::U8;

// Result of the twice NAT add and update. Callers compare with success
// only: anything else is a failed programming.
enum class NatHwResult : U32 {
   success = 0,
   tableFull = 1,
   duplicateEntry = 2,
   error = 3,
};
char const* natHwResultName(NatHwResult result);

class UloHelperNat : public Ulo::UloBaseHelper {
 public:
   using IpAndPort = Lumet::IpAndPort;
   using IpAddrWithFullMask = Lumet::IpAddrWithFullMask;
   using NextHop = Vor::Ptr<Ulo::NatNextHopInfo const>;
   using MulticastInfo = Vor::Ptr<Ulo::NatMulticastData const>;
   using NatCounter = Ip::Nat::NatCounter;

   static constexpr Vor::AttributeId replayId = 1;
   static constexpr Vor::AttributeId hwInitializedId = 2;
   static constexpr Vor::AttributeId hwNatProfileSupportedId = 3;
   static constexpr Vor::AttributeId skipDeferredProcessingOnInitId = 4;
   static constexpr Vor::AttributeId globalHwDynamicEntriesId = 5;
   static constexpr Vor::AttributeId fullConeHwUdpEntriesId = 6;
   static constexpr Vor::AttributeId fullConeHwTcpEntriesId = 7;
   static constexpr Vor::AttributeId counterPollingIntervalId = 8;
   static constexpr Vor::AttributeId srcVrfTranslationResultId = 9;
   static constexpr Vor::AttributeId dstVrfTranslationResultId = 10;

   explicit UloHelperNat(Vor::String name);
   ~UloHelperNat() override;

   // ---- capability attributes ----

   // A replay of the central state into the helper is running.
   bool replay() const { return replay_; }
   void replayIs(bool v) { scalarIs(replay_, v, replayId); }
   // hwInit has run; the hardware accepts operations.
   bool hwInitialized() const { return hwInitialized_; }
   void hwInitializedIs(bool v) { scalarIs(hwInitialized_, v, hwInitializedId); }
   // The platform can load a NAT profile (setNatProfile).
   bool hwNatProfileSupported() const { return hwNatProfileSupported_; }
   void hwNatProfileSupportedIs(bool v) { scalarIs(hwNatProfileSupported_, v, hwNatProfileSupportedId); }
   // A dynamic connection that arrives while the engine's connections are
   // being initialised is handled at once, not deferred.
   bool skipDeferredProcessingOnInit() const { return skipDeferredProcessingOnInit_; }
   void skipDeferredProcessingOnInitIs(bool v) {
      scalarIs(skipDeferredProcessingOnInit_, v, skipDeferredProcessingOnInitId);
   }
   // Dynamic hardware entries are global (not per VRF).
   bool globalHwDynamicEntries() const { return globalHwDynamicEntries_; }
   void globalHwDynamicEntriesIs(bool v) { scalarIs(globalHwDynamicEntries_, v, globalHwDynamicEntriesId); }
   // The hardware has full-cone entries for UDP, for TCP.
   bool fullConeHwUdpEntries() const { return fullConeHwUdpEntries_; }
   void fullConeHwUdpEntriesIs(bool v) { scalarIs(fullConeHwUdpEntries_, v, fullConeHwUdpEntriesId); }
   bool fullConeHwTcpEntries() const { return fullConeHwTcpEntries_; }
   void fullConeHwTcpEntriesIs(bool v) { scalarIs(fullConeHwTcpEntries_, v, fullConeHwTcpEntriesId); }
   // Counter polling interval advertised by the platform, in seconds; 0.0
   // leaves the engine's own interval.
   double counterPollingInterval() const { return counterPollingInterval_; }
   void counterPollingIntervalIs(double v);
   // Results of the default VRF translation operations.
   bool srcVrfTranslationResult() const { return srcVrfTranslationResult_; }
   void srcVrfTranslationResultIs(bool v) { scalarIs(srcVrfTranslationResult_, v, srcVrfTranslationResultId); }
   bool dstVrfTranslationResult() const { return dstVrfTranslationResult_; }
   void dstVrfTranslationResultIs(bool v) { scalarIs(dstVrfTranslationResult_, v, dstVrfTranslationResultId); }

   // Full-cone support for a protocol: TCP (6) and UDP (17) as the two
   // attributes say; any other protocol false.
   bool fullConeHwEntries(U8 proto) const;

   Vor::TypeDescription const* fwkType() const override;
   static Vor::TypeDescription const& typeDescription();

   // ---- operations, in slot order ----
   // Unless stated otherwise a bool result is true when the hardware took
   // the request, false when it refused or the operation is not supported;
   // either way the caller's state is unchanged by the helper beyond the
   // hardware itself.

   // 1. Default: sets hwInitialized. Called on every successful pass over
   // an interface, so an override must tolerate repeated calls.
   virtual void hwInit();
   // 2. Ends the hardware's use. Default: nothing.
   virtual void hwCleanup();
   // 3, 4. NAT profile of a VLAN. Default: nothing.
   virtual void setNatProfile(U16 profileId, U16 vlan, L3::VrfName vrfName);
   virtual void clearNatProfile(U16 vlan);
   // 5. An asynchronous programmer answered for `hwKey`. Default: true.
   virtual bool doHandleAsyncHwStatus(Ulo::NatHwKey const& hwKey);
   // 6. One source translation of one filter address. Default: false.
   virtual bool addStaticSrcIpTranslation(IpAndPort const& oldIpAndPort, IpAndPort const& newIpAndPort,
                                          IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan,
                                          Ip::Nat::StaticKey const& staticKey, bool forward,
                                          Ulo::VrfId vrfId);
   // 7. One destination translation of one filter address. Default: false.
   virtual bool addStaticDstIpTranslation(IpAndPort const& oldIpAndPort, IpAndPort const& newIpAndPort,
                                          IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan,
                                          Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                          MulticastInfo multicastInfo, bool forward, Ulo::VrfId vrfId);
   // 8. Composite: one source and/or destination translation per filter address, in filter address order.
   // True when all were taken (at once with no filter address); false at the first refusal or default,
   // leaving what was programmed in place: undoing it is the caller's job. An add for a key already
   // programmed is a replace, with no delete first: the hardware must then hold the new rule's entries
   // only (fewer filter addresses drop the others), so a platform overriding only the single adds
   // overrides this too and clears the key's entries (the deletes below name the key) before the base.
   virtual bool addStaticIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                        Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                        MulticastInfo multicastInfo, Ulo::VrfId vrfId, bool aclSharing);
   // 9, 10. Update of one translation, arguments as 7. Default: false.
   virtual bool updateStaticDstIpTranslation(IpAndPort const& oldIpAndPort, IpAndPort const& newIpAndPort,
                                             IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan,
                                             Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                             MulticastInfo multicastInfo, bool forward, Ulo::VrfId vrfId);
   virtual bool updateStaticSrcIpTranslation(IpAndPort const& oldIpAndPort, IpAndPort const& newIpAndPort,
                                             IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan,
                                             Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                             MulticastInfo multicastInfo, bool forward, Ulo::VrfId vrfId);
   // 11, 12. Composite updates of the destination (source) translation of
   // every filter address. True when all were taken; false at the first
   // refusal or default.
   // REQUIRES: the connection has a destination (source) translation: an
   // egress entry targets the destination (source); and it has at least one
   // filter address. Both asserted.
   virtual bool updateStaticDstIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                              Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                              MulticastInfo multicastInfo, Ulo::VrfId vrfId);
   virtual bool updateStaticSrcIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                              Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                              MulticastInfo multicastInfo, Ulo::VrfId vrfId);
   // 13. Composite: deletes a static connection by key (no filter address
   // is needed). Results of the single deletes are ignored.
   virtual void deleteStaticIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                           Ip::Nat::StaticKey const& staticKey, Ulo::VrfId vrfId);
   // 14, 15. Default: false.
   virtual bool deleteStaticSrcIpTranslation(U16 vlan, Ip::Nat::StaticKey const& staticKey, bool forward,
                                             Ulo::VrfId vrfId);
   virtual bool deleteStaticDstIpTranslation(U16 vlan, Ip::Nat::StaticKey const& staticKey, bool forward,
                                             Ulo::VrfId vrfId);
   // 16. Commits a batch when immediateCommit() is false. True when the
   // batch was committed; false (the default) means the commit did nothing.
   virtual bool commitHwTranslations();
   // 17. Traps all traffic of a rule. Default: false.
   virtual bool addTrapAllRule(U32 vlanId, Vor::String aclName, U32 ruleId, bool addrOnly, bool fullCone,
                               U16 group, U32 poolId, Ip::Nat::NatTarget target);
   // 18. Expands a dynamic rule's filters into single trap rules.
   // INVERTED RESULT: false when every filter was programmed (also for a
   // null rule or a rule with no filter), true when one failed; the walk
   // stops at the first failure, leaving the filters before it programmed.
   // REQUIRES: a filter with a service port belongs to an address-only rule
   // (asserted "trapRule->addrOnly()").
   virtual bool addTrapRules(Vor::Ptr<Ip::Nat::NatDynamicTrapRule const> trapRule, Vor::String aclName,
                             Lumet::IntfId natIntf);
   // 19. One trap rule of a filter without protocol. Default: false.
   virtual bool addTrapRule(U32 vlanId, Vor::String aclName, U32 ruleId, U32 seqNum,
                            IpAddrWithFullMask const& srcIpAndMask, IpAddrWithFullMask const& dstIpAndMask,
                            bool filterFlag, bool deny, bool addrOnly, bool fullCone, U16 group, U32 poolId,
                            Ip::Nat::NatTarget target);
   // 20. One trap rule of one pair of port value and mask. Default: false.
   virtual bool addProtocolTrapRule(U32 vlanId, Vor::String aclName, U32 ruleId, U32 seqNum, U8 proto,
                                    IpAddrWithFullMask const& srcIpAndMask,
                                    IpAddrWithFullMask const& dstIpAndMask, U16 srcPort, U16 srcPortMask,
                                    U16 dstPort, U16 dstPortMask, bool filterFlag, bool deny, bool addrOnly,
                                    bool fullCone, U16 group, U32 poolId, Ip::Nat::NatTarget target);
   // 21, 22. Default: false.
   virtual bool delTrapRule(U32 vlanId, Ip::Nat::DynamicKey const& key);
   virtual bool commitTrapRules();
   // 23 to 27. Dynamic translations. Default: false.
   virtual bool addDynamicSrcIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                           IpAndPort const& dstIpAndPort, IpAndPort const& newSrcIpAndPort,
                                           U16 vlan, Ulo::VrfId vrfId);
   virtual bool addDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                           IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort,
                                           NextHop nextHop, U16 vlan, bool forward, Ulo::VrfId vrfId);
   virtual bool updateDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                              IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort,
                                              NextHop nextHop, U16 vlan, bool forward, Ulo::VrfId vrfId);
   virtual bool deleteDynamicSrcIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                              IpAndPort const& dstIpAndPort, IpAndPort const& newSrcIpAndPort,
                                              U16 vlan, Ulo::VrfId vrfId);
   virtual bool deleteDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                              IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort,
                                              U16 vlan, bool forward, Ulo::VrfId vrfId);
   // 28 to 33. Packet counts since the last poll. Default: a zero counter.
   virtual NatCounter getStaticSrcCountersSinceLastPoll(Vor::Ptr<Ip::Nat::HwNatStaticConnection const> conn,
                                                        NatCounter const& counter, Ulo::VrfId vrfId);
   virtual NatCounter getStaticDstCountersSinceLastPoll(Vor::Ptr<Ip::Nat::HwNatStaticConnection const> conn,
                                                        NatCounter const& counter, Ulo::VrfId vrfId);
   virtual NatCounter getDynamicSrcCountersSinceLastPoll(U16 vlan, Lumet::ConnTuple const& conn,
                                                         Ulo::VrfId vrfId);
   virtual NatCounter getDynamicDstCountersSinceLastPoll(U16 vlan, Lumet::ConnTuple const& conn, bool forward,
                                                         IpAndPort const& natAddr, Ulo::VrfId vrfId);
   virtual NatCounter getTwiceNatSrcCountersSinceLastPoll(U16 vlan, U8 protocol, U16 natGroupId,
                                                          IpAndPort srcIpAndPort, IpAndPort dstIpAndPort,
                                                          Ulo::VrfId vrfId);
   virtual NatCounter getTwiceNatDstCountersSinceLastPoll(U16 vlan, U8 protocol, U16 natGroupId,
                                                          IpAndPort srcIpAndPort, IpAndPort dstIpAndPort,
                                                          Ulo::VrfId vrfId);
   // 34. The twice entry saw traffic since the last ask. Default: false.
   virtual bool dynamicTwiceActive(U16 vlan, U8 protocol, IpAndPort srcIpAndPortOld,
                                   IpAndPort srcIpAndPortNew, IpAndPort dstIpAndPortOld,
                                   IpAndPort dstIpAndPortNew);
   // 35. Default: NatHwResult value 1 (tableFull), a failure.
   virtual NatHwResult addTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                                              IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew,
                                              U8 protocol, U16 vlan, NextHop nextHop,
                                              MulticastInfo multicastInfo, bool forward, U16 natGroupId,
                                              Ulo::VrfId vrfId, bool dynamic);
   // 36. Default: false.
   virtual bool delTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                                       IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew, U16 vlan,
                                       bool forward, U16 natGroupId, Ulo::VrfId vrfId);
   // 37. Default: NatHwResult value 1 (tableFull), a failure.
   virtual NatHwResult updateTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                                                 IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew,
                                                 U8 protocol, U16 vlan, NextHop nextHop,
                                                 MulticastInfo multicastInfo, bool forward, U16 natGroupId,
                                                 Ulo::VrfId vrfId, bool dynamic);
   // 38 to 41. VRF-to-VRF translations. Default: srcVrfTranslationResult
   // (38, 40) or dstVrfTranslationResult (39, 41).
   virtual bool addStaticVrfSrcIpTranslation(Lumet::IpAddr oldAddr, Lumet::IpAddr newAddr, U32 insideVrfId,
                                             U32 outsideVrfId);
   virtual bool addStaticVrfDstIpTranslation(Lumet::IpAddr oldAddr, Lumet::IpAddr newAddr, U32 insideVrfId,
                                             U32 outsideVrfId);
   virtual bool deleteStaticVrfSrcIpTranslation(Lumet::IpAddr oldAddr, Lumet::IpAddr newAddr,
                                                U32 insideVrfId, U32 outsideVrfId);
   virtual bool deleteStaticVrfDstIpTranslation(Lumet::IpAddr oldAddr, Lumet::IpAddr newAddr,
                                                U32 insideVrfId, U32 outsideVrfId);
   // 42. Default: true.
   virtual bool updateVrfSourcePolicer(U32 rate, U32 burst, U32 vrfId);
   // 43 to 46. Verification. Default: nothing. handleVerifyInit runs at the
   // start of a verification pass, before the others.
   virtual void handleVerifyInit();
   virtual void verifyStaticNat(Ip::Nat::StaticKey const& staticKey, Ip::Nat::NatTarget target,
                                IpAndPort oldIpAndPort, IpAndPort newIpAndPort,
                                IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan, bool forward);
   virtual void verifyDynamicNat(Vor::Ptr<Ip::Nat::Status const> status, Vor::Ptr<Ip::Nat::HwStatus> hwStatus);
   virtual void verifyTwiceNat(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew, IpAndPort dstIpAndPortOld,
                               IpAndPort dstIpAndPortNew, U8 protocol, U16 vlan, bool forward, bool dynamic);
   // 47. Counters were switched on or off. Default: nothing.
   virtual void updateCounterStatus(bool counterStatus);
   // 48 to 53. Address-only and service rules. Default: false.
   virtual bool addServiceTrapRule(U32 vlanId, Vor::String aclName, U32 ruleId,
                                   IpAddrWithFullMask const& srcIpAndMask, U16 srcPort,
                                   IpAddrWithFullMask const& dstIpAndMask, U16 dstPort, bool filterFlag,
                                   bool deny, Ip::Nat::NatTarget target);
   virtual bool addAddrOnlyAclRule(U32 vlanId, Vor::String aclName, U32 ruleId,
                                   IpAddrWithFullMask const& srcIpAndMask,
                                   IpAddrWithFullMask const& dstIpAndMask, bool filterFlag,
                                   Ip::Nat::NatTarget target);
   virtual bool delAddrOnlyAclSliceRule(U32 vlanId, Vor::String aclName);
   virtual bool addAddrOnlyDenyAllAcl(U32 vlanId, Vor::String aclName, U32 ruleId, Ip::Nat::NatTarget target);
   virtual bool doMaybeDelAddrOnlyDenyAllAcl();
   virtual bool commitAddrOnlyAclSliceRules();
   // 54. Called once when a replay has ended. Default: nothing.
   virtual void replayReconcile();
   // 55. True when each operation is in force when it returns; false (the
   // default) when a batch waits for commitHwTranslations().
   virtual bool immediateCommit() const;

   // ---- not virtual ----

   // Expands one filter with a protocol into addProtocolTrapRule calls, one
   // per combination of source and destination port value-and-mask pairs.
   // Ordinary sense: true when all were taken. Ports that cannot be turned
   // into ranges ends it at once with true.
   bool addProtocolTrapRules(Vor::String aclName, Vor::Ptr<Ip::Nat::NatDynamicTrapRule const> trapRule,
                             Ip::Nat::NatTrapFilter const& filter);

 protected:
   // The operations, for the record of which ran as the default.
   enum class Operation : U8;

   // Called by each default implementation: tells the composite that is
   // waiting for `op` (if any) that it ran as the default.
   void operationRanAsDefault(Operation op);

 private:
   class DefaultProbe;
   friend class DefaultProbe;

   // Runs `call`, which makes the single operation `op`; true when an
   // override of the platform took it and succeeded. An operation left at
   // its default programs nothing, so it counts as a failure whatever it
   // returns.
   template <typename Call>
   bool programmed(Operation op, Call call);

   bool replay_ = false;
   bool hwInitialized_ = false;
   bool hwNatProfileSupported_ = false;
   bool skipDeferredProcessingOnInit_ = false;
   bool globalHwDynamicEntries_ = false;
   bool fullConeHwUdpEntries_ = false;
   bool fullConeHwTcpEntries_ = false;
   double counterPollingInterval_ = 0.0;
   bool srcVrfTranslationResult_ = false;
   bool dstVrfTranslationResult_ = false;

   // The innermost composite call waiting to hear whether its operation ran
   // as the default.
   DefaultProbe* probe_ = nullptr;
};

} // namespace UloHelper
