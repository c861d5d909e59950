#include "Zaffa/ZaffaUtil.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace Zaffa::Util {

bool runningOnPhysicalDut() { return std::getenv("SIMULATION_VMID") == nullptr; }

void validateFile(SlotTableHeader const* header, std::size_t fileSize, U32 wantedFenix) {
   std::string message;
   if (fileSize < sizeof(SlotTableHeader)) {
      message = fmt::format("bad header file size: {} wanted:{}", fileSize, sizeof(SlotTableHeader));
   } else if (header->validate(false, fileSize, wantedFenix, message)) {
      return;
   }
   throw Jorro::CorruptionDetectedException(message);
}

bool writeCorruptionMarker(Mem::RootPath const& root, std::string const& message) {
   if (root.empty()) return false;
   std::ofstream out(root.file(FileNames::corruptionMarker), std::ios::trunc);
   out << message << '\n';
   return static_cast<bool>(out);
}

bool removeCorruptionMarker(Mem::RootPath const& root) {
   if (root.empty()) return false;
   return ::unlink(root.file(FileNames::corruptionMarker).c_str()) == 0;
}

std::string readCorruptionMarker(Mem::RootPath const& root) {
   if (root.empty()) return {};
   std::ifstream in(root.file(FileNames::corruptionMarker));
   if (!in) return {};
   std::stringstream s;
   s << in.rdbuf();
   std::string text = s.str();
   while (!text.empty() && text.back() == '\n') text.pop_back();
   return text.empty() ? std::string("(no message)") : text;
}

} // namespace Zaffa::Util
