// Every compound's fragments of all lengths first, then the lengths in turn:
// ids, slots and descriptor numbers come out as when each length enumerates
// every compound again (see fragment_counter.h).
#include "driver/descriptor_run.h"

#include "common/progress.h"
#include "enumerate/fragment_counter.h"
#include "output/output.h"

namespace {

// Descriptor numbers go to the fragments of this length whose support
// reaches fmin, in ascending slot order.
void issue_descriptors(const FragmentCounter& counter, const std::vector<int>& forms, const RunSettings& settings,
                       const LabelDictionary& dict, DescriptorRun& run, std::FILE* structure) {
  const FormNumbers& numbers = counter.numbers();
  const std::size_t count = forms.size();
  for (std::size_t i = 0; i < count; ++i) {
    const int f = forms[i];
    if (i + 8 < count) counter.prefetch_form(forms[i + 8], false);
    if (i + 4 < count) counter.prefetch_form(forms[i + 4], true);
    if (numbers.support[f] < settings.fmin) continue;
    run.idmap[numbers.id[f]] = ++run.descriptors;
    if (structure == nullptr) continue;
    const HashEntry slot{1, numbers.support[f], numbers.id[f], -1};
    const GraphView g = counter.form(f);
    if (settings.mol2input) write_mol2_fragment(slot, g, dict, structure);
    else write_sd_fragment(slot, g, dict, structure);
  }
}

}  // namespace

void run_descriptors(const RunSettings& settings, const CompoundInput& input, const RunOutputs& outputs,
                     DescriptorRun& run) {
  FragmentTable& table = run.table;
  const int n = static_cast<int>(input.compounds.size());
  if (static_cast<int>(table.csr.size()) != n) create_occurrence_lists(table, n);
  FragmentCounter counter(settings.lmin, settings.lmax, settings.opt);
  Progress progress;  // a line on standard error, only when it is a terminal
  if (outputs.progress) progress_start(progress, n, settings.lmin, settings.lmax);
  for (int compid = 0; compid < n; ++compid) {
    counter.count_compound(input.compounds[compid], compid, table.csr[compid]);
    OccurrenceCount& count = table.csrcount[compid];
    count.size = static_cast<int>(table.csr[compid].size());
    while (count.capacity < count.size) count.capacity *= 2;
    progress_update(progress, compid + 1, counter.fragments());
  }
  progress_finish(progress);

  run.idmap.assign(1, -1);
  table.total = 0;
  run.descriptors = 0;
  // A 64-bit counter: lmax may be the largest int.
  for (long long t = settings.lmin; t <= settings.lmax; ++t) {
    const int threshold = static_cast<int>(t);
    if (outputs.announce) std::printf("threshold = %d\n", threshold);
    table.threshold = threshold;
    // Past the longest fragment found nothing is left to number.
    const std::vector<int> forms =
        threshold <= counter.longest() ? counter.number_length(table, threshold) : std::vector<int>();
    run.idmap.resize(static_cast<std::size_t>(table.total) + 1, -1);
    issue_descriptors(counter, forms, settings, input.dictionary, run, outputs.structure);
    if (outputs.announce) std::printf("total upto this threshold = %d,value of k = %d\n", table.total, run.descriptors);
  }
  if (outputs.announce) std::printf("total features stored after freq elimination = %d\n", run.descriptors);
}
