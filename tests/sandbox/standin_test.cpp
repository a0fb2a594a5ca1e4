#include <gtest/gtest.h>

#include "sandbox_root.h"

namespace mend_test {
namespace {

class StandinTest : public ::testing::Test {
 protected:
  std::string Probe(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {STANDIN_PROBE};
    argv.insert(argv.end(), args.begin(), args.end());
    SandboxRun run = root_.Run(argv, std::chrono::seconds(30));
    EXPECT_TRUE(run.finished) << run.output;
    return run.output;
  }
  SandboxRoot root_;
};

TEST_F(StandinTest, PropertyGetFollowsTheDeviceRules) {
  root_.SetProperty("a.set", "value");
  root_.SetProperty("a.empty", "");
  root_.WriteFile(std::string(MEND_PROPERTY_DIR) + "/a.raw", "no newline");
  root_.SetProperty("a.long", std::string(120, 'x'));

  EXPECT_EQ(Probe({"get", "a.set", "dflt"}), "5[value]\n");
  EXPECT_EQ(Probe({"get", "a.raw"}), "10[no newline]\n");
  // Empty and missing both mean unset: the default applies.
  EXPECT_EQ(Probe({"get", "a.empty", "dflt"}), "4[dflt]\n");
  EXPECT_EQ(Probe({"get", "a.missing", "-1"}), "2[-1]\n");
  EXPECT_EQ(Probe({"get", "a.missing"}), "0[]\n");
  // Values and defaults are cut to what the property area can hold.
  EXPECT_EQ(Probe({"get", "a.long"}), "91[" + std::string(91, 'x') + "]\n");
  EXPECT_EQ(Probe({"get", "a.missing", std::string(100, 'd')}),
            "91[" + std::string(91, 'd') + "]\n");
  // A name that would leave the store is never looked up.
  EXPECT_EQ(Probe({"get", "../a.set", "no"}), "2[no]\n");
}

TEST_F(StandinTest, BoolPropertiesReadTheFileStore) {
  for (const auto& [value, expected] : std::vector<std::pair<std::string, std::string>>{
           {"1", "1"}, {"true", "1"}, {"on", "1"}, {"0", "0"}, {"no", "0"}, {"maybe", "dflt"}}) {
    root_.SetProperty("b", value);
    EXPECT_EQ(Probe({"getbool", "b", "0"}), (expected == "dflt" ? "0" : expected) + "\n") << value;
    EXPECT_EQ(Probe({"getbool", "b", "1"}), (expected == "dflt" ? "1" : expected) + "\n") << value;
  }
}

TEST_F(StandinTest, WaitForPropertyNeedsTheExactValue) {
  root_.SetProperty("w", "10");
  EXPECT_EQ(Probe({"wait", "w", "1", "200"}), "timeout\n");
  root_.SetProperty("w", "1");
  EXPECT_EQ(Probe({"wait", "w", "1", "200"}), "reached\n");
}

TEST_F(StandinTest, RebootAsksTheServiceManagerWhenOneRunsAndTheKernelOtherwise) {
  SandboxRun run = root_.Run({STANDIN_PROBE, "reboot", "0xDEAD0001"}, std::chrono::seconds(30));
  EXPECT_TRUE(run.rebooted) << run.output;
  EXPECT_EQ(run.output, "before\n");
  EXPECT_EQ(Probe({"reboot", "0x1234"}), "before\nreturned -1\n");

  root_.MakeDir("/run/systemd/system");
  for (const auto& [cmd, request] : std::vector<std::pair<std::string, std::string>>{
           {"0xDEAD0001", "reboot"}, {"0xDEAD0002", "poweroff"}, {"0x1234", "nothing"}}) {
    run = root_.Run({"unshare", "--pid", "--fork", STANDIN_PROBE, "manager", "reboot", cmd},
                    std::chrono::seconds(30));
    EXPECT_EQ(run.output, std::string("before\nreturned ") + (request == "nothing" ? "-1" : "0") +
                              "\nmanager got " + request + "\n")
        << cmd;
  }
}

}  // namespace
}  // namespace mend_test
