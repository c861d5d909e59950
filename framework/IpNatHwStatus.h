#pragma once
// What the NAT engine has programmed into hardware, written by the engine
// and read by the status aggregation and the verify command:
//
//   HwStatus                 per interface (HwIntfStatus) and per VRF
//                            (HwVrfStatus)
//   HwIntfStatus             static entries (HwNatStaticConnection), twice
//                            entries by group (HwNatTwiceConnection), and the
//                            counters of all three kinds of connection
//   HwNatTwiceCount          counters of one twice group, per tuple
//   HwVrfStatus              VRF-to-VRF static entries
//                            (HwNatVrfStaticConnection)
//
// Every mutator notifies the attached reactors when, and only when, it
// changes something; a collection notifies once per member with a pointer to
// the member's key, on add and on remove alike. Member entities are kept
// alive across the notification of their removal.
//
// Instantiation of a member entity (xIs(key, args...)) is idempotent: the
// same key with the same arguments returns the existing member. The same key
// with other arguments is a programming error and raises
// Vor::ReinstantiationException: delete the member first.
//
// The ordered maps (staticConnectionHw, twiceNatConnectionHw, staticNat)
// carry a version number that every add or remove bumps, so that a walk
// that calls out can tell whether to find its place again by key.
//
// Thread safety: none; the agent's one thread.

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>

#include "framework/IpNatTypes.h"
#include "framework/L3VrfName.h"
#include "framework/LumetIntfId.h"
#include "framework/LumetIpAddr.h"
#include "framework/VorAttribute.h"
#include "framework/VorEntity.h"
#include "framework/VorEntityCollections.h"
#include "framework/VorPtr.h"
#include "framework/VorString.h"

namespace Ip::Nat {

using Vor::AttributeId;
using Vor::Ptr;
using Vor::U16;
using Vor::U32;
using Vor::U8;

// One static connection as programmed: the connection's fields, fixed at
// creation, and the filter addresses it was programmed for.
class HwNatStaticConnection : public Vor::Entity {
 public:
   static constexpr AttributeId filterAddressId = 1;

   using FilterAddressSet = std::set<Lumet::IpAddrWithFullMask>;

   HwNatStaticConnection(StaticKey const& key, Lumet::IpAndPort const& globalAddress,
                         NatTarget target, U8 protocol, U16 vlanId, bool forward);

   StaticKey const& key() const { return key_; }
   Lumet::IpAndPort const& globalAddress() const { return globalAddress_; }
   NatTarget target() const { return target_; }
   U8 protocol() const { return protocol_; }
   U16 vlanId() const { return vlanId_; }
   bool forward() const { return forward_; }

   // True when the arguments are those this connection was made with.
   bool sameConnection(Lumet::IpAndPort const& globalAddress, NatTarget target, U8 protocol,
                       U16 vlanId, bool forward) const;

   FilterAddressSet const& filterAddress() const { return filterAddress_; }
   bool filterAddressHas(Lumet::IpAddrWithFullMask const& addr) const {
      return filterAddress_.count(addr) != 0;
   }
   std::size_t filterAddresss() const { return filterAddress_.size(); }
   // filterAddressIs(addr, true) adds the address, (addr, false) removes it.
   void filterAddressIs(Lumet::IpAddrWithFullMask const& addr, bool present);
   void filterAddressDel(Lumet::IpAddrWithFullMask const& addr);

 private:
   StaticKey const key_;
   Lumet::IpAndPort const globalAddress_;
   NatTarget const target_;
   U8 const protocol_;
   U16 const vlanId_;
   bool const forward_;
   FilterAddressSet filterAddress_;
};

// The programmed entries of one twice NAT group, by tuple.
class HwNatTwiceConnection : public Vor::Entity {
 public:
   static constexpr AttributeId entryId = 1;
   static constexpr AttributeId lastChangedTimeId = 2;

   using EntryMap = std::map<Lumet::ConnTuple, HwNatTwiceAddr>;
   using LastChangedTimeMap = std::map<Lumet::ConnTuple, double>;

   // `dynamic`: the group's entries come from dynamic connections.
   HwNatTwiceConnection(U16 group, U8 protocol, U16 vlanId, bool dynamic);

