#include "Zaffa/platform/MemVersionAnchor.h"

#include "Zaffa/platform/Jorro.h"
#include "Zaffa/platform/Mem.h"
#include "Zaffa/SlotReader.h"
#include "Zaffa/ZaffaUtil.h"

#include <fmt/format.h>

namespace Mem {

std::string CacheVersionAnchor::toString() const {
   return fmt::format("CacheVersionAnchor{{ fenixId {} }}", fenixId.toString());
}

void VersionAnchor::validate() const {
   if (!valid()) throw Jorro::AssertException("should not be called on a default-constructed VersionAnchor");
   if (root_.empty()) return;
   auto const stored = SharedMem::FenixFile(RootPath(root_).file(Zaffa::FileNames::fenix)).read();
   if (!stored || !(*stored == fenixId_)) {
      throw VersionMismatchException(fmt::format("mapped generation {} but {} now holds {}", fenixId_.toString(),
                                                 root_, stored ? stored->toString() : std::string("none")));
   }
}

} // namespace Mem
