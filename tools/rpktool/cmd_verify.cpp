#include "commands.h"

namespace rpktool {

int RunVerify(const std::vector<std::string>&) {
  ReportError("verify", "not built yet");
  return kExitFailure;
}

}  // namespace rpktool
