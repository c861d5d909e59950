#include "framework/VorException.h"

namespace Vor {

void throwRangeException(std::string const& text) { throw RangeException(text); }

void throwMutatorArgNullPointerException(char const* mutator) {
   throw NullPointerException(std::string("null pointer passed to ") + mutator);
}

namespace Impl {
void throwMutatorReinstVal(char const* attribute) {
   throw ReinstantiationException(std::string(attribute) +
                                  ": member re-instantiated with different arguments");
}
} // namespace Impl

} // namespace Vor
