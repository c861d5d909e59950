#include "framework/UloBaseSm.h"

#include <fmt/format.h>

namespace Ulo {

std::string VerifyOutput::stringValue() const {
   return fmt::format("Value('Ulo::VerifyOutput', ** {{'message': {}, 'file': {}, 'line': {}, "
                      "'function': {}, 'level': {}}})",
                      message.stdString(), file.stdString(), line, function.stdString(), level);
}

void VerifyData::updateCliVerifyOutput(Vor::String const& function, Vor::String const& text) const {
   cliOutput_.push_back({function, text});
}

void VerifyData::verifyOutputIs(VerifyOutput const& output) const {
   verifyOutput_.push_back(output);
}

} // namespace Ulo
