#pragma once
// Ulo::NatHwStatusAggregateSm: keeps the global hardware status equal to the
// local one, minus what hardware refused.
//
// The interface engines write what they programmed into a local
// Ip::Nat::HwStatus and Ip::Nat::DynamicConnectionHwStatus. This machine
// copies those, change by change, into a global status of the same two
// types, except for connections that the asynchronous programmer reported
// as failed (a key in Ulo::NatFailedHwKeyStatus): those are withdrawn from
// the global status, on every interface, and copied back when their key
// leaves the failed set. An operator reading the global status thus never
// sees a rule that hardware does not hold.
//
// What runs on which change:
//   local intfStatus            sync the interface's reactors, then
//                               handleLocalIntfStatus(intf)
//   local vrfStatus             sync the VRF's reactor, then
//                               handleLocalVrfStatus(name)
//   interface staticConnectionHw  handleLocalStaticConnectionHw, then sync
//                               the connection's reactor
//   interface twiceNatConnectionHw  sync the group's reactor
//   connection filterAddress    handleAddr
//   twice group entry           handleTwiceHwEntry
//   VRF staticNat               handleLocalVrfStaticConnection
//   local dynamicConnectionHw   handleLocalDynamicConnectionHw
//   failedHwKey entry           handleFailedHwKey
// The machine attaches to what the local status holds when it is built and
// copies none of it: it is meant to exist before the local status fills.
// The global per-interface and per-VRF status is emptied at construction;
// the global dynamic status is not.
//
// Asymmetries worth knowing:
//  - A local change to a connection whose key is failed leaves the global
//    status as it was (absent, or as it stood before the failure).
//  - Clearing a twice key copies a group back only when the global
//    interface lacks the group; a group that stands there is left alone.
//  - A failed twice key withdraws its whole group, not only its entry.
//  - A dynamic flow withdrawn by a failed key comes back only with its own
//    local notification; its counters stay on the global interface.
//  - VRF-to-VRF rules are copied whatever the failed set holds.
//  - Twice counters are copied for failed keys too.
//
// Thread safety: none needed; the agent's one thread. The local dynamic
// status is read with its safe lookup only.
//
// Invariants (assertion texts in quotes):
//  1. "natHwStatusAggregateSm()->hwStatus()->intfStatusHas( natIntf )": a
//     local connection is handled only on an interface that the global
//     status has (the interface sync runs before any of its connections).
//  2. "localcHwConn": a twice entry is handled only for a group the local
//     interface has.
//  3. "hwStatus()->intfStatusHas( iter.key() )": clearing a failed key finds
//     every local interface in the global status.

#include <map>
#include <memory>

#include "UloNat/UloNatAclTypes.h"
#include "UloNat/UloNatAsyncEntities.h"
#include "UloNat/UloNatAsyncTypes.h"
#include "framework/IpNatDynamicConnectionStatus.h"
#include "framework/IpNatHwStatus.h"
#include "framework/VorReactor.h"

namespace Ulo {

using Vor::Ptr;

class NatHwStatusAggregateSm;

// A binding for a member reactor (Vor::WatchMembers) on a collection of the
// member: h(memberKey, key) gets the key of the watched member and the key
// of its changed element. A notification without a key is ignored.
template <Vor::AttributeId Id, auto Handler>
struct OnMemberKey {
   template <typename R>
   static typename R::Binding binding() {
      typename R::Binding b;
      b.id = Id;
      b.kind = R::Binding::Kind::keyed;
      b.call = &call<R>;
      return b;
   }

 private:
   template <typename C, typename M, typename K>
   static M memberKeyOf(void (C::*)(M const&, K const&));
   template <typename C, typename M, typename K>
   static K keyOf(void (C::*)(M const&, K const&));

   template <typename R>
   static void call(typename R::Owner& owner, void const* key, void const* memberKey,
                    typename R::Binding const&) {
      using MemberKey = decltype(memberKeyOf(Handler));
      using Key = decltype(keyOf(Handler));
      if (!key || !memberKey) return;
      (owner.*Handler)(*static_cast<MemberKey const*>(memberKey), *static_cast<Key const*>(key));
   }
};

// The reactors of one local interface: on the interface itself and on each
// of its static connections and twice groups. Made and dropped with the
// interface's presence in the local status.
class VorLocalIntfStatus : public Vor::PartOwner {
 public:
   VorLocalIntfStatus(NatHwStatusAggregateSm* sm, Lumet::IntfId const& natIntf);
   VorLocalIntfStatus(VorLocalIntfStatus const&) = delete;
   VorLocalIntfStatus& operator=(VorLocalIntfStatus const&) = delete;

