#include "UloNat/UloNatVersion.h"

namespace Ulo {

char const* natLibraryVersion() { return ULONAT_VERSION_STRING; }

} // namespace Ulo
