#include "dirwatch/dir_watch.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "test_files.h"

namespace mend_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

bool Exists(const std::string& path) {
  struct stat sb;
  return stat(path.c_str(), &sb) == 0;
}

TEST(DirWatchTest, WakesWhenTheEntryAppearsAndGivesUpAtTheBound) {
  TempDir dir;
  const std::string entry = dir / "node";
  // A directory that cannot be watched is looked at regularly instead.
  for (const std::string& watched : {dir.path(), dir / "missing"}) {
    SCOPED_TRACE(watched);
    std::thread maker([&] {
      std::this_thread::sleep_for(milliseconds(100));
      WriteWholeFile(entry, "");
    });
    const auto start = steady_clock::now();
    EXPECT_TRUE(dirwatch::WaitUntil(watched, std::chrono::minutes(1), [&] { return Exists(entry); }));
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(30));
    maker.join();
    ASSERT_EQ(unlink(entry.c_str()), 0);
  }

  const auto start = steady_clock::now();
  EXPECT_FALSE(dirwatch::WaitUntil(dir.path(), milliseconds(200), [&] { return Exists(entry); }));
  EXPECT_GE(steady_clock::now() - start, milliseconds(200));
}

}  // namespace
}  // namespace mend_test
