#pragma once
// The table of the hardware shadow (NatHwShadow's storage): key Ulo::NatHwKey, value
// Ulo::NatHwShadowEntry. The figures below are the file format of this
// instantiation; a change to either record that moves them makes every
// existing shadow file unreadable, so they are pinned here at compile time.

#include "UloNat/UloNatAsyncTypes.h"
#include "Zaffa/ZaffaWriter.h"

namespace Zaffa {

using NatHwShadowWriter = ZaffaWriter<Ulo::NatHwKey, Ulo::NatHwShadowEntry>;

static_assert(slotFileVersion == 18);
static_assert(Compatibility::thisPlatform == 2);
static_assert(sizeof(Ulo::NatHwKey) == 40);
static_assert(sizeof(Ulo::NatHwShadowEntry) == 736);
static_assert(slotSizeFor(sizeof(Ulo::NatHwShadowEntry)) == 752);
static_assert(slotHeaderBytes + slotSizeFor(sizeof(Ulo::NatHwShadowEntry)) == 944);
static_assert(typeName<Ulo::NatHwShadowEntry>() == "Ulo::NatHwShadowEntry");

extern template class ZaffaWriter<Ulo::NatHwKey, Ulo::NatHwShadowEntry>;

} // namespace Zaffa
