#include "Zaffa/ZaffaMap.h"

#include "Zaffa/ZaffaNatHwShadow.h"

namespace Zaffa {

char const* implTypeName(ImplType type) {
   switch (type) {
      case ImplType::dummy: return "ZaffaDummy";
      case ImplType::strictDummy: return "ZaffaStrictDummy";
      case ImplType::writer: return "ZaffaWriter";
      case ImplType::reader: return "ZaffaReader";
      case ImplType::shadow: return "ZaffaShadow";
   }
   return "invalid";
}

void orphanAccessFailed(std::string const& name, char const* operation) {
   std::string const text = fmt::format(
      "{}::{}(). If you're seeing this, you're trying to operate on an orphan zaffa entity", name, operation);
   ::Ulo::assertFailed(text.c_str(), __FILE__, __LINE__, __PRETTY_FUNCTION__);
}

void corruptionDetected(std::string const& name, std::string const& rootPath, std::string const& message) {
   Mem::RootPath const root(rootPath);
   if (!root.empty() && !Util::writeCorruptionMarker(root, message)) {
      ZAFFA_LOG(1, "{} cannot write corruption-detected marker in {}", name, root.dir());
   }
   ZAFFA_LOG(0, "{} corruption detected: {}", name, message);
   ::Ulo::assertFailed(message.c_str(), __FILE__, __LINE__, __PRETTY_FUNCTION__);
}

// The hardware shadow's map, compiled once here for the library.
template class ZaffaMap<Ulo::NatHwKey, Ulo::NatHwShadowEntry>;

} // namespace Zaffa
