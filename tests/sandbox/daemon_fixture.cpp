#include "daemon_fixture.h"

#include <sstream>

#include "zip_builder.h"

namespace mend_test {

DaemonTest::DaemonTest() {
  root_.MakeDir("/data/rvx/imgs");
  root_.MakeDir("/data/rvx/files");
  root_.MakeDir("/data/rvx/msgs");
  root_.MakeDir("/mnt/rvx");
  root_.SetProperty("ro.product.mend.support", "1");
  root_.SetProperty("persist.product.mend.support", "1");
  root_.SetProperty("ro.build.display.id", "BUILD.A.001");
}

SandboxRun DaemonTest::RunMend(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {MEND_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  return root_.Run(argv);
}

void DaemonTest::AddPackage(const std::string& file, const std::string& config) {
  const std::string host = root_.HostPath("/data/rvx/imgs/" + file);
  WriteZip(host, {{"config.txt", config}, {"update_payload.img", std::string(8192, '\0'), false, 4096}});
}

void DaemonTest::WriteState(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  root_.WriteFile("/data/rvx/files/shared_prefs.cfg", text);
}

}  // namespace mend_test
