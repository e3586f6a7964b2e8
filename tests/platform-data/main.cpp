#include <Elementary.h>
#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  setenv("ECORE_NO_SYSTEM_MODULES", "1", 1); /* they would talk to the machine's own bus */
  elm_init(argc, argv);
  const int result = RUN_ALL_TESTS();
  elm_shutdown();
  return result;
}
