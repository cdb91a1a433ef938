// The run driver: reads the compounds once, counts the fragments of every
// length compound by compound, then works length by length, turning every
// fragment of that length whose support reaches fmin into the next
// descriptor, and finally writes the descriptor vectors.
#include <cstdio>
#include <malloc.h>
#include <exception>
#include <new>

#include "common/common.h"
#include "common/late_truncation.h"
#include "count/count.h"
#include "driver/driver.h"
#include "input/input.h"
#include "output/output.h"
#include "settings/settings.h"

namespace {

// The folder of the output stem: where the run's own files go, and so where
// there is room for its temporary file.
std::string stem_folder(const std::string& stem) {
  const std::size_t slash = stem.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : stem.substr(0, slash);
}

int run(int argc, char** argv) {
  const RunSettings settings = parse_arguments(argc, argv);
  CountOptions options = count_options(settings);
  options.threads = threads_to_use();
  options.spill_limit = spill_limit_to_use();
  options.spill_directory = stem_folder(settings.outfstem);
  options.progress = true;
  // Records come in chunks of hundreds of kilobytes, and glibc writes the
  // whole buffer-sized blocks of a chunk straight from it, copying only the
  // rest into the buffer: a buffer of 64 KB copies little and still writes
  // in large blocks. glibc takes the size only together with a buffer, and
  // the buffer must outlive the stream (declared first, it is released
  // after the close).
  std::vector<char> structure_buffer(OUTPUT_BUFFER_BYTES);
  const std::string structure_name = settings.outfstem + "_frag.sdf";
  // The old structure file goes while the compounds are read, unless it is
  // one of the files read.
  LateTruncation structure_cut;
  FilePtr structure = structure_cut.open(structure_name, options.threads > 1, {settings.infile, settings.infile + ".dict"});
  std::setvbuf(structure.get(), structure_buffer.data(), _IOFBF, structure_buffer.size());
  CompoundStream input;
  open_compounds(settings, input);
  CountedRun counted;
  count_compounds(input, options, counted);
  Numbering numbering;
  structure_cut.wait();
  number_forms(counted, settings, input.dictionary, true, structure.get(), structure_name, numbering, options.threads);
  close_written(structure, structure_name);
  std::printf("total features stored after freq elimination = %d\n", numbering.descriptors);
  input.dictionary = {};
  write_descriptor_rows(settings.outfstem, counted, numbering, options.threads);
  remove_dictionary_file(settings.infile);
  return 1;
}

}  // namespace

int run_tavrix(int argc, char** argv) {
  // No new-handler that ends the process: with worker threads, an exhausted
  // heap must unwind (workers stop first) to the report below.
  // The run's arrays grow by doubling to tens of megabytes; kept in the heap
  // and never handed back early, their pages are faulted in once rather
  // than on every move to a larger block.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  // Each extension of the heap asks for 8 MB more than needed: few enough
  // system calls for a large run, yet a small one fits a tight address-space
  // limit (ulimit -v), where a larger pad would fail the first allocation.
  mallopt(M_TOP_PAD, 8 << 20);
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
