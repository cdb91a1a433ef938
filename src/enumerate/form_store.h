// Every distinct canonical form met in a run, shared by the threads that
// count compounds.
//
// A form gets its index the first time any thread meets it; threads that
// meet it later get the same index, so a thread's memory of growth steps and
// labelled graphs can name forms by index, and the run hands compounds'
// entries from thread to thread without translating them. The index says
// nothing about input order: the run orders forms by first occurrence when
// it merges compounds in input order.
//
// Looking up takes no lock: most lookups find a form met before, and a lock
// written by every thread would pass its cache line from processor to
// processor on each. A new form is written first into memory of the adding
// thread's own (its claim: a run of indices and of array space no other
// thread touches), and only then published under the lock of one of many
// shards, chosen by the form's hash, so that threads seldom wait for each
// other and the lock is held only to place the index. A form never moves
// once added; its index is published (a release store into the shard's
// buckets) only after the form is written, and a thread only reads forms
// whose index it got from this store or from a thread that did.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <atomic>
#include <vector>

#include "graph/graph.h"

struct StoredForm {
  const int* arrays = nullptr;  // vl, v, e, el one after the other
  std::uint64_t hash = 0;       // of the arrays, for the index
  int vs = 0;
  int es = 0;
  std::uint32_t key = 0;        // the table's hash key
  bool branching = false;       // some atom carries three or more of its bonds
};

class FormStore {
 public:
  // What one thread adds with: indices and array space taken from the store
  // a run at a time. Indices claimed and never used stay holes, never read.
  class Claim {
    friend class FormStore;
    int next = 0, end = 0;
    int* space = nullptr;
    std::size_t room = 0;  // ints free at space
  };

  FormStore();
  ~FormStore();
  FormStore(const FormStore&) = delete;
  FormStore& operator=(const FormStore&) = delete;

  // The form's index, adding it when new. One claim per thread.
  int find_or_add(const GraphView& g, Claim& claim);

  const StoredForm& stored(int f) const {
    return records_[static_cast<std::size_t>(f) >> RECORD_CHUNK_BITS].load(std::memory_order_acquire)[f & (RECORD_CHUNK - 1)];
  }
  GraphView view(int f) const {
    const StoredForm& s = stored(f);
    const int* v = s.arrays + s.vs;
    const int* e = v + s.vs + 1;
    return GraphView{s.vs, s.es, s.key, v, e, e + s.es, s.arrays};
  }
  // Above every index given so far; the forms below it may still be being
  // written, or never be (an index is safe to read once this store or a
  // thread that had it gave it).
  int size() const { return size_.load(std::memory_order_acquire); }

 private:
  // Records lie in chunks that never move; the table of chunks has room for
  // more forms than an int can number, so it never grows either.
  static constexpr int RECORD_CHUNK_BITS = 16;
  static constexpr int RECORD_CHUNK = 1 << RECORD_CHUNK_BITS;
  static constexpr std::size_t RECORD_CHUNKS = std::size_t{1} << (31 - RECORD_CHUNK_BITS);
  // The arrays lie in blocks of this many ints (a form larger than a block
  // gets one of its own).
  static constexpr std::size_t ARRAY_BLOCK = std::size_t{1} << 16;
  // Indices a claim takes at a time: the records of one claim share no
  // cache line with another's.
  static constexpr int CLAIM_INDICES = 64;
  static constexpr int SHARD_BITS = 6;

  // Open addressing by the arrays' hash; -1 for an empty bucket. A full
  // table is copied into one twice its size, published when complete; the
  // old one stays for lookups still reading it, until the store goes.
  struct Buckets {
    explicit Buckets(std::size_t n);
    std::size_t mask;
    std::unique_ptr<std::atomic<std::int32_t>[]> slot;
  };
  struct alignas(64) Shard {
    std::mutex mutex;  // held by writers only, with what follows up to buckets
    int forms = 0;
    std::vector<std::unique_ptr<Buckets>> tables;  // the current one last
    // On a cache line of its own, read by every lookup: the lines above
    // change hands with every form added, this one only when the table grows.
    alignas(64) std::atomic<Buckets*> buckets{nullptr};
  };

  StoredForm* record_chunk(int f);
  int* array_space(Claim& claim, std::size_t ints);
  int find(const Buckets& t, std::uint64_t hash, const GraphView& g, std::size_t& b) const;

  std::unique_ptr<std::atomic<StoredForm*>[]> records_;
  std::atomic<int> size_{0};
  std::unique_ptr<Shard[]> shards_;
  std::mutex blocks_mutex_;
  std::vector<std::unique_ptr<int[]>> blocks_;
};
