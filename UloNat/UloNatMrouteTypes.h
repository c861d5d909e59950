#pragma once
// Values of the conversation with the multicast routing side that the
// hardware layer needs: Ulo::NatMrouteOifSet, the egress interfaces of a
// multicast route.
//
// Thread safety: plain value; const operations may run concurrently.

#include <set>
#include <string>

#include "framework/LumetIntfId.h"

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

} // namespace Ulo
