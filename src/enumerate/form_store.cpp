// The run's shared forms; see form_store.h.
#include "enumerate/form_store.h"

#include <algorithm>

#include "common/common.h"
#include "table/table.h"

namespace {

std::uint64_t arrays_hash(const GraphView& g) {
  std::uint64_t h = static_cast<std::uint64_t>(g.vs) << 32 | static_cast<std::uint32_t>(g.es);
  auto mix = [&h](int x) { h = (h ^ static_cast<std::uint32_t>(x)) * 0x100000001b3ull; };
  for (int i = 0; i < g.vs; ++i) mix(g.vl[i]);
  for (int i = 0; i <= g.vs; ++i) mix(g.v[i]);
  for (int j = 0; j < g.es; ++j) mix(g.e[j]);
  for (int j = 0; j < g.es; ++j) mix(g.el[j]);
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdull;
  return h ^ (h >> 33);
}

bool same_arrays(const GraphView& a, const GraphView& b) {
  return a.vs == b.vs && a.es == b.es && std::equal(a.vl, a.vl + a.vs, b.vl) && std::equal(a.v, a.v + a.vs + 1, b.v) &&
         std::equal(a.e, a.e + a.es, b.e) && std::equal(a.el, a.el + a.es, b.el);
}

}  // namespace

FormStore::FormStore()
    : records_(std::make_unique<std::atomic<StoredForm*>[]>(RECORD_CHUNKS)),
      shards_(std::make_unique<Shard[]>(std::size_t{1} << SHARD_BITS)) {
  for (std::size_t c = 0; c < RECORD_CHUNKS; ++c) records_[c].store(nullptr, std::memory_order_relaxed);
  for (std::size_t k = 0; k < (std::size_t{1} << SHARD_BITS); ++k) {
    Shard& s = shards_[k];
    s.tables.push_back(std::make_unique<Buckets>(64));
    s.buckets.store(s.tables.back().get(), std::memory_order_release);
  }
}

FormStore::Buckets::Buckets(std::size_t n) : mask(n - 1), slot(std::make_unique<std::atomic<std::int32_t>[]>(n)) {
  for (std::size_t b = 0; b < n; ++b) slot[b].store(-1, std::memory_order_relaxed);
}

FormStore::~FormStore() {
  for (std::size_t c = 0; c < RECORD_CHUNKS; ++c) delete[] records_[c].load(std::memory_order_relaxed);
}

// The chunk that holds record f, made by whichever thread needs it first.
StoredForm* FormStore::record_chunk(int f) {
  std::atomic<StoredForm*>& slot = records_[static_cast<std::size_t>(f) >> RECORD_CHUNK_BITS];
  StoredForm* chunk = slot.load(std::memory_order_acquire);
  if (chunk != nullptr) return chunk;
  auto made = std::make_unique<StoredForm[]>(RECORD_CHUNK);
  if (slot.compare_exchange_strong(chunk, made.get(), std::memory_order_acq_rel)) return made.release();
  return chunk;  // another thread made it first
}

// The form's index in t, or -1 with b at the empty bucket that ends its probe.
int FormStore::find(const Buckets& t, std::uint64_t hash, const GraphView& g, std::size_t& b) const {
  for (b = hash & t.mask;; b = (b + 1) & t.mask) {
    const int f = t.slot[b].load(std::memory_order_acquire);
    if (f < 0) return -1;
    if (stored(f).hash == hash && same_arrays(view(f), g)) return f;
  }
}

// Where a form of this many ints goes: the claim's own space while it has room.
int* FormStore::array_space(Claim& claim, std::size_t ints) {
  if (ints <= claim.room) return claim.space;
  // A form larger than a block gets one of its own, and the claim goes on
  // filling the block it has.
  const std::size_t size = std::max(ints, ARRAY_BLOCK);
  auto block = std::make_unique_for_overwrite<int[]>(size);
  int* space = block.get();
  {
    std::lock_guard<std::mutex> lock(blocks_mutex_);
    blocks_.push_back(std::move(block));
  }
  if (size == ARRAY_BLOCK) {
    claim.space = space;
    claim.room = size;
  }
  return space;
}

int FormStore::find_or_add(const GraphView& g, Claim& claim) {
  const std::uint64_t hash = arrays_hash(g);
  Shard& shard = shards_[hash >> (64 - SHARD_BITS)];
  std::size_t b;
  int found = find(*shard.buckets.load(std::memory_order_acquire), hash, g, b);
  if (found >= 0) return found;
  // Written in the claim's own memory, outside the lock; should another
  // thread publish the same form first, the claim uses it for the next one.
  if (claim.next == claim.end) {
    const int first = size_.fetch_add(CLAIM_INDICES, std::memory_order_acq_rel);
    // Indices are ints; the fragment table holds far fewer distinct fragments.
    TAVRIX_CHECK(first >= 0 && static_cast<std::size_t>(first) <= RECORD_CHUNKS * RECORD_CHUNK - CLAIM_INDICES);
    claim.next = first;
    claim.end = first + CLAIM_INDICES;
  }
  const int f = claim.next;
  const std::size_t ints = 2 * static_cast<std::size_t>(g.vs) + 1 + 2 * static_cast<std::size_t>(g.es);
  int* at = array_space(claim, ints);
  StoredForm& s = record_chunk(f)[f & (RECORD_CHUNK - 1)];
  s.arrays = at;
  at = std::copy(g.vl, g.vl + g.vs, at);
  at = std::copy(g.v, g.v + g.vs + 1, at);
  at = std::copy(g.e, g.e + g.es, at);
  std::copy(g.el, g.el + g.es, at);
  s.hash = hash;
  s.vs = g.vs;
  s.es = g.es;
  s.branching = false;
  for (int i = 0; i < g.vs && !s.branching; ++i) s.branching = g.v[i + 1] - g.v[i] > 2;
  s.key = compute_key(view(f));

  std::lock_guard<std::mutex> lock(shard.mutex);
  // Another thread may have added it, or grown the table, meanwhile.
  Buckets& table = *shard.tables.back();
  found = find(table, hash, g, b);
  if (found >= 0) return found;
  ++claim.next;
  if (s.arrays == claim.space) {
    claim.space += ints;
    claim.room -= ints;
  }
  table.slot[b].store(f, std::memory_order_release);
  if (2 * static_cast<std::size_t>(++shard.forms) > table.mask + 1) {
    auto grown = std::make_unique<Buckets>(2 * (table.mask + 1));
    for (std::size_t k = 0; k <= table.mask; ++k) {
      const std::int32_t e = table.slot[k].load(std::memory_order_relaxed);
      if (e < 0) continue;
      std::size_t c = stored(e).hash & grown->mask;
      while (grown->slot[c].load(std::memory_order_relaxed) >= 0) c = (c + 1) & grown->mask;
      grown->slot[c].store(e, std::memory_order_relaxed);
    }
    // Owned before it is published: a failed push_back leaves the old table
    // in use.
    shard.tables.push_back(std::move(grown));
    shard.buckets.store(shard.tables.back().get(), std::memory_order_release);
  }
  return f;
}