   Lumet::IntfId const& natIntf() const { return natIntf_; }
   NatHwStatusAggregateSm* natHwStatusAggregateSm() const { return sm_; }
   Ptr<Ip::Nat::HwIntfStatus const> notifier() const { return intfStatus_.notifier(); }
   // Attaches (without delivery, making the member reactors of what the
   // interface holds) or re-points.
   void notifierIs(Ptr<Ip::Nat::HwIntfStatus const> const& local);
   std::size_t localStaticConnections() const { return localStaticConnection_.size(); }
   std::size_t hwTwiceConns() const { return hwTwiceConn_.size(); }

   void notificationActiveIs(bool active) { partsNotificationActiveIs(active); }
   void zombieIs(bool zombie) { partsZombieIs(zombie); }

   void handleLocalStaticConnectionHw(Ip::Nat::StaticKey const& key);
   void handleAddr(Ip::Nat::StaticKey const& key, Lumet::IpAddrWithFullMask const& addr);
   void handleTwiceHwEntry(U16 const& group, Lumet::ConnTuple const& tuple);

 private:
   NatHwStatusAggregateSm* sm_;
   Lumet::IntfId const natIntf_;
   Vor::WatchMembers<Ip::Nat::StaticKey, Ip::Nat::HwNatStaticConnection, VorLocalIntfStatus,
                     OnMemberKey<Ip::Nat::HwNatStaticConnection::filterAddressId,
                                      &VorLocalIntfStatus::handleAddr>>
      localStaticConnection_{this};
   Vor::WatchMembers<U16, Ip::Nat::HwNatTwiceConnection, VorLocalIntfStatus,
                     OnMemberKey<Ip::Nat::HwNatTwiceConnection::entryId,
                                      &VorLocalIntfStatus::handleTwiceHwEntry>>
      hwTwiceConn_{this};
   Vor::Watch<Ip::Nat::HwIntfStatus, VorLocalIntfStatus,
              Vor::OnMembers<Ip::Nat::HwIntfStatus::staticConnectionHwId,
                             &VorLocalIntfStatus::handleLocalStaticConnectionHw,
                             &VorLocalIntfStatus::localStaticConnection_,
                             Vor::collection(&Ip::Nat::HwIntfStatus::staticConnectionHw)>,
              Vor::OnMembers<Ip::Nat::HwIntfStatus::twiceNatConnectionHwId, nullptr,
                             &VorLocalIntfStatus::hwTwiceConn_,
                             Vor::collection(&Ip::Nat::HwIntfStatus::twiceNatConnectionHw)>>
      intfStatus_{this};
};

class NatHwStatusAggregateSm : public Vor::PtrInterface, public Vor::PartOwner {
 public:
   // Attaches the inputs (a null one gets no reactor), empties the global
   // per-interface and per-VRF status, and attaches to each local interface
   // and VRF without copying anything.
   NatHwStatusAggregateSm(Ptr<Ip::Nat::HwStatus const> const& localHwStatus,
                          Ptr<Ip::Nat::DynamicConnectionHwStatus> const& localDynamicConnectionHwStatus,
                          Ptr<NatFailedHwKeyStatus const> const& failedHwKey,
                          Ptr<Ip::Nat::HwStatus> const& hwStatus,
                          Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
                          Ptr<NatAclNameIdTable const> const& aclNameIdTable);
   // Detaches every reactor; the global status stays as it is.
   ~NatHwStatusAggregateSm() override;

   Ptr<Ip::Nat::HwStatus const> localHwStatus() const { return localHwStatus_.notifier(); }
   Ptr<Ip::Nat::DynamicConnectionHwStatus const> localDynamicConnectionHwStatus() const {
      return localDynamicConnectionHwStatus_.notifier();
   }
   Ptr<NatFailedHwKeyStatus const> failedHwKey() const { return failedHwKey_.notifier(); }
   Ptr<Ip::Nat::HwStatus> const& hwStatus() const { return hwStatus_; }
   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus() const {
      return dynamicConnectionHwStatus_;
   }
   Ptr<NatAclNameIdTable const> const& aclNameIdTable() const { return aclNameIdTable_; }
   // The reactors of one local interface, or null.
   VorLocalIntfStatus* localIntfStatus(Lumet::IntfId const& intf) const;
   std::size_t localIntfStatuss() const { return localIntfStatus_.size(); }
   std::size_t localVrfStatuss() const { return localVrfStatus_.size(); }
   // Whether the failed set holds `key`; false without a failed set.
   bool failedHwKeyHas(NatHwKey const& key) const;

