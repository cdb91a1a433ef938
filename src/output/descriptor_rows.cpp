// The descriptor file from counted compounds read back in input order.
#include <algorithm>
#include <charconv>
#include <cstring>

#include "output/output.h"

void write_descriptor_rows(const std::string& outfstem, CountedRun& run, const Numbering& numbering) {
  // Megabytes of lines: fewer, larger writes. glibc takes the size only
  // together with a buffer, and the buffer must outlive the stream.
  std::vector<char> buffer(1 << 20);
  const std::string path = outfstem + ".out";
  FilePtr out = open_file(path, "w");
  std::setvbuf(out.get(), buffer.data(), _IOFBF, buffer.size());
  std::fputs("Descriptors generated : writing id and frequency files\n", stdout);
  RowReader rows;
  start_rows(run, rows);
  std::string name;
  DescriptorPairs pairs;
  std::vector<char> line;
  while (next_row(rows, numbering, name, pairs)) {
    // As "%s" writes a name: up to a NUL byte.
    const std::size_t name_length = std::strlen(name.c_str());
    // Quotes, commas and at most 11 characters per number.
    line.resize(name_length + 16 + pairs.size() * 24);
    char* at = line.data();
    *at++ = '"';
    at = std::copy_n(name.data(), name_length, at);
    *at++ = '"';
    *at++ = ',';
    at = std::to_chars(at, at + 11, static_cast<int>(pairs.size())).ptr;
    for (const auto& [number, count] : pairs) {
      *at++ = ',';
      at = std::to_chars(at, at + 11, number).ptr;
      *at++ = ',';
      at = std::to_chars(at, at + 11, count).ptr;
    }
    *at++ = '\n';
    std::fwrite(line.data(), 1, static_cast<std::size_t>(at - line.data()), out.get());
  }
  close_output(std::move(out), path);
}
