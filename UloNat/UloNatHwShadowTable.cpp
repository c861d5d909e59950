#include "UloNat/UloNatHwShadowTable.h"

#include "Zaffa/ZaffaMap.h"

namespace Zaffa {

// Compiled once here, so that the library carries the shadow's table and its
// users do not instantiate it again.
template class ZaffaWriter<Ulo::NatHwKey, Ulo::NatHwShadowEntry>;
template class ZaffaMap<Ulo::NatHwKey, Ulo::NatHwShadowEntry>;

} // namespace Zaffa
