#include <cstring>

#include "mend.h"

int main(int argc, char** argv) {
  using android::init::MendManager;
  if (argc == 2 && strcmp(argv[1], "async") == 0) {
    MendManager::GetInstance()->startASyncMendRepair();
  } else {
    MendManager::GetInstance()->startSyncMendRepair();
  }
  return 0;
}
