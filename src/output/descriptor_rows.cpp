// The descriptor file from counted compounds read back in input order.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "output/output.h"

#include "common/late_truncation.h"
#include "common/ordered_batches.h"
#include "common/parallel.h"
#include "common/progress.h"

namespace {

// Batches of compounds (as the count merged them) a thread formats at a
// time: lines of a few hundred kilobytes; at most 4 such chunks per thread
// are held.
constexpr std::size_t ROW_CHUNK = 4;
// Threads formatting lines: more would only hold more chunks.
constexpr int ROW_THREADS = 16;

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

// What every chunk of lines refers to.
struct RowJob {
  const CountedRun* run = nullptr;
  const Numbering* numbering = nullptr;
  std::vector<RowReader> readers;  // per thread
};

// The lines of the compounds of some merged batches.
struct RowChunk : BatchTask {
  RowJob* job = nullptr;
  std::size_t first = 0, last = 0;  // batches
  Lines lines;
  int rows = 0;
  PartOutcome outcome;

  bool empty() const { return first == last; }
  void run(int worker) override {
    lines.used = 0;
    rows = 0;
    outcome = PartOutcome{};
    run_guarded(outcome, [&] {
      RowReader& reader = job->readers[static_cast<std::size_t>(worker)];
      start_batch_rows(*job->run, first, last, reader);
      std::string name;
      DescriptorPairs pairs;
      while (next_row(reader, *job->numbering, name, pairs)) {
        append_line(name, pairs, lines);
        ++rows;
      }
    });
  }
};

// The lines formatted in chunks on up to `threads` threads while the calling
// thread writes them, once the file's old content is gone.
void write_rows(std::FILE* out, LateTruncation& cut, CountedRun& run, const Numbering& numbering, int threads) {
  Progress progress;  // a line on standard error, only when it is a terminal
  progress_start_writing(progress, run.compounds);
  // Made before the threads, so that it outlives them however this ends.
  RowJob job{&run, &numbering, {}};
  OrderedBatches<RowChunk> chunks(std::min(threads, ROW_THREADS));
  job.readers.resize(static_cast<std::size_t>(chunks.threads()));
  const std::size_t batches = run.batch_start.size();
  std::size_t next = 0;
  int written = 0;
  int lost = 0;  // errno of the first write that failed
  chunks.run([](bool) { return true; },
             [&](RowChunk& c) {
               c.job = &job;
               c.first = next;
               c.last = next = std::min(batches, next + ROW_CHUNK);
               return next < batches;
             },
             [&](RowChunk& c) {
               if (c.outcome.failed) throw c.outcome.failure;
               if (c.outcome.out_of_memory) throw std::bad_alloc();
               if (written == 0) cut.wait();
               if (std::fwrite(c.lines.bytes.data(), 1, c.lines.used, out) != c.lines.used && lost == 0) lost = errno;
               written += c.rows;
               progress_update(progress, written, 0);
             });
  progress_finish(progress);
  // The reason of a lost write, for the close, whatever the formatting done
  // on this thread since.
  if (lost != 0) errno = lost;
}

}  // namespace

void write_descriptor_rows(const std::string& outfstem, CountedRun& run, const Numbering& numbering, int threads) {
  // Lines come in chunks of hundreds of kilobytes (see the structure file's
  // buffer in the driver). glibc takes the size only together with a
  // buffer, and the buffer must outlive the stream.
  std::vector<char> buffer(OUTPUT_BUFFER_BYTES);
  const std::string path = outfstem + ".out";
  // The old file goes while the first lines are formatted.
  LateTruncation cut;
  FilePtr out = cut.open(path, threads > 1);
  std::setvbuf(out.get(), buffer.data(), _IOFBF, buffer.size());
  std::fputs("Descriptors generated : writing id and frequency files\n", stdout);
  try {
    RaiseFailures raise;
    write_rows(out.get(), cut, run, numbering, threads);
    cut.wait();
  } catch (const Failure& f) {
    if (f.on_stderr) fatal_error_on_stderr(f.message);
    fatal_error(f.message);
  }
  close_written(out, path);
}
