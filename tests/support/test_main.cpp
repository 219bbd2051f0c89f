#include <gtest/gtest.h>

#include "platform/process.h"
#include "tests/support/folder.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Every servant deletes and writes the snapshot in its state folder: not beside the program.
  const portsvc::TemporaryFolder state;
  portsvc::set_state_folder(state.path());
  return RUN_ALL_TESTS();
}
