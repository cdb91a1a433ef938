// Counting on several threads; see count.h.
#include "count/count.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <thread>

#include "common/ordered_batches.h"
#include "common/parallel.h"
#include "common/progress.h"
#include "enumerate/fragment_counter.h"
#include "output/output.h"
#include "table/table.h"

namespace {

// Compounds handed to a worker at a time: enough to make the hand-over cheap,
// few enough that the workers stay evenly busy to the end.
constexpr int BATCH_COMPOUNDS = 32;
// Each worker's counter also keeps what it remembers for itself (the
// fragment graphs it labelled off the grown path, in a quarter of its
// share of this budget), forgetting it once full; each gets at least the
// floor.
constexpr std::size_t MEMO_BUDGET = std::size_t{96} << 20;
constexpr std::size_t MEMO_FLOOR = std::size_t{32} << 20;

// ---- Numbers in bytes ----

// Seven bits a byte, low bits first, the high bit set on all but the last;
// at most ten bytes.
constexpr std::size_t MAX_NUMBER_BYTES = 10;
std::uint8_t* put_number(std::uint8_t* at, std::uint64_t x) {
  while (x >= 0x80) {
    *at++ = static_cast<std::uint8_t>(x | 0x80);
    x >>= 7;
  }
  *at++ = static_cast<std::uint8_t>(x);
  return at;
}

// ---- The spill ----

FilePtr open_temporary(const std::string& directory) {
  for (const std::string& dir : {directory, std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp")}) {
    // A file without a name from the start where the file system allows it,
    // else one unlinked the moment it exists.
    int fd = open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) {
      std::string path = dir + "/.tavrix-spill-XXXXXX";
      fd = mkstemp(path.data());
      if (fd >= 0) unlink(path.c_str());
    }
    if (fd >= 0) {
      if (std::FILE* f = fdopen(fd, "w+")) return FilePtr(f);
      close(fd);
    }
  }
  fatal_error(format_text("can't open a temporary file in '%s': %s\n", directory.c_str(), std::strerror(errno)));
}

constexpr std::size_t SPILL_BLOCK = std::size_t{1} << SPILL_BLOCK_BITS;

void spill_append(Spill& s, const std::uint8_t* bytes, std::size_t size) {
  if (!s.file && s.size + size > s.limit) {
    s.file = open_temporary(s.directory);
    s.file_buffer.resize(1 << 20);
    std::setvbuf(s.file.get(), s.file_buffer.data(), _IOFBF, s.file_buffer.size());
    for (std::uint64_t at = 0; at < s.size; at += SPILL_BLOCK)
      std::fwrite(s.blocks[at >> SPILL_BLOCK_BITS].get(), 1, std::min<std::uint64_t>(SPILL_BLOCK, s.size - at),
                  s.file.get());
    s.blocks.clear();
  }
  if (s.file) {
    std::fwrite(bytes, 1, size, s.file.get());
    s.size += size;
    return;
  }
  std::size_t done = 0;
  while (done < size) {
    const std::size_t offset = static_cast<std::size_t>(s.size & (SPILL_BLOCK - 1));
    if (offset == 0) s.blocks.push_back(std::make_unique_for_overwrite<std::uint8_t[]>(SPILL_BLOCK));
    const std::size_t n = std::min(size - done, SPILL_BLOCK - offset);
    std::memcpy(s.blocks.back().get() + offset, bytes + done, n);
    done += n;
    s.size += n;
  }
}

// ---- Workers ----

// What a worker keeps from batch to batch: its counter, made for its first
// batch and again after a failure.
struct Worker {
  std::unique_ptr<FragmentCounter> counter;
};

// What every batch of a run refers to.
struct CountContext {
  FormStore* store = nullptr;
  StepTables* steps = nullptr;
  const CountOptions* options = nullptr;
  std::vector<Worker> workers;  // one per thread
  std::size_t memo_limit = 0;   // each counter's
};

struct Batch : BatchTask {
  CountContext* context = nullptr;
  int first = 0;  // input index of its first compound
  int size = 0;
  std::vector<Graph> graphs = std::vector<Graph>(BATCH_COMPOUNDS);
  std::vector<std::string> names = std::vector<std::string>(BATCH_COMPOUNDS);
  // What the worker leaves:
  std::vector<int> entry_end;        // per compound: end of its entries
  std::vector<FormCount> entries;    // (the run's form, count)
  long long fragments = 0;
  PartOutcome outcome;

