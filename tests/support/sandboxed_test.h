#pragma once

#include <chrono>

namespace mend_test {

// How the sandbox of one test is laid out.
struct SandboxLayout {
  bool fake_sys = false;  // an empty directory the test fills replaces /sys
  bool rw_sys = false;    // the host's /sys, writable (ignored with fake_sys)
  std::chrono::seconds timeout = std::chrono::seconds(60);
};

inline SandboxLayout WithFakeSys() {
  SandboxLayout layout;
  layout.fake_sys = true;
  return layout;
}

inline SandboxLayout WithWritableSys() {
  SandboxLayout layout;
  layout.rw_sys = true;
  return layout;
}

enum class SandboxOutcome {
  kRunHere,  // this process is the sandboxed one: run the body
  kDone,     // the sandboxed run finished; its verdict was recorded
  kSkipped,  // the sandboxed run skipped the test
};

// Lets a GoogleTest body run inside scripts/sandbox. On the host it runs this
// same binary, limited to the current test, in a fresh sandbox root laid out
// as asked and records the inner run's verdict as this test's. Use through
// MEND_RUN_IN_SANDBOX at the top of a test body.
SandboxOutcome RunCurrentTestInSandbox(const SandboxLayout& layout);

// True in a process that RunCurrentTestInSandbox started in the sandbox.
bool InSandbox();

}  // namespace mend_test

// MEND_RUN_IN_SANDBOX() or MEND_RUN_IN_SANDBOX(mend_test::WithFakeSys()).
#define MEND_RUN_IN_SANDBOX(...)                                                           \
  switch (::mend_test::RunCurrentTestInSandbox(::mend_test::SandboxLayout{__VA_ARGS__})) { \
    case ::mend_test::SandboxOutcome::kRunHere:                                            \
      break;                                                                               \
    case ::mend_test::SandboxOutcome::kSkipped:                                            \
      GTEST_SKIP() << "skipped in the sandbox";                                            \
    case ::mend_test::SandboxOutcome::kDone:                                               \
      return;                                                                              \
  }
