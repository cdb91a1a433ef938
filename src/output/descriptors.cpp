// The descriptor file: one line per compound, in input order, listing the
// descriptors found in it with their counts, in occurrence-list order.
#include <charconv>
#include <cstring>

#include "output/output.h"

void write_descriptor_file(const std::string& outfstem, const FragmentTable& table, const std::vector<int>& idmap,
                           const std::vector<std::string>& compound_names) {
  FilePtr out = open_file(outfstem + ".out", "w");
  std::fputs("Descriptors generated : writing id and frequency files\n", stdout);
  const int n = static_cast<int>(compound_names.size());
  // Each line is formatted into one buffer (the bytes of "%d") and written
  // with one call: a large set has millions of pairs.
  std::string line;
  auto put_int = [&line](int value) {
    char digits[16];
    line.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
  };
  for (int compid = 0; compid < n; ++compid) {
    const std::vector<Occurrence>& list = table.csr[compid];
    const int size = table.csrcount[compid].size;
    int m = 0;
    for (int p = 0; p < size; ++p) m += idmap[list[p].id] != -1;
    const std::string& name = compound_names[compid];
    line.clear();
    line.push_back('"');
    line.append(name.data(), std::strlen(name.c_str()));  // as "%s" would: up to a NUL byte
    line.push_back('"');
    line.push_back(',');
    put_int(m);
    for (int p = 0; p < size; ++p) {
      if (idmap[list[p].id] == -1) continue;
      line.push_back(',');
      put_int(idmap[list[p].id]);
      line.push_back(',');
      put_int(list[p].count);
    }
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), out.get());
  }
}
