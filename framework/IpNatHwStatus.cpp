#include "framework/IpNatHwStatus.h"

#include "framework/VorException.h"

namespace Ip::Nat {

// ---- HwNatStaticConnection ----

HwNatStaticConnection::HwNatStaticConnection(StaticKey const& key,
                                             Lumet::IpAndPort const& globalAddress,
                                             NatTarget target, U8 protocol, U16 vlanId,
                                             bool forward)
    : Vor::Entity(key.stringValue()), key_(key), globalAddress_(globalAddress), target_(target),
      protocol_(protocol), vlanId_(vlanId), forward_(forward) {}

bool HwNatStaticConnection::sameConnection(Lumet::IpAndPort const& globalAddress, NatTarget target,
                                           U8 protocol, U16 vlanId, bool forward) const {
   return globalAddress_ == globalAddress && target_ == target && protocol_ == protocol &&
          vlanId_ == vlanId && forward_ == forward;
}

void HwNatStaticConnection::filterAddressIs(Lumet::IpAddrWithFullMask const& addr, bool present) {
   if (!present) {
      filterAddressDel(addr);
      return;
   }
   if (filterAddress_.insert(addr).second) memberChanged(filterAddressId, addr);
}

void HwNatStaticConnection::filterAddressDel(Lumet::IpAddrWithFullMask const& addr) {
   Lumet::IpAddrWithFullMask const key = addr;
   if (filterAddress_.erase(key)) memberChanged(filterAddressId, key);
}

// ---- HwNatTwiceConnection ----

HwNatTwiceConnection::HwNatTwiceConnection(U16 group, U8 protocol, U16 vlanId, bool dynamic)
    : Vor::Entity(std::to_string(group)), group_(group), protocol_(protocol), vlanId_(vlanId),
      dynamic_(dynamic) {}

void HwNatTwiceConnection::entryIs(Lumet::ConnTuple const& tuple, HwNatTwiceAddr const& addr) {
   if (Vor::memberValueIs(entry_, tuple, addr)) memberChanged(entryId, tuple);
}

void HwNatTwiceConnection::entryDel(Lumet::ConnTuple const& tuple) {
   Lumet::ConnTuple const key = tuple;
   if (entry_.erase(key)) memberChanged(entryId, key);
}

void HwNatTwiceConnection::lastChangedTimeIs(Lumet::ConnTuple const& tuple, double time) {
   if (Vor::memberValueIs(lastChangedTime_, tuple, time)) memberChanged(lastChangedTimeId, tuple);
}

void HwNatTwiceConnection::lastChangedTimeDel(Lumet::ConnTuple const& tuple) {
   Lumet::ConnTuple const key = tuple;
   if (lastChangedTime_.erase(key)) memberChanged(lastChangedTimeId, key);
}

// ---- HwNatTwiceCount ----

HwNatTwiceCount::HwNatTwiceCount(U16 group) : Vor::Entity(std::to_string(group)), group_(group) {}

void HwNatTwiceCount::countIs(Lumet::ConnTuple const& tuple, NatCounter const& counter) {
   if (Vor::memberValueIs(count_, tuple, counter)) memberChanged(countId, tuple);
}

void HwNatTwiceCount::countDel(Lumet::ConnTuple const& tuple) {
   Lumet::ConnTuple const key = tuple;
   if (count_.erase(key)) memberChanged(countId, key);
}

// ---- HwIntfStatus ----

HwIntfStatus::HwIntfStatus(Vor::String const& name, Lumet::IntfId const& intfId)
    : Vor::Entity(name), intfId_(intfId) {}

Ptr<HwNatStaticConnection> HwIntfStatus::staticConnectionHw(StaticKey const& key) const {
   return Vor::memberValue(staticConnectionHw_, key);
}

Ptr<HwNatStaticConnection> HwIntfStatus::staticConnectionHwIs(StaticKey const& key,
                                                              Lumet::IpAndPort const& globalAddress,
                                                              NatTarget target, U8 protocol,
                                                              U16 vlanId, bool forward) {
   auto it = staticConnectionHw_.find(key);
   if (it != staticConnectionHw_.end()) {
      if (!it->second->sameConnection(globalAddress, target, protocol, vlanId, forward)) {
         Vor::Impl::throwMutatorReinstVal("staticConnectionHw");
      }
      return it->second;
   }
   Ptr<HwNatStaticConnection> member(
      new HwNatStaticConnection(key, globalAddress, target, protocol, vlanId, forward));
   staticConnectionHw_.emplace(key, member);
   ++staticConnectionHwVersion_;
   memberChanged(staticConnectionHwId, key);
   return member;
}

void HwIntfStatus::staticConnectionHwDel(StaticKey const& key) {
   Vor::memberEntityDel(staticConnectionHw_, key, [this](StaticKey const& k) {
      ++staticConnectionHwVersion_;
      memberChanged(staticConnectionHwId, k);
   });
}

void HwIntfStatus::staticConnectionHwDelAll() {
   while (!staticConnectionHw_.empty()) staticConnectionHwDel(staticConnectionHw_.begin()->first);
}

void HwIntfStatus::staticConnectionHwCountIs(StaticKey const& key, NatCounter const& counter) {
   if (Vor::memberValueIs(staticConnectionHwCount_, key, counter)) {
      memberChanged(staticConnectionHwCountId, key);
   }
}

void HwIntfStatus::staticConnectionHwCountDel(StaticKey const& key) {
   StaticKey const k = key;
   if (staticConnectionHwCount_.erase(k)) memberChanged(staticConnectionHwCountId, k);
}

Ptr<HwNatTwiceConnection> HwIntfStatus::twiceNatConnectionHw(U16 group) const {
   return Vor::memberValue(twiceNatConnectionHw_, group);
}

Ptr<HwNatTwiceConnection> HwIntfStatus::twiceNatConnectionHwIs(U16 group, U8 protocol, U16 vlanId,
                                                               bool dynamic) {
   auto it = twiceNatConnectionHw_.find(group);
   if (it != twiceNatConnectionHw_.end()) {
      HwNatTwiceConnection const& c = *it->second;
      if (c.protocol() != protocol || c.vlanId() != vlanId || c.dynamic() != dynamic) {
         Vor::Impl::throwMutatorReinstVal("twiceNatConnectionHw");
      }
      return it->second;
   }
   Ptr<HwNatTwiceConnection> member(new HwNatTwiceConnection(group, protocol, vlanId, dynamic));
   twiceNatConnectionHw_.emplace(group, member);
   ++twiceNatConnectionHwVersion_;
   memberChanged(twiceNatConnectionHwId, group);
   return member;
}

void HwIntfStatus::twiceNatConnectionHwDel(U16 group) {
   Vor::memberEntityDel(twiceNatConnectionHw_, group, [this](U16 const& g) {
      ++twiceNatConnectionHwVersion_;
      memberChanged(twiceNatConnectionHwId, g);
   });
}

void HwIntfStatus::twiceNatConnectionHwDelAll() {
   while (!twiceNatConnectionHw_.empty()) twiceNatConnectionHwDel(twiceNatConnectionHw_.begin()->first);
}

Ptr<HwNatTwiceCount> HwIntfStatus::twiceNatConnectionHwCount(U16 group) const {
   return Vor::memberValue(twiceNatConnectionHwCount_, group);
}

Ptr<HwNatTwiceCount> HwIntfStatus::twiceNatConnectionHwCountIs(U16 group) {
   return Vor::memberEntityIs(
      twiceNatConnectionHwCount_, group, [](U16 g) { return Ptr<HwNatTwiceCount>(new HwNatTwiceCount(g)); },
      [this](U16 g) { memberChanged(twiceNatConnectionHwCountId, g); });
}

void HwIntfStatus::twiceNatConnectionHwCountDel(U16 group) {
   Vor::memberEntityDel(twiceNatConnectionHwCount_, group,
                   [this](U16 const& g) { memberChanged(twiceNatConnectionHwCountId, g); });
}

void HwIntfStatus::dynamicConnectionHwCountIs(Lumet::ConnTuple const& tuple, NatCounter const& counter) {
   if (Vor::memberValueIs(dynamicConnectionHwCount_, tuple, counter)) {
      memberChanged(dynamicConnectionHwCountId, tuple);
   }
}

void HwIntfStatus::dynamicConnectionHwCountDel(Lumet::ConnTuple const& tuple) {
   Lumet::ConnTuple const key = tuple;
   if (dynamicConnectionHwCount_.erase(key)) memberChanged(dynamicConnectionHwCountId, key);
}

// ---- HwNatVrfStaticConnection ----

HwNatVrfStaticConnection::HwNatVrfStaticConnection(Lumet::IpAddr const& srcAddressOld)
    : Vor::Entity(srcAddressOld.stringValue()), srcAddressOld_(srcAddressOld) {}

// ---- HwVrfStatus ----

HwVrfStatus::HwVrfStatus(L3::VrfName const& name) : Vor::Entity(name.stringValue()), vrfName_(name) {}

Ptr<HwNatVrfStaticConnection> HwVrfStatus::staticNat(Lumet::IpAddr const& addr) const {
   return Vor::memberValue(staticNat_, addr);
}

Ptr<HwNatVrfStaticConnection> HwVrfStatus::staticNatIs(Lumet::IpAddr const& addr) {
   return Vor::memberEntityIs(
      staticNat_, addr,
      [](Lumet::IpAddr const& a) { return Ptr<HwNatVrfStaticConnection>(new HwNatVrfStaticConnection(a)); },
      [this](Lumet::IpAddr const& a) {
         ++staticNatVersion_;
         memberChanged(staticNatId, a);
      });
}

void HwVrfStatus::staticNatDel(Lumet::IpAddr const& addr) {
   Vor::memberEntityDel(staticNat_, addr, [this](Lumet::IpAddr const& a) {
      ++staticNatVersion_;
      memberChanged(staticNatId, a);
   });
}

void HwVrfStatus::staticNatDelAll() {
   while (!staticNat_.empty()) staticNatDel(staticNat_.begin()->first);
}

// ---- HwStatus ----

Ptr<HwIntfStatus> HwStatus::intfStatus(Lumet::IntfId const& intf) const {
   return Vor::memberValue(intfStatus_, intf);
}

Ptr<HwIntfStatus> HwStatus::intfStatusIs(Vor::String const& name, Lumet::IntfId const& intf) {
   return Vor::memberEntityIs(
      intfStatus_, intf,
      [&name](Lumet::IntfId const& k) { return Ptr<HwIntfStatus>(new HwIntfStatus(name, k)); },
      [this](Lumet::IntfId const& k) { memberChanged(intfStatusId, k); });
}

void HwStatus::intfStatusDel(Lumet::IntfId const& intf) {
   Vor::memberEntityDel(intfStatus_, intf,
                   [this](Lumet::IntfId const& k) { memberChanged(intfStatusId, k); });
}

void HwStatus::intfStatusDelAll() {
   while (!intfStatus_.empty()) intfStatusDel(intfStatus_.begin()->first);
}

Ptr<HwVrfStatus> HwStatus::vrfStatus(L3::VrfName const& name) const {
   return Vor::memberValue(vrfStatus_, name);
}

Ptr<HwVrfStatus> HwStatus::vrfStatusIs(L3::VrfName const& name) {
   return Vor::memberEntityIs(
      vrfStatus_, name, [](L3::VrfName const& k) { return Ptr<HwVrfStatus>(new HwVrfStatus(k)); },
      [this](L3::VrfName const& k) { memberChanged(vrfStatusId, k); });
}

void HwStatus::vrfStatusDel(L3::VrfName const& name) {
   Vor::memberEntityDel(vrfStatus_, name, [this](L3::VrfName const& k) { memberChanged(vrfStatusId, k); });
}

void HwStatus::vrfStatusDelAll() {
   while (!vrfStatus_.empty()) vrfStatusDel(vrfStatus_.begin()->first);
}

} // namespace Ip::Nat
