// Tavrix: fragment-based descriptors for a file of chemical compounds.
#include "driver/driver.h"

#include "common/common.h"

int main(int argc, char** argv) {
  open_standard_descriptors();
  return run_tavrix(argc, argv);
}
