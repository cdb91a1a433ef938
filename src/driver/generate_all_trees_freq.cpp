// The run driver: reads the compounds once, counts the fragments of every
// length compound by compound, then works length by length, turning every
// fragment of that length whose support reaches fmin into the next
// descriptor, and finally writes the descriptor vectors.
#include <cstdio>
#include <malloc.h>
#include <exception>
#include <new>

#include "common/common.h"
#include "driver/driver.h"
#include "driver/progress.h"
#include "enumerate/fragment_counter.h"
#include "input/input.h"
#include "output/output.h"
#include "settings/settings.h"
#include "table/table.h"

namespace {

// Descriptor numbers go to the fragments of this length whose support
// reaches fmin, in ascending slot order.
void issue_descriptors(const FragmentCounter& counter, const std::vector<int>& forms, const RunSettings& settings,
                       const LabelDictionary& dict, std::vector<int>& idmap, int& k, std::FILE* structure) {
  const FormNumbers& numbers = counter.numbers();
  const std::size_t count = forms.size();
  for (std::size_t i = 0; i < count; ++i) {
    const int f = forms[i];
    if (i + 8 < count) counter.prefetch_form(forms[i + 8], false);
    if (i + 4 < count) counter.prefetch_form(forms[i + 4], true);
    if (numbers.support[f] < settings.fmin) continue;
    idmap[numbers.id[f]] = ++k;
    const HashEntry slot{1, numbers.support[f], numbers.id[f], -1};
    const GraphView g = counter.form(f);
    if (settings.mol2input) write_mol2_fragment(slot, g, dict, structure);
    else write_sd_fragment(slot, g, dict, structure);
  }
}

int run(int argc, char** argv) {
  const RunSettings settings = parse_arguments(argc, argv);
  FragmentTable table;
  // Fewer, larger writes for the tens of megabytes of structure records.
  // glibc takes the size only together with a buffer, and the buffer must
  // outlive the stream (declared first, it is released after the close).
  std::vector<char> structure_buffer(1 << 20);
  FilePtr structure = open_file(settings.outfstem + "_frag.sdf", "w");
  std::setvbuf(structure.get(), structure_buffer.data(), _IOFBF, structure_buffer.size());
  CompoundInput input = read_compounds(settings, table);
  const int n = static_cast<int>(input.compounds.size());

  // Every compound's fragments of all lengths first, then the lengths in
  // turn: ids, slots and descriptor numbers come out as when each length
  // enumerates every compound again (see fragment_counter.h).
  FragmentCounter counter(settings.lmin, settings.lmax, settings.opt);
  Progress progress;  // a line on standard error, only when it is a terminal
  progress_start(progress, n, settings.lmin, settings.lmax);
  for (int compid = 0; compid < n; ++compid) {
    counter.count_compound(input.compounds[compid], compid, table.csr[compid]);
    OccurrenceCount& count = table.csrcount[compid];
    count.size = static_cast<int>(table.csr[compid].size());
    while (count.capacity < count.size) count.capacity *= 2;
    progress_update(progress, compid + 1, counter.fragments());
  }
  progress_finish(progress);

  std::vector<int> idmap(1, -1);
  table.total = 0;
  int k = 0;
  // A 64-bit counter: lmax may be the largest int.
  for (long long t = settings.lmin; t <= settings.lmax; ++t) {
    const int threshold = static_cast<int>(t);
    std::printf("threshold = %d\n", threshold);
    table.threshold = threshold;
    // Past the longest fragment found nothing is left to number.
    const std::vector<int> forms =
        threshold <= counter.longest() ? counter.number_length(table, threshold) : std::vector<int>();
    idmap.resize(static_cast<std::size_t>(table.total) + 1, -1);
    issue_descriptors(counter, forms, settings, input.dictionary, idmap, k, structure.get());
    check_written(structure.get(), settings.outfstem + "_frag.sdf");
    std::printf("total upto this threshold = %d,value of k = %d\n", table.total, k);
  }
  close_written(structure, settings.outfstem + "_frag.sdf");
  std::printf("total features stored after freq elimination = %d\n", k);

  input.compounds = {};
  input.dictionary = {};
  write_descriptor_file(settings.outfstem, table, idmap, input.compound_names);
  std::remove((settings.infile + ".dict").c_str());
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
