// The descriptor file from counted compounds read back in input order.
#include <algorithm>
#include <charconv>
#include <cstring>

#include "output/output.h"

#include "common/parallel.h"
#include "common/progress.h"

namespace {

// Batches of compounds (as the count merged them) formatted at a time: enough
// to share out among threads, few enough that the lines stay a few megabytes.
constexpr std::size_t ROW_WINDOW = 64;

// Lines in a buffer that only grows, so that room is not cleared line by line.
struct Lines {
  std::vector<char> bytes;
  std::size_t used = 0;
};

void append_line(const std::string& name, const DescriptorPairs& pairs, Lines& out) {
  // As "%s" writes a name: up to a NUL byte.
  const std::size_t name_length = std::strlen(name.c_str());
  // Quotes, commas and at most 11 characters per number.
  const std::size_t room = out.used + name_length + 16 + pairs.size() * 24;
  if (out.bytes.size() < room) out.bytes.resize(std::max(room, 2 * out.bytes.size()));
  char* at = out.bytes.data() + out.used;
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
  out.used = static_cast<std::size_t>(at - out.bytes.data());
}

}  // namespace

void write_descriptor_rows(const std::string& outfstem, CountedRun& run, const Numbering& numbering, int threads) {
  // Megabytes of lines: fewer, larger writes. glibc takes the size only
  // together with a buffer, and the buffer must outlive the stream.
  std::vector<char> buffer(1 << 20);
  const std::string path = outfstem + ".out";
  FilePtr out = open_file(path, "w");
  std::setvbuf(out.get(), buffer.data(), _IOFBF, buffer.size());
  std::fputs("Descriptors generated : writing id and frequency files\n", stdout);
  Progress progress;  // a line on standard error, only when it is a terminal
  progress_start_writing(progress, run.compounds);
  threads = std::max(threads, 1);
  std::vector<RowReader> readers(threads);
  std::vector<Lines> lines(threads);
  std::vector<int> rows(threads);
  int written = 0;
  const std::size_t batches = run.batch_start.size();
  for (std::size_t first = 0; first < batches; first += ROW_WINDOW) {
    const std::size_t last = std::min(batches, first + ROW_WINDOW);
    const int parts = static_cast<int>(std::clamp<std::size_t>((last - first) / 4, 1, threads));
    run_parts(parts, [&](int p) {
      const std::size_t from = first + (last - first) * p / parts, to = first + (last - first) * (p + 1) / parts;
      RowReader& reader = readers[p];
      start_batch_rows(run, from, to, reader);
      std::string name;
      DescriptorPairs pairs;
      lines[p].used = 0;
      rows[p] = 0;
      while (next_row(reader, numbering, name, pairs)) {
        append_line(name, pairs, lines[p]);
        ++rows[p];
      }
    });
    for (int p = 0; p < parts; ++p) {
      std::fwrite(lines[p].bytes.data(), 1, lines[p].used, out.get());
      written += rows[p];
    }
    progress_update(progress, written, 0);
  }
  progress_finish(progress);
  close_written(out, path);
}