   U16 group() const { return group_; }
   U8 protocol() const { return protocol_; }
   U16 vlanId() const { return vlanId_; }
   bool dynamic() const { return dynamic_; }

   EntryMap const& entry() const { return entry_; }
   HwNatTwiceAddr entry(Lumet::ConnTuple const& tuple) const { return Vor::memberValue(entry_, tuple); }
   bool entryHas(Lumet::ConnTuple const& tuple) const { return entry_.count(tuple) != 0; }
   std::size_t entrys() const { return entry_.size(); }
   void entryIs(Lumet::ConnTuple const& tuple, HwNatTwiceAddr const& addr);
   void entryDel(Lumet::ConnTuple const& tuple);

   // Seconds of Vor::System::currentTime() of each entry's last change.
   LastChangedTimeMap const& lastChangedTime() const { return lastChangedTime_; }
   double lastChangedTime(Lumet::ConnTuple const& tuple) const {
      return Vor::memberValue(lastChangedTime_, tuple);
   }
   bool lastChangedTimeHas(Lumet::ConnTuple const& tuple) const {
      return lastChangedTime_.count(tuple) != 0;
   }
   void lastChangedTimeIs(Lumet::ConnTuple const& tuple, double time);
   void lastChangedTimeDel(Lumet::ConnTuple const& tuple);

 private:
   U16 const group_;
   U8 const protocol_;
   U16 const vlanId_;
   bool const dynamic_;
   EntryMap entry_;
   LastChangedTimeMap lastChangedTime_;
};

// Packet counters of one twice group, by tuple.
class HwNatTwiceCount : public Vor::Entity {
 public:
   static constexpr AttributeId countId = 1;

   using CountMap = std::map<Lumet::ConnTuple, NatCounter>;

   explicit HwNatTwiceCount(U16 group);

   U16 group() const { return group_; }
   CountMap const& count() const { return count_; }
   // A zero counter when absent.
   NatCounter count(Lumet::ConnTuple const& tuple) const { return Vor::memberValue(count_, tuple); }
   bool countHas(Lumet::ConnTuple const& tuple) const { return count_.count(tuple) != 0; }
   void countIs(Lumet::ConnTuple const& tuple, NatCounter const& counter);
   void countDel(Lumet::ConnTuple const& tuple);

 private:
   U16 const group_;
   CountMap count_;
};

// What is programmed for one NAT interface.
class HwIntfStatus : public Vor::Entity {
   VOR_ENTITY(HwIntfStatus, "Ip::Nat::HwIntfStatus")

 public:
   static constexpr AttributeId staticConnectionHwId = 1;
   static constexpr AttributeId staticConnectionHwCountId = 2;
   static constexpr AttributeId twiceNatConnectionHwId = 3;
   static constexpr AttributeId twiceNatConnectionHwCountId = 4;
   static constexpr AttributeId dynamicConnectionHwCountId = 5;

   using StaticConnectionHwMap = std::map<StaticKey, Ptr<HwNatStaticConnection>>;
   using StaticConnectionHwCountMap = std::map<StaticKey, NatCounter>;
   using TwiceNatConnectionHwMap = std::map<U16, Ptr<HwNatTwiceConnection>>;
   using TwiceNatConnectionHwCountMap = std::map<U16, Ptr<HwNatTwiceCount>>;
   using DynamicConnectionHwCountMap = std::map<Lumet::ConnTuple, NatCounter>;

   // `name` is the interface's configuration name.
   HwIntfStatus(Vor::String const& name, Lumet::IntfId const& intfId);

   Lumet::IntfId const& intfId() const { return intfId_; }

   // staticConnectionHw: ordered by key; null when absent.
   StaticConnectionHwMap const& staticConnectionHw() const { return staticConnectionHw_; }
   Ptr<HwNatStaticConnection> staticConnectionHw(StaticKey const& key) const;
   bool staticConnectionHwHas(StaticKey const& key) const { return staticConnectionHw_.count(key) != 0; }
   std::size_t staticConnectionHws() const { return staticConnectionHw_.size(); }
   // Returns the new member, or the existing one made with the same values.
   Ptr<HwNatStaticConnection> staticConnectionHwIs(StaticKey const& key,
                                                   Lumet::IpAndPort const& globalAddress,
                                                   NatTarget target, U8 protocol, U16 vlanId,
                                                   bool forward);
   void staticConnectionHwDel(StaticKey const& key);
   void staticConnectionHwDelAll();
   std::uint64_t staticConnectionHwVersion() const { return staticConnectionHwVersion_; }

