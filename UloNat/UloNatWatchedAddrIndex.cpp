// The text form of the watched addresses of a twice connection.

#include "UloNat/UloNatWatchedAddrIndex.h"

#include "framework/VorString.h"

namespace Ulo {

std::string TwiceNatWatchedAddr::stringValue() const {
   return Vor::format("Value('Ulo::TwiceNatWatchedAddr', ** {'srcWatchedAddr': %s, "
                      "'dstWatchedAddr': %s})",
                      srcWatchedAddr.stringValue().c_str(), dstWatchedAddr.stringValue().c_str())
      .stdString();
}

} // namespace Ulo