  bool empty() const { return size == 0; }
  void run(int worker) override;
};

void Batch::run(int worker) {
  Worker& w = context->workers[static_cast<std::size_t>(worker)];
  const CountOptions& o = *context->options;
  outcome = PartOutcome{};
  run_guarded(outcome, [&] {
    if (!w.counter) {
      w.counter = std::make_unique<FragmentCounter>(o.lmin, o.lmax, o.opt, context->store, context->memo_limit,
                                                    context->steps);
    } else if (w.counter->memo_full()) {
      w.counter->forget();
    }
    FragmentCounter& counter = *w.counter;
    const long long before = counter.fragments();
    entries.clear();
    entry_end.clear();
    for (int k = 0; k < size; ++k) {
      counter.count_compound(graphs[k], first + k, entries);
      entry_end.push_back(static_cast<int>(entries.size()));
    }
    fragments = counter.fragments() - before;
  });
  // A counter left in the middle of a compound is not used again.
  if (outcome.failed || outcome.out_of_memory) w.counter.reset();
}

// The merge's scratch.
struct Merge {
  std::vector<std::uint8_t> bytes;
};

void merge_batch(Batch& b, Merge& m, CountedRun& run) {
  if (b.outcome.failed) throw b.outcome.failure;
  if (b.outcome.out_of_memory) throw std::bad_alloc();
  // Forms are added to the store before the batch that met them is done.
  run.support.resize(run.store.size(), 0);
  run.batch_start.push_back(run.spill.size);
  // The whole batch encoded at once: room for every number at its longest.
  std::size_t room = 0;
  for (int k = 0; k < b.size; ++k) room += 2 * MAX_NUMBER_BYTES + b.names[k].size();
  room += 2 * MAX_NUMBER_BYTES * b.entries.size();
  if (m.bytes.size() < room) m.bytes.resize(std::max(room, 2 * m.bytes.size()));
  std::uint8_t* out = m.bytes.data();
  int begin = 0;
  for (int k = 0; k < b.size; ++k) {
    const int end = b.entry_end[k];
    out = put_number(out, b.names[k].size());
    out = std::copy(b.names[k].begin(), b.names[k].end(), out);
    out = put_number(out, static_cast<std::uint64_t>(end - begin));
    for (int p = begin; p < end; ++p) {
      const int g = b.entries[p].form;
      if (run.support[g]++ == 0) {
        const std::size_t length = static_cast<std::size_t>(run.store.stored(g).vs - 1);
        if (run.by_length.size() <= length) run.by_length.resize(length + 1);
        run.by_length[length].push_back(g);
      }
      out = put_number(out, static_cast<std::uint64_t>(g));
      out = put_number(out, static_cast<std::uint64_t>(b.entries[p].count));
    }
    begin = end;
  }
  spill_append(run.spill, m.bytes.data(), static_cast<std::size_t>(out - m.bytes.data()));
  run.compounds += b.size;
  run.fragments += b.fragments;
}

void count_all(CompoundStream& input, const CountOptions& o, CountedRun& run) {
  // The growth steps met by any worker spare every other labelling them
  // again. Once their tables are full (o.step_limit), the batches in flight
  // finish and they are all forgotten, to be learnt afresh (the forms stay
  // in the store): their memory does not grow with the distinct fragments.
  // They outlive the workers.
  StepTables steps(o.step_limit);
  CountContext context;
  OrderedBatches<Batch> batches(std::max(o.threads, 1));
  context.store = &run.store;
  context.steps = &steps;
  context.options = &o;
  context.workers.resize(static_cast<std::size_t>(batches.threads()));
  // Each worker's counter also keeps what it remembers for itself.
  context.memo_limit = std::max(MEMO_FLOOR, MEMO_BUDGET / static_cast<std::size_t>(batches.threads()));
  Merge merge;
  Progress progress;
  if (o.progress) progress_start(progress, input.compounds, o.lmin, o.lmax);
  int next_index = 0;
  batches.run(
      [&](bool idle) { return steps.room_for_more(idle); },
      [&](Batch& b) {
        b.context = &context;
        b.first = next_index;
        b.size = 0;
        // A failure part way leaves the compounds read before it in the
        // batch; nothing is read after it.
        while (b.size < BATCH_COMPOUNDS && next_compound(input, b.graphs[b.size], b.names[b.size])) ++b.size;
        next_index += b.size;
        return b.size == BATCH_COMPOUNDS;
      },
      [&](Batch& b) {
        merge_batch(b, merge, run);
        progress_update(progress, run.compounds, run.fragments);
      });
  progress_finish(progress);
}

}  // namespace

