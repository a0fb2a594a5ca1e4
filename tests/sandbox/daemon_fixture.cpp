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

std::string DaemonTest::Config(const std::string& name, const std::string& extra) {
  return "update_package_name=" + name +
         "\nupdate_version_name=1.0.2\nupdate_version_code=3\nmodule_num=2\n"
         "module_name=libfix;appfix\nmodule_path=/system/lib64;/system/app\nfix_method=overlay\n"
         "ro_build_display_id=BUILD.A.001;BUILD.A.002\ntrigger_rollback_count=3\n"
         "structure_version=1\nis_async_exec=0\n" +
         extra;
}

std::string DaemonTest::SpLine(const std::string& name, int version_code, int task_id,
                               const std::string& extra_members) {
  std::ostringstream line;
  line << "{\"update_package_name\":\"" << name << "\",\"update_version_code\":" << version_code
       << ",\"task_id\":" << task_id << ",\"image_path\":\"/data/rvx/imgs/" << name << ".zip\""
       << extra_members << "}";
  return line.str();
}

std::vector<std::string> DaemonTest::LogLines(const SandboxRun& run) {
  // liblog on Linux: "mend_log I MM-DD HH:MM:SS  pid  tid message"
  std::vector<std::string> lines;
  std::istringstream in(run.output);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("mend_log I ", 0) != 0) continue;
    std::istringstream fields(line);
    std::string skip;
    for (int i = 0; i < 6; ++i) fields >> skip;  // tag, prio, date, time, pid, tid
    std::string rest;
    std::getline(fields, rest);
    lines.push_back(rest.empty() ? rest : rest.substr(1));
  }
  return lines;
}

bool HasLine(const std::vector<std::string>& lines, const std::string& wanted) {
  for (const auto& line : lines) {
    if (line == wanted) return true;
  }
  return false;
}

}  // namespace mend_test
