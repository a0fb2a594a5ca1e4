#include "daemon_fixture.h"

#include <regex>
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

void DaemonTest::WriteState(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  root_.WriteFile("/data/rvx/files/shared_prefs.cfg", text);
}

std::vector<std::string> DaemonTest::LogLines(const SandboxRun& run) {
  // Log records on Linux start "TAG P MM-DD HH:MM:SS  pid  tid message";
  // a message with line breaks continues on lines without that header.
  static const std::regex header(R"(^(\S+) ([VDIWEF]) \d\d-\d\d \d\d:\d\d:\d\d +\d+ +\d+ (.*)$)");
  std::vector<std::string> lines;
  bool in_daemon_record = false;
  std::istringstream in(run.output);
  std::string line;
  while (std::getline(in, line)) {
    std::smatch m;
    if (std::regex_match(line, m, header)) {
      in_daemon_record = m[1] == "mend_log" && m[2] == "I";
      if (in_daemon_record) lines.push_back(m[3]);
    } else if (in_daemon_record) {
      lines.back() += "\n" + line;
    }
  }
  return lines;
}

bool HasLine(const std::vector<std::string>& lines, const std::string& wanted) {
  for (const auto& line : lines) {
    if (line == wanted) return true;
  }
  return false;
}

bool HasInOrder(const std::vector<std::string>& lines, const std::vector<std::string>& wanted) {
  size_t next = 0;
  for (const auto& line : lines) {
    if (next < wanted.size() && line == wanted[next]) ++next;
  }
  return next == wanted.size();
}

namespace {

std::string JsonEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

}  // namespace

std::string NativeLine(const std::string& name, const std::string& file, int task_id,
                       const std::string& response_content, int version_code) {
  std::ostringstream line;
  line << "{\"image_path\":\"/data/rvx/imgs/" << file
       << "\",\"msg_source\":\"mend\",\"msg_type\":256,\"need_response\":false,"
       << "\"response_content\":\"" << JsonEscape(response_content) << "\",\"task_id\":" << task_id
       << ",\"update_package_name\":\"" << name << "\",\"update_version_code\":" << version_code
       << "}";
  return line.str();
}

std::string SpRecord::Line() const {
  auto flag = [](bool b) { return b ? "true" : "false"; };
  std::ostringstream line;
  line << "{\"boot_failed_count\":" << boot_failed_count
       << ",\"cancel_task_id\":0,\"first_report\":false,\"image_path\":\"" << image_path
       << "\",\"is_async_repair\":false,\"is_boot_success\":" << flag(is_boot_success)
       << ",\"is_repair_success\":" << flag(is_repair_success)
       << ",\"need_cancel\":" << flag(need_cancel) << ",\"need_delete\":" << flag(need_delete)
       << ",\"reboot_type\":0,\"task_id\":" << task_id << ",\"update_package_name\":\"" << name
       << "\",\"update_version_code\":" << version_code << "}";
  return line.str();
}

}  // namespace mend_test
