// The run driver: reads the compounds once, then works length by length,
// turning every fragment of that length whose support reaches fmin into the
// next descriptor, and finally writes the descriptor vectors.
#include <cstdio>
#include <exception>
#include <new>

#include "common/common.h"
#include "driver/driver.h"
#include "driver/progress.h"
#include "enumerate/enumerate.h"
#include "input/input.h"
#include "output/output.h"
#include "settings/settings.h"
#include "table/table.h"

namespace {

// Descriptor numbers go to the fragments of this length in ascending slot
// order; the stored copies of the length are released afterwards, so the
// table holds one length's graphs at a time. The slots holding a copy are
// exactly those first filled during this length, which the table lists, so
// the whole table need not be swept.
void issue_descriptors(FragmentTable& table, const RunSettings& settings, const LabelDictionary& dict,
                       std::vector<int>& idmap, int& k, std::FILE* structure) {
  for (int i : current_slots(table)) {
    HashEntry& slot = table.hashg[i];
    if (!slot.occupied || slot.g < 0) continue;
    if (slot.support >= settings.fmin) {
      idmap[slot.id] = ++k;
      const Graph& g = table.stored[slot.g];
      if (settings.mol2input) write_mol2_fragment(slot, g, dict, structure);
      else write_sd_fragment(slot, g, dict, structure);
    }
  }
  release_stored(table);
}

int run(int argc, char** argv) {
  const RunSettings settings = parse_arguments(argc, argv);
  std::vector<int> idmap(static_cast<std::size_t>(HASHTBL_SIZE) + 1, -1);
  FragmentTable table;
  create_table(table);
  FilePtr structure = open_file(settings.outfstem + "_frag.sdf", "w");
  // Fewer, larger writes for the tens of megabytes of structure records.
  std::setvbuf(structure.get(), nullptr, _IOFBF, 1 << 20);
  CompoundInput input = read_compounds(settings, table);
  const int n = static_cast<int>(input.compounds.size());

  FragmentContext ctx;
  ctx.opt = settings.opt;
  ctx.table = &table;
  table.total = 0;
  int k = 0;
  Progress progress;  // a line on standard error, only when it is a terminal
  progress_start(progress, n, settings.lmin, settings.lmax);
  // A 64-bit counter: lmax may be the largest int.
  for (long long t = settings.lmin; t <= settings.lmax; ++t) {
    const int threshold = static_cast<int>(t);
    std::printf("threshold = %d\n", threshold);
    ctx.threshold = threshold;
    table.threshold = threshold;
    for (int compid = 0; compid < n; ++compid) {
      enumerate_fragments(input.compounds[compid], compid, ctx);
      progress_compound(progress, table, threshold, compid);
      table.csrcount[compid].offset = table.csrcount[compid].size;
    }
    issue_descriptors(table, settings, input.dictionary, idmap, k, structure.get());
    std::printf("total upto this threshold = %d,value of k = %d\n", table.total, k);
  }
  progress_finish(progress);
  std::printf("total features stored after freq elimination = %d\n", k);

  input.compounds = {};
  input.dictionary = {};
  table.hashg = {};
  write_descriptor_file(settings.outfstem, table, idmap, input.compound_names);
  std::remove((settings.infile + ".dict").c_str());
  return 1;
}

}  // namespace

int run_tavrix(int argc, char** argv) {
  install_memory_handler();
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