CountOptions count_options(const RunSettings& settings) {
  CountOptions options;
  options.lmin = settings.lmin;
  options.lmax = settings.lmax;
  options.opt = settings.opt;
  return options;
}

void count_compounds(CompoundStream& input, const CountOptions& options, CountedRun& run) {
  run.spill.limit = options.spill_limit;
  run.spill.directory = options.spill_directory;
  try {
    RaiseFailures raise;
    count_all(input, options, run);
    if (run.spill.file && std::fflush(run.spill.file.get()) != 0)
      fatal_error(format_text("can't write a temporary file in '%s': %s\n", run.spill.directory.c_str(),
                              std::strerror(errno)));
  } catch (const Failure& f) {
    // Every worker has stopped by now; report it as this thread reports
    // failures (ending the process, or raising for a host).
    if (f.on_stderr) fatal_error_on_stderr(f.message);
    fatal_error(f.message);
  }
}

namespace {

// Records a thread formats at a time: a few hundred kilobytes, enough to
// make the hand-over cheap; at most 4 such chunks per thread are held.
constexpr std::size_t RECORD_CHUNK = 512;
// Threads formatting records: more would only hold more chunks.
constexpr int RECORD_THREADS = 16;

// What every chunk of records refers to.
struct RecordJob {
  const CountedRun* run = nullptr;
  const Numbering* numbering = nullptr;
  const LabelDictionary* dict = nullptr;
  bool mol2 = false;
};

// Records of forms, formatted; `fine` false when the last of them could not
// be formatted (it is then incomplete, and the run ends once the records
// before it and the incomplete one are written, as one thread writing record
// after record would).
struct RecordChunk : BatchTask {
  const RecordJob* job = nullptr;
  const int* forms = nullptr;
  std::size_t count = 0;
  std::string text;
  bool fine = true;
  PartOutcome outcome;

