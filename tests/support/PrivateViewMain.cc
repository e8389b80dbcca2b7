// The main function of tests that need a private view of the file system.
#include "support/PrivateView.h"

#include <gtest/gtest.h>
#include <iostream>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests) && !Velantrix::Test::inPrivateView()) {
    std::cerr
        << "These tests write under /opsadmin and /var/spool/crypto. Run them with ctest, or\n"
           "with tests/support/private-view.sh in front of the command.\n";
    return 2;
  }
  return RUN_ALL_TESTS();
}
