#include "Zaffa/ZaffaTrace.h"

namespace Zaffa {

::Vor::TraceHandle& templateTraceHandle() {
   static ::Vor::TraceHandle handle("ZaffaTemplates");
   return handle;
}

} // namespace Zaffa
