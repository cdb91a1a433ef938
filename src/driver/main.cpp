// Tavrix: fragment-based descriptors for a file of chemical compounds.
#include "driver/driver.h"

#include "common/common.h"
#include "common/huge_pages.h"

int main(int argc, char** argv) {
  prefer_huge_pages(argv);
  open_standard_descriptors();
  return run_tavrix(argc, argv);
}
