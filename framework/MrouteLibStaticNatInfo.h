#pragma once
// MrouteLib::StaticNatInfo: what the NAT engine tells the multicast routing
// side about static NAT of multicast groups: per address, the VLANs on which
// it is translated. Notifies per member, on add, change and removal.
//
// Thread safety: none; the agent's one thread.

#include <cstddef>
#include <map>

#include "framework/LumetIpAddr.h"
#include "framework/MrouteLibTypes.h"
#include "framework/VorEntity.h"
#include "framework/VorEntityCollections.h"

namespace MrouteLib {

class StaticNatInfo : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId ipInfoId = 1;

   using IpInfoMap = std::map<Lumet::IpGenAddr, StaticNatIpInfo>;

   explicit StaticNatInfo(Vor::String name = "staticNatInfo") : Vor::Entity(std::move(name)) {}

   IpInfoMap const& ipInfo() const { return ipInfo_; }
   // The empty record when absent.
   StaticNatIpInfo ipInfo(Lumet::IpGenAddr const& addr) const { return Vor::memberValue(ipInfo_, addr); }
   bool ipInfoHas(Lumet::IpGenAddr const& addr) const { return ipInfo_.count(addr) != 0; }
   std::size_t ipInfos() const { return ipInfo_.size(); }
   void ipInfoIs(Lumet::IpGenAddr const& addr, StaticNatIpInfo const& info) {
      if (Vor::memberValueIs(ipInfo_, addr, info)) memberChanged(ipInfoId, addr);
   }
   void ipInfoDel(Lumet::IpGenAddr const& addr) {
      Lumet::IpGenAddr const key = addr;
      if (ipInfo_.erase(key)) memberChanged(ipInfoId, key);
   }

 private:
   IpInfoMap ipInfo_;
};

} // namespace MrouteLib