   StaticConnectionHwCountMap const& staticConnectionHwCount() const { return staticConnectionHwCount_; }
   NatCounter staticConnectionHwCount(StaticKey const& key) const {
      return Vor::memberValue(staticConnectionHwCount_, key);
   }
   bool staticConnectionHwCountHas(StaticKey const& key) const {
      return staticConnectionHwCount_.count(key) != 0;
   }
   void staticConnectionHwCountIs(StaticKey const& key, NatCounter const& counter);
   void staticConnectionHwCountDel(StaticKey const& key);

   // twiceNatConnectionHw: ordered by group; null when absent.
   TwiceNatConnectionHwMap const& twiceNatConnectionHw() const { return twiceNatConnectionHw_; }
   Ptr<HwNatTwiceConnection> twiceNatConnectionHw(U16 group) const;
   bool twiceNatConnectionHwHas(U16 group) const { return twiceNatConnectionHw_.count(group) != 0; }
   std::size_t twiceNatConnectionHws() const { return twiceNatConnectionHw_.size(); }
   Ptr<HwNatTwiceConnection> twiceNatConnectionHwIs(U16 group, U8 protocol, U16 vlanId, bool dynamic);
   void twiceNatConnectionHwDel(U16 group);
   void twiceNatConnectionHwDelAll();
   std::uint64_t twiceNatConnectionHwVersion() const { return twiceNatConnectionHwVersion_; }

   // twiceNatConnectionHwCount: the counters of each group; Is returns the
   // existing record or makes an empty one.
   TwiceNatConnectionHwCountMap const& twiceNatConnectionHwCount() const {
      return twiceNatConnectionHwCount_;
   }
   Ptr<HwNatTwiceCount> twiceNatConnectionHwCount(U16 group) const;
   Ptr<HwNatTwiceCount> twiceNatConnectionHwCountIs(U16 group);
   void twiceNatConnectionHwCountDel(U16 group);

   DynamicConnectionHwCountMap const& dynamicConnectionHwCount() const {
      return dynamicConnectionHwCount_;
   }
   NatCounter dynamicConnectionHwCount(Lumet::ConnTuple const& tuple) const {
      return Vor::memberValue(dynamicConnectionHwCount_, tuple);
   }
   bool dynamicConnectionHwCountHas(Lumet::ConnTuple const& tuple) const {
      return dynamicConnectionHwCount_.count(tuple) != 0;
   }
   void dynamicConnectionHwCountIs(Lumet::ConnTuple const& tuple, NatCounter const& counter);
   void dynamicConnectionHwCountDel(Lumet::ConnTuple const& tuple);

   // Running total of dynamic entries on this interface. The decrement
   // stops at zero.
   VOR_SCALAR(U32, dynamicConnectionHwTotalCnt, 6)

 public:
   void dynamicConnectionHwTotalCntInc(U32 n = 1) {
      dynamicConnectionHwTotalCntIs(dynamicConnectionHwTotalCnt_ + n);
   }
   void dynamicConnectionHwTotalCntDec(U32 n = 1) {
      dynamicConnectionHwTotalCntIs(n > dynamicConnectionHwTotalCnt_ ? 0 : dynamicConnectionHwTotalCnt_ - n);
   }

 private:
   Lumet::IntfId const intfId_;
   StaticConnectionHwMap staticConnectionHw_;
   std::uint64_t staticConnectionHwVersion_ = 0;
   StaticConnectionHwCountMap staticConnectionHwCount_;
   TwiceNatConnectionHwMap twiceNatConnectionHw_;
   std::uint64_t twiceNatConnectionHwVersion_ = 0;
   TwiceNatConnectionHwCountMap twiceNatConnectionHwCount_;
   DynamicConnectionHwCountMap dynamicConnectionHwCount_;
};

// One VRF-to-VRF static translation as programmed, keyed by srcAddressOld.
class HwNatVrfStaticConnection : public Vor::Entity {
 public:
   // `outsideVrfId` names the accessor of the outside VRF's number, so the
   // id of attribute outsideVrf takes this name, and the attribute is
   // written out rather than declared.
   static constexpr AttributeId outsideVrfNameId = 3;

