#include "Zaffa/MapDescriptor.h"

#include <fmt/format.h>

namespace Mem {

char const* CollectionDescriptor::modeName(Mode mode) {
   switch (mode) {
      case local: return "local";
      case writer: return "writer";
      case reader: return "reader";
      case shadow: return "shadow";
   }
   return "invalid";
}

} // namespace Mem

namespace Zaffa {

char const* mountStatusName(MountStatus status) {
   switch (status) {
      case MountStatus::unmounted: return "unmounted";
      case MountStatus::waiting: return "waiting";
      case MountStatus::mounted: return "mounted";
      case MountStatus::orphan: return "orphan";
   }
   return "invalid";
}

MapDescriptor MapDescriptor::localWriter(Vor::U32 minSlots, Vor::U32 maxSlots) {
   MapDescriptor d;
   d.mode = local;
   d.root.clear();
   d.minSlots = minSlots;
   d.maxSlots = maxSlots;
   return d;
}

MapDescriptor MapDescriptor::sharedWriter(std::string root, Vor::U32 minSlots, Vor::U32 maxSlots) {
   MapDescriptor d;
   d.mode = writer;
   d.root = std::move(root);
   d.minSlots = minSlots;
   d.maxSlots = maxSlots;
   return d;
}

MapDescriptor MapDescriptor::sharedReader(std::string root, bool withShadow) {
   MapDescriptor d;
   d.mode = withShadow ? shadow : reader;
   d.root = std::move(root);
   return d;
}

std::string MapDescriptor::toString() const {
   std::string flags;
   auto flag = [&flags](bool on, char const* name) {
      if (!on) return;
      if (!flags.empty()) flags += ",";
      flags += name;
   };
   flag(fixed, "fixed");
   flag(shrink, "shrink");
   flag(assertOnOrphanAccess, "assertOnOrphanAccess");
   flag(heapAllocation, "heapAllocation");
   flag(asynchronous, "asynchronous");
   flag(strictValidation, "strictValidation");
   return fmt::format("mode:{} root:{} minSlots:{} maxSlots:{} flags:{}", modeName(mode), root, minSlots,
                      maxSlots, flags.empty() ? std::string("none") : flags);
}

} // namespace Zaffa