  bool empty() const { return count == 0; }
  void run(int) override {
    text.clear();
    fine = true;
    outcome = PartOutcome{};
    run_guarded(outcome, [&] {
      for (std::size_t k = 0; k < count && fine; ++k) {
        const int f = forms[k];
        const GraphView g = job->run->store.view(f);
        const int id = job->numbering->id[f];
        fine = job->mol2 ? format_mol2_fragment(id, g, *job->dict, text) : format_sd_fragment(id, g, *job->dict, text);
      }
    });
  }
};

// Writes the records of `forms` to structure in that order, formatted in
// chunks on the threads of `chunks` while the calling thread writes them.
void write_records(OrderedBatches<RecordChunk>& chunks, const RecordJob& job, const std::vector<int>& forms,
                   std::FILE* structure, Progress& progress, int numbered_before) {
  std::size_t next = 0;
  int lost = 0;  // errno of the first write that failed
  chunks.run([](bool) { return true; },
             [&](RecordChunk& c) {
               c.job = &job;
               c.forms = forms.data() + next;
               c.count = std::min(RECORD_CHUNK, forms.size() - next);
               next += c.count;
               return next < forms.size();
             },
             [&](RecordChunk& c) {
               if (c.outcome.failed) throw c.outcome.failure;
               if (c.outcome.out_of_memory) throw std::bad_alloc();
               if (std::fwrite(c.text.data(), 1, c.text.size(), structure) != c.text.size() && lost == 0)
                 lost = errno;
               if (!c.fine) fatal_error("problem with the graph\n");
               progress_update(progress, numbered_before + static_cast<int>((c.forms - forms.data()) + c.count), 0);
             });
  // The reason of a lost write, for the check that follows, whatever the
  // formatting done on this thread since.
  if (lost != 0) errno = lost;
}

void number_lengths(const CountedRun& run, const RunSettings& settings, const LabelDictionary& dict, bool announce,
                    std::FILE* structure, const std::string& structure_name, Numbering& numbering, int threads) {
  const int forms = run.store.size();
  numbering.id.assign(forms, 0);
  numbering.descriptor.assign(forms, 0);
  numbering.total = numbering.descriptors = 0;
  SlotOccupancy occupancy;
  create_occupancy(occupancy);
  std::vector<std::pair<int, int>> placed;  // (slot, form)
  std::vector<int> described;               // forms of this length that are descriptors, in slot order
  const RecordJob job{&run, &numbering, &dict, settings.mol2input};
  OrderedBatches<RecordChunk> chunks(structure != nullptr ? std::min(threads, RECORD_THREADS) : 1);
  // The line on a terminal counts the fragments numbered, which the lines of
  // each length on standard output interrupt.
  Progress progress;
  if (announce) {
    long long n = 0;
    for (long long t = std::max(settings.lmin, 0); t <= settings.lmax && t < static_cast<long long>(run.by_length.size()); ++t)
      n += static_cast<long long>(run.by_length[t].size());
    progress_start_numbering(progress, static_cast<int>(std::min<long long>(n, INT_MAX)));
  }
  // A 64-bit counter: lmax may be the largest int.
  for (long long t = settings.lmin; t <= settings.lmax; ++t) {
    progress_clear(progress);
    if (announce) std::printf("threshold = %d\n", static_cast<int>(t));
    const int numbered_before = numbering.total;
    placed.clear();
    if (t >= 0 && t < static_cast<long long>(run.by_length.size())) {
      for (int f : run.by_length[t]) {
        numbering.id[f] = ++numbering.total;
        placed.emplace_back(claim_slot(occupancy, run.store.stored(f).key), f);
      }
    }
    std::sort(placed.begin(), placed.end());
    described.clear();
    for (const auto& [slot, f] : placed) {
      if (run.support[f] < settings.fmin) continue;
      numbering.descriptor[f] = ++numbering.descriptors;
      described.push_back(f);
    }
    if (structure != nullptr) write_records(chunks, job, described, structure, progress, numbered_before);
    progress_update(progress, numbering.total, 0);
    // A lost write is reported with the length it belongs to.
    if (structure != nullptr) check_written(structure, structure_name);
    progress_clear(progress);
    if (announce)
      std::printf("total upto this threshold = %d,value of k = %d\n", numbering.total, numbering.descriptors);
  }
  progress_finish(progress);
}

}  // namespace

void number_forms(const CountedRun& run, const RunSettings& settings, const LabelDictionary& dict, bool announce,
                  std::FILE* structure, const std::string& structure_name, Numbering& numbering, int threads) {
  try {
    RaiseFailures raise;
    number_lengths(run, settings, dict, announce, structure, structure_name, numbering, threads);
  } catch (const Failure& f) {
    if (f.on_stderr) fatal_error_on_stderr(f.message);
    fatal_error(f.message);
  }
}

void start_batch_rows(const CountedRun& run, std::size_t first, std::size_t last, RowReader& rows) {
  rows.run = &run;
  rows.at = rows.end = 0;
  rows.next = first < run.batch_start.size() ? run.batch_start[first] : run.spill.size;
  rows.stop = last < run.batch_start.size() ? run.batch_start[last] : run.spill.size;
  if (run.spill.file) rows.buffer.resize(1 << 20);
}

void start_rows(const CountedRun& run, RowReader& rows) { start_batch_rows(run, 0, run.batch_start.size(), rows); }

