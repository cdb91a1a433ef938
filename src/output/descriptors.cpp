// The descriptor file: one line per compound, in input order, listing the
// descriptors found in it with their counts, in occurrence-list order.
#include "output/output.h"

void write_descriptor_file(const std::string& outfstem, const FragmentTable& table, const std::vector<int>& idmap,
                           const std::vector<std::string>& compound_names) {
  FilePtr out = open_file(outfstem + ".out", "w");
  std::fputs("Descriptors generated : writing id and frequency files\n", stdout);
  const int n = static_cast<int>(compound_names.size());
  for (int compid = 0; compid < n; ++compid) {
    const std::vector<Occurrence>& list = table.csr[compid];
    const int size = table.csrcount[compid].size;
    int m = 0;
    for (int p = 0; p < size; ++p) m += idmap[list[p].id] != -1;
    std::fprintf(out.get(), "\"%s\",%d", compound_names[compid].c_str(), m);
    for (int p = 0; p < size; ++p)
      if (idmap[list[p].id] != -1) std::fprintf(out.get(), ",%d,%d", idmap[list[p].id], list[p].count);
    std::fputs("\n", out.get());
  }
}
