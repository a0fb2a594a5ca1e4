#include "virtual_device.h"

#include <cstdlib>
#include <filesystem>

#include "avb_fixtures.h"
#include "run_program.h"
#include "test_files.h"

namespace mend_test {

void VirtualDevice::AddBinary(const std::string& host_path) {
  options_.insert(options_.end(), {"--bin", host_path});
}

VmRun VirtualDevice::Run(const std::vector<std::string>& argv, std::chrono::seconds timeout) {
  const std::string status_file =
      std::filesystem::path(root_.path()).parent_path().string() + "/vm-status";
  std::filesystem::remove(status_file);

  std::vector<std::string> args = {MEND_SOURCE_DIR "/tests/vm/run-vm",
                                   "--kernel", MEND_VM_KERNEL_DIR,
                                   "--root", root_.path(),
                                   "--status", status_file,
                                   "--timeout", std::to_string(timeout.count())};
  args.insert(args.end(), options_.begin(), options_.end());
  args.push_back("--");
  args.insert(args.end(), argv.begin(), argv.end());

  VmRun run;
  run.output = RunProgram(args).out;
  std::string end = std::filesystem::exists(status_file) ? ReadWholeFile(status_file) : "no-boot";
  while (!end.empty() && (end.back() == '\n' || end.back() == ' ')) end.pop_back();
  run.end = end;
  if (end.rfind("exited ", 0) == 0) {
    run.finished = true;
    run.exit_code = std::atoi(end.c_str() + 7);
  }
  run.rebooted = end == "rebooted" || end == "powered-off";
  run.timed_out = end == "timeout";
  return run;
}

void LayOutRepairDevice(VirtualDevice* device) {
  SandboxRoot& root = device->root();
  for (const char* dir : {"/data/rvx/imgs", "/data/rvx/files", "/data/rvx/msgs", "/mnt/rvx"}) {
    root.MakeDir(dir);
  }
  root.WriteFile("/system/lib64/libstock.txt", "stock lib\n");
  root.WriteFile("/system/app/Demo/Demo.txt", "stock demo\n");
  root.CopyIn(AvbFixture("keys/rsa2048.avbpubkey"), "/system/etc/security/rpk_public_key");
  root.SetProperty("ro.product.mend.support", "1");
  root.SetProperty("persist.product.mend.support", "1");
  root.SetProperty("ro.build.display.id", "BUILD.A.002");
}

}  // namespace mend_test
