#include "app-test.h"

int main(int argc, char **argv) {
  return app_test_main(argc, argv);
}
