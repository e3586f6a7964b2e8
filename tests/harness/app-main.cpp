#include "app-test.h"

/* What the toolkit itself never frees, also in a program that only opens and closes an empty window: the records of
   smart objects, in a function without a name, and its list of modules. */
extern "C" const char *__lsan_default_suppressions(void) {
  return "leak:libevas.so\nleak:eina_module_new\n";
}

int main(int argc, char **argv) {
  return app_test_main(argc, argv);
}
