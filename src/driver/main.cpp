// Tavrix: fragment-based descriptors for a file of chemical compounds.
#include "driver/driver.h"

int main(int argc, char** argv) { return run_tavrix(argc, argv); }
