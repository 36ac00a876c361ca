// Every test process gets its own data folder (children share their
// parent's), so stores never leak between tests or into the user's home.
#include <gtest/gtest.h>

#include <cstdlib>

#include "test_support.h"

int main(int argc, char** argv) {
  int status = 0;
  if (velora_test::runChildFromEnvironment(&status)) {
    return status;  // a normal return: exit handlers and static destructors run
  }
  velora_test::TempDir dataDir;
  setenv("VELORA_DATA_DIR", dataDir.path().c_str(), 1);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
