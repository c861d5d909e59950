#pragma once
// Values of the conversation with the multicast routing side:
// Ulo::NatMrouteOifSet, the egress interfaces of a multicast route;
// Ulo::NatMrouteKey, the route an interface engine watches; and
// Ulo::NatMcastCtxKey, the interface-free key under which what is known of a
// route is cached.
//
// Thread safety: plain value; const operations may run concurrently.

#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "framework/LumetIntfId.h"
#include "framework/LumetIpAddr.h"
#include "framework/VorHash.h"
#include "framework/VorEntity.h"
#include "framework/VorPtr.h"

namespace Ulo {

// The outgoing interfaces of one multicast route. Held in an ordered set so
// that its text, and the order in which it fills a hardware record's egress
// array, are the same on every run; nothing else depends on the order.
class NatMrouteOifSet {
 public:
   using Set = std::set<Lumet::IntfId>;

   Set const& oif() const { return oif_; }
   bool oifHas(Lumet::IntfId const& intf) const { return oif_.count(intf) != 0; }
   void oifIs(Lumet::IntfId const& intf) { oif_.insert(intf); }
   void oifDel(Lumet::IntfId const& intf) { oif_.erase(intf); }
   std::size_t oifs() const { return oif_.size(); }

   friend bool operator==(NatMrouteOifSet const& a, NatMrouteOifSet const& b) { return a.oif_ == b.oif_; }

   // "NatMrouteOifSet {" then each member followed by ", ", then "}":
   // "NatMrouteOifSet {Ethernet1, Ethernet2, }".
   std::string stringValue() const {
      std::string text = "NatMrouteOifSet {";
      for (auto const& intf : oif_) text += intf.stringValue() + ", ";
      return text + "}";
   }

 private:
   Set oif_;
};

// What a key names. Stored as a 32-bit integer.
enum class NatMrouteKeyType : Vor::U32 {
   // A route: vlan, source and group as given; either address may be zero.
   mrouteKeyTypeRoute = 0,
   // A group alone: the source is zero.
   mrouteKeyTypeGroup = 1,
};

// The route of (vlan, source, group) that one NAT interface watches. The
// engines only build keys of type mrouteKeyTypeRoute. Hash, equality and
// order take every field.
struct NatMrouteKey {
   NatMrouteKeyType type = NatMrouteKeyType::mrouteKeyTypeRoute;
   Lumet::IntfId intfId;
   Vor::U16 vlanId = 0;
   Lumet::IpAddr sourceIp;
   Lumet::IpAddr groupIp;

   friend bool operator==(NatMrouteKey const&, NatMrouteKey const&) = default;
   friend bool operator<(NatMrouteKey const& a, NatMrouteKey const& b);
   Vor::U32 hash(Vor::U32 seed = 0) const;
   // "NatMrouteKey (I=Ethernet1, V=10, S=10.0.0.1, G=239.1.1.1), type=0"
   std::string stringValue() const;
};

// The key of the cache of route answers. It carries no interface: what is
// known of a route is shared by every interface.
struct NatMcastCtxKey {
   NatMrouteKeyType keyType = NatMrouteKeyType::mrouteKeyTypeRoute;
   Vor::U16 vlanId = 0;
   Lumet::IpAddr sourceIp;
   Lumet::IpAddr groupIp;

   NatMcastCtxKey() = default;
   NatMcastCtxKey(NatMrouteKeyType type, Vor::U16 vlan, Lumet::IpAddr source, Lumet::IpAddr group)
       : keyType(type), vlanId(vlan), sourceIp(source), groupIp(group) {}

   friend bool operator==(NatMcastCtxKey const&, NatMcastCtxKey const&) = default;
   // Lexical in keyType, vlanId, sourceIp, groupIp.
   friend bool operator<(NatMcastCtxKey const& a, NatMcastCtxKey const& b);
   // Mixes keyType, vlanId, the hash of sourceIp, the hash of groupIp.
   Vor::U32 hash(Vor::U32 seed = 0) const;
   // "NatMcastCtxKey {type=0 vlanId=10, sourceIp=10.0.0.1, groupIp=0.0.0.0}"
   std::string stringValue() const;
   // "Value('Ulo::NatMcastCtxKey', ** {'keyType': 0, 'vlanId': 10,
   // 'sourceIp': 10.0.0.1, 'groupIp': 0.0.0.0})"
   std::string valueToStrep() const;
   // Reads back what valueToStrep() writes; nothing on any other text.
   static std::optional<NatMcastCtxKey> fromStrep(std::string_view text);
};
// Multicast state of one rule: whether it is a multicast translation, its
// group handle and its egress interfaces.
class NatMulticastData : public Vor::Entity {
 public:
   enum Attribute : Vor::AttributeId { multicastAttribute = 1, groupIdAttribute, oifSetAttribute };

   bool multicast() const { return multicast_; }
   Vor::U32 groupId() const { return groupId_; }
   NatMrouteOifSet const& oifSet() const { return oifSet_; }
   // Setters notify only on a change.
   void multicastIs(bool v) { scalarIs(multicast_, v, multicastAttribute); }
   void groupIdIs(Vor::U32 v) { scalarIs(groupId_, v, groupIdAttribute); }
   void oifSetIs(NatMrouteOifSet const& v) { scalarIs(oifSet_, v, oifSetAttribute); }

   // "NatMulticastData { multicast=1, groupId=7, oifSet=NatMrouteOifSet {...} }"
   std::string stringValue() const;

 private:
   bool multicast_ = false;
   Vor::U32 groupId_ = 0;
   NatMrouteOifSet oifSet_;
};

// An empty NatMulticastData.
Vor::Ptr<NatMulticastData> NatMulticastDataIs();

} // namespace Ulo

template <>
struct std::hash<Ulo::NatMrouteKey> {
   std::size_t operator()(Ulo::NatMrouteKey const& k) const noexcept { return k.hash(); }
};
template <>
struct std::hash<Ulo::NatMcastCtxKey> {
   std::size_t operator()(Ulo::NatMcastCtxKey const& k) const noexcept { return k.hash(); }
};