   VOR_ENTITY(HwNatVrfStaticConnection, "Ip::Nat::HwNatVrfStaticConnection")
   VOR_SCALAR(U32, insideVrfId, 1)
   VOR_SCALAR(U32, outsideVrfId, 2)
   VOR_SCALAR(Lumet::IpAddr, srcAddressNew, 4)
   VOR_SCALAR(NatTarget, target, 5, NatTarget::source_)

 public:
   explicit HwNatVrfStaticConnection(Lumet::IpAddr const& srcAddressOld);

   Lumet::IpAddr const& srcAddressOld() const { return srcAddressOld_; }
   L3::VrfName const& outsideVrf() const { return outsideVrf_; }
   void outsideVrfIs(L3::VrfName const& v) { scalarIs(outsideVrf_, v, outsideVrfNameId); }

 private:
   Lumet::IpAddr const srcAddressOld_;
   L3::VrfName outsideVrf_;
};

// What is programmed for one NAT VRF.
class HwVrfStatus : public Vor::Entity {
 public:
   static constexpr AttributeId staticNatId = 1;

   using StaticNatMap = std::map<Lumet::IpAddr, Ptr<HwNatVrfStaticConnection>>;

   explicit HwVrfStatus(L3::VrfName const& name);

   L3::VrfName const& vrfName() const { return vrfName_; }

   StaticNatMap const& staticNat() const { return staticNat_; }
   Ptr<HwNatVrfStaticConnection> staticNat(Lumet::IpAddr const& addr) const;
   bool staticNatHas(Lumet::IpAddr const& addr) const { return staticNat_.count(addr) != 0; }
   std::size_t staticNats() const { return staticNat_.size(); }
   // Returns the existing member or makes an empty one.
   Ptr<HwNatVrfStaticConnection> staticNatIs(Lumet::IpAddr const& addr);
   void staticNatDel(Lumet::IpAddr const& addr);
   void staticNatDelAll();
   std::uint64_t staticNatVersion() const { return staticNatVersion_; }

 private:
   L3::VrfName const vrfName_;
   StaticNatMap staticNat_;
   std::uint64_t staticNatVersion_ = 0;
};

// The hardware status of the whole NAT engine.
class HwStatus : public Vor::Entity {
 public:
   static constexpr AttributeId intfStatusId = 1;
   static constexpr AttributeId vrfStatusId = 2;

   using IntfStatusMap = std::map<Lumet::IntfId, Ptr<HwIntfStatus>>;
   using VrfStatusMap = std::map<L3::VrfName, Ptr<HwVrfStatus>>;

   explicit HwStatus(Vor::String name = "hwStatus") : Vor::Entity(std::move(name)) {}

   IntfStatusMap const& intfStatus() const { return intfStatus_; }
   Ptr<HwIntfStatus> intfStatus(Lumet::IntfId const& intf) const;
   bool intfStatusHas(Lumet::IntfId const& intf) const { return intfStatus_.count(intf) != 0; }
   std::size_t intfStatuss() const { return intfStatus_.size(); }
   // Returns the existing member (whatever name it was made with), or makes
   // one named `name`. Called on every pass over an interface, so it must
   // keep what is there.
   Ptr<HwIntfStatus> intfStatusIs(Vor::String const& name, Lumet::IntfId const& intf);
   void intfStatusDel(Lumet::IntfId const& intf);
   void intfStatusDelAll();

   VrfStatusMap const& vrfStatus() const { return vrfStatus_; }
   Ptr<HwVrfStatus> vrfStatus(L3::VrfName const& name) const;
   bool vrfStatusHas(L3::VrfName const& name) const { return vrfStatus_.count(name) != 0; }
   std::size_t vrfStatuss() const { return vrfStatus_.size(); }
   Ptr<HwVrfStatus> vrfStatusIs(L3::VrfName const& name);
   void vrfStatusDel(L3::VrfName const& name);
   void vrfStatusDelAll();

 private:
   IntfStatusMap intfStatus_;
   VrfStatusMap vrfStatus_;
};

} // namespace Ip::Nat
