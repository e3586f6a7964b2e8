#include <Elementary.h>
#include <gtest/gtest.h>

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  elm_init(argc, argv);
  const int result = RUN_ALL_TESTS();
  elm_shutdown();
  return result;
}
