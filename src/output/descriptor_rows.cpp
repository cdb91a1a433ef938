// The descriptor file from counted compounds read back in input order.
#include <algorithm>
#include <charconv>
#include <cstring>

#include "output/output.h"

#include "common/parallel.h"
#include "common/progress.h"
#include "common/thread_team.h"
#include "common/write_behind.h"

namespace {

// Batches of compounds (as the count merged them) formatted at a time: enough
// to share out among threads, few enough that the lines stay a few megabytes.
constexpr std::size_t ROW_WINDOW = 64;
// Batches a thread formats at a time.
constexpr std::size_t ROW_CHUNK = 4;

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

namespace {

void write_rows(std::FILE* out, CountedRun& run, const Numbering& numbering, int threads) {
  Progress progress;  // a line on standard error, only when it is a terminal
  progress_start_writing(progress, run.compounds);
  // No more threads than a window has chunks.
  ThreadTeam team(std::min<int>(threads, ROW_WINDOW / ROW_CHUNK));
  std::vector<RowReader> readers(team.size());
  // Two sets of lines take turns: one is written while the other is filled.
  std::vector<Lines> lines[2];
  int turn = 0;
  WriteBehind writer(out, team.size() > 1);
  std::vector<int> rows;
  int written = 0;
  const std::size_t batches = run.batch_start.size();
  for (std::size_t first = 0; first < batches; first += ROW_WINDOW) {
    const std::size_t last = std::min(batches, first + ROW_WINDOW);
    const int chunks = static_cast<int>((last - first + ROW_CHUNK - 1) / ROW_CHUNK);
    std::vector<Lines>& filled = lines[turn];
    turn ^= 1;
    if (filled.size() < static_cast<std::size_t>(chunks)) filled.resize(chunks);
    rows.assign(chunks, 0);
    team.run_chunks(chunks, [&](int c, int t) {
      RowReader& reader = readers[t];
      start_batch_rows(run, first + c * ROW_CHUNK, std::min(last, first + (c + 1) * ROW_CHUNK), reader);
      std::string name;
      DescriptorPairs pairs;
      filled[c].used = 0;
      while (next_row(reader, numbering, name, pairs)) {
        append_line(name, pairs, filled[c]);
        ++rows[c];
      }
    });
    std::vector<std::string_view> pieces;
    for (int c = 0; c < chunks; ++c) {
      pieces.emplace_back(filled[c].bytes.data(), filled[c].used);
      written += rows[c];
    }
    writer.write(std::move(pieces));
    progress_update(progress, written, 0);
  }
  progress_finish(progress);
  // Last, so that errno holds the reason of a failed write for the close.
  writer.wait();
}

}  // namespace

void write_descriptor_rows(const std::string& outfstem, CountedRun& run, const Numbering& numbering, int threads) {
  // Lines come in chunks of hundreds of kilobytes (see the structure file's
  // buffer in the driver). glibc takes the size only together with a
  // buffer, and the buffer must outlive the stream.
  std::vector<char> buffer(OUTPUT_BUFFER_BYTES);
  const std::string path = outfstem + ".out";
  FilePtr out = open_file(path, "w");
  std::setvbuf(out.get(), buffer.data(), _IOFBF, buffer.size());
  std::fputs("Descriptors generated : writing id and frequency files\n", stdout);
  try {
    // A failure waits for the lines handed over to be written.
    RaiseFailures raise;
    write_rows(out.get(), run, numbering, threads);
  } catch (const Failure& f) {
    if (f.on_stderr) fatal_error_on_stderr(f.message);
    fatal_error(f.message);
  }
  close_written(out, path);
}
