// Built against an installed libUloNat: uses a value type whose header needs
// C++20 and the library's out-of-line code, and checks that the library it
// loads is the one its headers describe.
#include <cstdio>
#include <cstring>

#include "framework/LumetIntfId.h"
#include "UloNat/UloNatVersion.h"

int main() {
   if (std::strcmp(Ulo::natLibraryVersion(), ULONAT_VERSION_STRING) != 0) {
      std::printf("headers %s, library %s\n", ULONAT_VERSION_STRING, Ulo::natLibraryVersion());
      return 1;
   }
   auto const intf = Lumet::IntfId::parse("Ethernet7");
   if (!intf || intf->stringValue() != "Ethernet7") {
      std::printf("Ethernet7 did not parse back to itself\n");
      return 1;
   }
   std::printf("libUloNat %s\n", Ulo::natLibraryVersion());
   return 0;
}