   void hasNotificationActiveIs(bool active) override;
   void vorDoZombieReactors(bool zombie);

   // ---- handlers ----
   void handleInitialized();
   void handleLocalIntfStatus(Lumet::IntfId const& intf);
   void handleLocalVrfStatus(L3::VrfName const& name);
   void handleLocalDynamicConnectionHw(Ip::Nat::DynamicConnectionKey const& key);
   void handleLocalVrfStaticConnection(L3::VrfName const& name, Lumet::IpAddr const& srcAddressOld);
   void handleFailedHwKey(NatHwKey const& hwKey);

 private:
   // Reactor entry points: the interface and VRF syncs come before their
   // handlers.
   void onLocalIntfStatus(Lumet::IntfId const& intf);
   void onLocalVrfStatus(L3::VrfName const& name);
   void doHandleFailedHwKeyEmpty(NatHwKey const& hwKey);
   void doHandleFailedStaticKey(NatHwKey const& hwKey, bool isFailed);
   void doHandleFailedTwiceKey(NatHwKey const& hwKey, bool isFailed);
   void doHandleFailedDynamicKey(NatHwKey const& hwKey, bool isFailed);

   Vor::WatchMembers<L3::VrfName, Ip::Nat::HwVrfStatus, NatHwStatusAggregateSm,
                     OnMemberKey<Ip::Nat::HwVrfStatus::staticNatId,
                                      &NatHwStatusAggregateSm::handleLocalVrfStaticConnection>>
      localVrfStatus_{this};
   Vor::Watch<Ip::Nat::HwStatus, NatHwStatusAggregateSm,
              Vor::OnKey<Ip::Nat::HwStatus::intfStatusId, &NatHwStatusAggregateSm::onLocalIntfStatus>,
              Vor::OnKey<Ip::Nat::HwStatus::vrfStatusId, &NatHwStatusAggregateSm::onLocalVrfStatus>>
      localHwStatus_{this};
   Vor::Watch<Ip::Nat::DynamicConnectionHwStatus, NatHwStatusAggregateSm,
              Vor::OnKey<Ip::Nat::DynamicConnectionHwStatus::dynamicConnectionHwId,
                         &NatHwStatusAggregateSm::handleLocalDynamicConnectionHw>>
      localDynamicConnectionHwStatus_{this};
   Vor::Watch<NatFailedHwKeyStatus, NatHwStatusAggregateSm,
              Vor::OnKey<NatFailedHwKeyStatus::entryId, &NatHwStatusAggregateSm::handleFailedHwKey>>
      failedHwKey_{this};
   Ptr<Ip::Nat::HwStatus> hwStatus_;
   Ptr<Ip::Nat::DynamicConnectionHwStatus> dynamicConnectionHwStatus_;
   Ptr<NatAclNameIdTable const> aclNameIdTable_;
   std::map<Lumet::IntfId, std::unique_ptr<VorLocalIntfStatus>> localIntfStatus_;
};

// The machine with notifications active.
Ptr<NatHwStatusAggregateSm> natHwStatusAggregateSmFactory(
   Ptr<Ip::Nat::HwStatus const> const& localHwStatus,
   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& localDynamicConnectionHwStatus,
   Ptr<NatFailedHwKeyStatus const> const& failedHwKey, Ptr<Ip::Nat::HwStatus> const& hwStatus,
   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
   Ptr<NatAclNameIdTable const> const& aclNameIdTable);

// A static rule's hardware key read back as the rule's key: `first` takes
// the side that is the rule's own address when the key is the source half
// (see the .cpp). The ACL name comes from `table` for a non-zero aclId.
Ip::Nat::StaticKey asyncHwKeyToStaticKey(NatHwKey const& hwKey, Ptr<NatAclNameIdTable const> const& table,
                                         bool first);
// Copies a static connection with its filter addresses onto `to`.
void doCopyHwNatStaticConnection(Ip::Nat::HwNatStaticConnection const& from, Ip::Nat::HwIntfStatus& to);

} // namespace Ulo
