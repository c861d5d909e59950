#include "Zaffa/ZaffaNatHwShadow.h"

namespace Zaffa {

// Compiled once here, so that the library carries the shadow's table and its
// users do not instantiate it again.
template class ZaffaWriter<Ulo::NatHwKey, Ulo::NatHwShadowEntry>;

} // namespace Zaffa
