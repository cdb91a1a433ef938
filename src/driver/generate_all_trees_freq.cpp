// The run driver: reads the compounds once, counts the fragments of every
// length compound by compound, then works length by length, turning every
// fragment of that length whose support reaches fmin into the next
// descriptor, and finally writes the descriptor vectors.
#include <cstdio>
#include <malloc.h>
#include <exception>
#include <new>

#include "common/common.h"
#include "driver/descriptor_run.h"
#include "driver/driver.h"
#include "input/input.h"
#include "output/output.h"
#include "settings/settings.h"
#include "table/table.h"

namespace {

int run(int argc, char** argv) {
  const RunSettings settings = parse_arguments(argc, argv);
  // Fewer, larger writes for the tens of megabytes of structure records.
  // glibc takes the size only together with a buffer, and the buffer must
  // outlive the stream (declared first, it is released after the close).
  std::vector<char> structure_buffer(1 << 20);
  FilePtr structure = open_file(settings.outfstem + "_frag.sdf", "w");
  std::setvbuf(structure.get(), structure_buffer.data(), _IOFBF, structure_buffer.size());
  DescriptorRun run;
  CompoundInput input = read_compounds(settings, run.table);
  run_descriptors(settings, input, RunOutputs{true, true, structure.get()}, run);

  input.compounds = {};
  input.dictionary = {};
  write_descriptor_file(settings.outfstem, run.table, run.idmap, input.compound_names);
  remove_dictionary_file(settings.infile);
  return 1;
}

}  // namespace

int run_tavrix(int argc, char** argv) {
  install_memory_handler();
  // The run's arrays grow by doubling to tens of megabytes; kept in the heap
  // and never handed back early, their pages are faulted in once rather
  // than on every move to a larger block.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_TOP_PAD, 64 << 20);
  try {
    return run(argc, argv);
  } catch (const std::exception&) {
    // Only a request too large for any allocator (length_error, bad_alloc
    // past the handler) can arrive here; it is the same failure as a full heap.
    std::fflush(stdout);
    std::fprintf(stderr, "%s:%d: not enough memory\n", __FILE_NAME__, __LINE__);
    return 1;
  }
}
