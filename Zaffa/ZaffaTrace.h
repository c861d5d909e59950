#pragma once
// The trace handle of the table's templates.
//
// Source files of the table use VOR_TRACE_HANDLE as everywhere else; the
// templates (writer, hash map, validator), which are compiled into their
// users, trace through the one handle "ZaffaTemplates" with ZAFFA_LOG, which
// is DUOLOG on that handle.

#include "framework/VorTrace.h"

namespace Zaffa {
::Vor::TraceHandle& templateTraceHandle();
} // namespace Zaffa

#define ZAFFA_LOG(level, format, ...)                                                  \
   do {                                                                                \
      if (::Zaffa::templateTraceHandle().enabled(level)) {                             \
         static ::Nimlog::MsgDesc const zaffaMsgDesc_{&::Zaffa::templateTraceHandle(), \
                                                      level, format, __FILE__, __LINE__}; \
         ::Duolog::write(zaffaMsgDesc_ __VA_OPT__(, ) __VA_ARGS__);                    \
      }                                                                                \
   } while (0)
