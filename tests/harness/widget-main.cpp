#include <Efreet.h>
#include <Elementary.h>
#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  setenv("ECORE_NO_SYSTEM_MODULES", "1", 1); /* they would talk to the machine's own bus */
  efreet_cache_disable();                    /* nor wait for a cache of its menus that nobody makes */
  elm_init(argc, argv);
  const int result = RUN_ALL_TESTS();
  elm_shutdown();
  return result;
}