namespace {

int next_byte(RowReader& r) {
  if (r.at == r.end) {
    const Spill& s = r.run->spill;
    if (r.next >= r.stop) return -1;
    const std::uint64_t left = r.stop - r.next;
    if (!s.file) {
      // In memory: a block at a time, where the bytes lie.
      const std::size_t offset = static_cast<std::size_t>(r.next & (SPILL_BLOCK - 1));
      r.bytes = s.blocks[static_cast<std::size_t>(r.next >> SPILL_BLOCK_BITS)].get();
      r.at = offset;
      r.end = offset + static_cast<std::size_t>(std::min<std::uint64_t>(left, SPILL_BLOCK - offset));
    } else {
      // pread: readers of other ranges share the file.
      const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(left, r.buffer.size()));
      const ssize_t got = pread(fileno(s.file.get()), r.buffer.data(), want, static_cast<off_t>(r.next));
      if (got <= 0)
        fatal_error(format_text("can't read a temporary file in '%s': %s\n", s.directory.c_str(),
                                got < 0 ? std::strerror(errno) : "it is shorter than written"));
      r.bytes = r.buffer.data();
      r.at = 0;
      r.end = static_cast<std::size_t>(got);
    }
    r.next += r.end - r.at;
  }
  return r.bytes[r.at++];
}

std::uint64_t next_number(RowReader& r) {
  if (r.end - r.at >= MAX_NUMBER_BYTES) {
    // The common case: the whole number is at hand.
    std::uint64_t x = 0;
    for (int shift = 0;; shift += 7) {
      const std::uint8_t byte = r.bytes[r.at++];
      x |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
      if ((byte & 0x80) == 0) return x;
    }
  }
  std::uint64_t x = 0;
  for (int shift = 0;; shift += 7) {
    const int byte = next_byte(r);
    TAVRIX_CHECK(byte >= 0);
    x |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
    if ((byte & 0x80) == 0) return x;
  }
}

}  // namespace

bool next_row(RowReader& rows, const Numbering& numbering, std::string& name, DescriptorPairs& pairs) {
  if (rows.at == rows.end && rows.next >= rows.stop) return false;
  const std::uint64_t length = next_number(rows);
  name.resize(length);
  for (std::uint64_t i = 0; i < length; ++i) name[i] = static_cast<char>(next_byte(rows));
  const std::uint64_t entries = next_number(rows);
  pairs.clear();
  for (std::uint64_t p = 0; p < entries; ++p) {
    const int f = static_cast<int>(next_number(rows));
    const int count = static_cast<int>(next_number(rows));
    if (numbering.descriptor[f] != 0) pairs.emplace_back(numbering.descriptor[f], count);
  }
  return true;
}

int processors_available() {
  int n = 1;
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0) n = std::max(CPU_COUNT(&set), 1);
  else n = std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
  std::ifstream quota("/sys/fs/cgroup/cpu.max");
  std::string max, period;
  if (quota >> max >> period && max != "max") {
    const long long q = std::atoll(max.c_str()), p = std::atoll(period.c_str());
    if (q > 0 && p > 0) n = std::min(n, static_cast<int>(std::max<long long>((q + p - 1) / p, 1)));
  }
  return n;
}

int threads_to_use() {
  const char* text = std::getenv("TAVRIX_THREADS");
  if (text == nullptr) return processors_available();
  long long n = 0;
  bool valid = *text != '\0';
  for (const char* p = text; *p != '\0' && valid; ++p) {
    valid = *p >= '0' && *p <= '9';
    n = std::min<long long>(n * 10 + (*p - '0'), INT_MAX + 1LL);
  }
  // A thread per compound batch in flight is the most that can be used; more
  // than a thousand is taken as a mistake.
  if (!valid || n < 1 || n > 1024)
    fatal_error(format_text("TAVRIX_THREADS must be a whole number of threads from 1 to 1024, not '%s'\n", text));
  return static_cast<int>(n);
}

std::size_t spill_limit_to_use() {
  const char* text = std::getenv("TAVRIX_SPILL_MB");
  if (text == nullptr) return std::size_t{32} << 20;
  long long n = 0;
  bool valid = *text != '\0';
  for (const char* p = text; *p != '\0' && valid; ++p) {
    valid = *p >= '0' && *p <= '9';
    n = std::min<long long>(n * 10 + (*p - '0'), 1LL << 40);
  }
  if (!valid || n > (1LL << 20))
    fatal_error(format_text("TAVRIX_SPILL_MB must be a whole number of megabytes from 0 to 1048576, not '%s'\n", text));
  return static_cast<std::size_t>(n) << 20;
}
