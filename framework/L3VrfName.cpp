#include "framework/L3VrfName.h"

#include "framework/VorException.h"

namespace L3 {

VrfName::VrfName(Vor::String const& value) : value_(value) {
   if (value.size() > maxLength) {
      Vor::throwRangeException("VrfName::value::bytes > VrfName::maxLength not allowed");
   }
}

} // namespace L3
