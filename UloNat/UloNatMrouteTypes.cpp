#include "UloNat/UloNatMrouteTypes.h"

namespace Ulo {

std::string NatMulticastData::stringValue() const {
   return "NatMulticastData { multicast=" + std::to_string(multicast_ ? 1 : 0) +
          ", groupId=" + std::to_string(groupId_) + ", oifSet=" + oifSet_.stringValue() + " }";
}

Vor::Ptr<NatMulticastData> NatMulticastDataIs() { return Vor::Ptr<NatMulticastData>(new NatMulticastData()); }

} // namespace Ulo
