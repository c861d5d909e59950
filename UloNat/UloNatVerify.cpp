#include "UloNat/UloNatVerify.h"

#include <cstdlib>

#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatVerify");

namespace Ulo {

void reportVerifyFinding(UloCommonSmData const* commonSmData, std::string const& message,
                         char const* functionName, std::source_location const& where) {
   if (!commonSmData || !commonSmData->verifyData()) return;
   VerifyData const& verifyData = *commonSmData->verifyData();
   VOR_TRACE(3, "verify: " << message);
   if (std::getenv("SIMULATION_VMID") != nullptr) {
      VerifyOutput output;
      output.message = Vor::String(message);
      output.file = Vor::String(where.file_name());
      output.line = where.line();
      output.function = Vor::String(functionName);
      output.level = verifyFindingLevel;
      verifyData.verifyOutputIs(output);
      // In simulation a finding is a bug: stop where it was found, with the
      // state still there to look at.
      assertFailed("0", where.file_name(), static_cast<int>(where.line()), where.function_name());
   }
   verifyData.updateCliVerifyOutput(Vor::String(where.function_name()), Vor::String(message));
}

} // namespace Ulo
