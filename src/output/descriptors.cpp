// The descriptor file: one line per compound, in input order, listing the
// descriptors found in it with their counts, in occurrence-list order.
#include <charconv>
#include <algorithm>
#include <cstring>
#include <vector>

#include "output/output.h"

void write_descriptor_file(const std::string& outfstem, const FragmentTable& table, const std::vector<int>& idmap,
                           const std::vector<std::string>& compound_names) {
  // Megabytes of lines: fewer, larger writes. glibc takes the size only
  // together with a buffer, and the buffer must outlive the stream.
  std::vector<char> buffer(1 << 20);
  const std::string name = outfstem + ".out";
  FilePtr out = open_file(name, "w");
  std::setvbuf(out.get(), buffer.data(), _IOFBF, buffer.size());
  std::fputs("Descriptors generated : writing id and frequency files\n", stdout);
  const int n = static_cast<int>(compound_names.size());
  // Each line is formatted into one buffer (the bytes of "%d") and written
  // with one call: a large set has millions of pairs.
  std::vector<char> line;
  for (int compid = 0; compid < n; ++compid) {
    const std::vector<Occurrence>& list = table.csr[compid];
    const int size = table.csrcount[compid].size;
    int m = 0;
    for (int p = 0; p < size; ++p) m += idmap[list[p].id] != -1;
    const std::string& name = compound_names[compid];
    const std::size_t name_length = std::strlen(name.c_str());  // as "%s" would: up to a NUL byte
    // Quotes, commas and at most 11 characters per number.
    line.resize(name_length + 16 + static_cast<std::size_t>(m) * 24);
    char* at = line.data();
    *at++ = '"';
    at = std::copy_n(name.data(), name_length, at);
    *at++ = '"';
    *at++ = ',';
    at = std::to_chars(at, at + 11, m).ptr;
    for (int p = 0; p < size; ++p) {
      const int number = idmap[list[p].id];
      if (number == -1) continue;
      *at++ = ',';
      at = std::to_chars(at, at + 11, number).ptr;
      *at++ = ',';
      at = std::to_chars(at, at + 11, list[p].count).ptr;
    }
    *at++ = '\n';
    std::fwrite(line.data(), 1, static_cast<std::size_t>(at - line.data()), out.get());
    check_written(out.get(), name);
  }
  close_written(out, name);
}
