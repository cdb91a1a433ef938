// The growth steps of forms (see step_memo.h), which the counters of a run
// share across threads.
//
// Counters on several threads meet mostly the same steps. Were each to keep
// its own, every thread would label each common step once for itself: on
// nci5k two threads label 40 % more steps than one and eight threads 140 %
// more, and labelling is most of the counting. So one set of tables serves
// them all, a step labelled by one counter being known to every other.
//
// Per form, a table of steps, looked up without a lock: a reader loads the
// form's table and then a step's key, both with acquire. One writer at a
// time per form (a lock chosen by the form) fills a step before storing its
// key with release, and moves the steps of a table three quarters full to
// one twice the size before publishing that. Tables left behind stay until
// forget(), so a reader never sees its table go. A search tries every bond
// around one set before moving on, so its lookups stay within its form's
// few buckets.
//
// Past the byte bound nothing new is added (lookups go on) and full() says
// so; forget() starts afresh, and may only be called while no other thread
// uses the tables.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "enumerate/form_slots.h"
#include "enumerate/step_memo.h"

// Grown forms of up to this many atoms keep their moves inside the bucket;
// larger ones keep them apart, the bucket holding where.
constexpr int INLINE_MOVES = 8;

// One growth step out of a form: its key (step_key with STEP_USED; 0 while
// the bucket is empty), the grown form (-1: not stable, label the set
// itself) and its moves: the new atom's position, then the grown form's
// position of every position of the smaller form. 16 bytes, so four share a
// cache line.
struct alignas(16) StepBucket {
  std::atomic<std::uint32_t> key{0};
  std::int32_t form = -1;
  std::uint8_t moves[INLINE_MOVES] = {};  // or the address of the moves

  // The moves of a step whose grown form has `atoms` atoms.
  const std::uint8_t* moves_of(int atoms) const {
    if (atoms <= INLINE_MOVES) return moves;
    const std::uint8_t* at;
    std::memcpy(&at, moves, sizeof at);
    return at;
  }
};

class StepTables {
 public:
  // byte_limit bounds the bytes of the tables.
  explicit StepTables(std::size_t byte_limit);
  ~StepTables();
  StepTables(const StepTables&) = delete;
  StepTables& operator=(const StepTables&) = delete;

  // The step out of form by key, or null when none is known. What it
  // points to stays as it is until forget().
  const StepBucket* find(int form, std::uint32_t key) const {
    const std::atomic<Table*>* slot = tables_.find(form);
    if (slot == nullptr) return nullptr;
    const Table* table = slot->load(std::memory_order_acquire);
    if (table == nullptr) return nullptr;
    key |= STEP_USED;
    const StepBucket* buckets = table->buckets();
    for (std::size_t b = step_home(key, table->mask);; b = (b + 1) & table->mask) {
      const std::uint32_t k = buckets[b].key.load(std::memory_order_acquire);
      if (k == key) return &buckets[b];
      if (k == 0) return nullptr;
    }
  }
  // Adds the step out of form by key to grown (-1: not stable) with nmoves
  // moves, unless it is known already or there is no room.
  void add(int form, std::uint32_t key, int grown, const std::uint8_t* moves, int nmoves);

  // Something was refused for want of room.
  bool full() const { return full_.load(std::memory_order_relaxed); }
  // Forgets every step. No other thread may use the tables meanwhile.
  void forget();
  // For a caller handing out batches of work that use the tables: whether
  // it may hand out another now. Once full, it must wait until none is in
  // flight (idle); then every step is forgotten, to be learnt afresh, so
  // that the tables' memory stays bounded.
  bool room_for_more(bool idle) {
    if (!full()) return true;
    if (idle) forget();
    return idle;
  }

 private:
  struct alignas(16) Table {
    std::uint32_t mask = 0;
    std::uint32_t used = 0;  // written under the form's lock only
    StepBucket* buckets() { return reinterpret_cast<StepBucket*>(this + 1); }
    const StepBucket* buckets() const { return reinterpret_cast<const StepBucket*>(this + 1); }
  };
  static constexpr int STRIPE_BITS = 6;
  // Tables and long moves are cut from blocks of this many bytes; a larger
  // table gets a block of its own.
  static constexpr std::size_t BLOCK_BYTES = std::size_t{1} << 16;

  // Writers of forms that share a lock also share the blocks they cut
  // tables from, so adding a step takes no other lock.
  struct alignas(64) Stripe {
    std::mutex mutex;
    std::vector<std::unique_ptr<std::byte[]>> blocks;
    std::byte* block = nullptr;      // the block being cut
    std::size_t used = BLOCK_BYTES;  // bytes of it taken
  };
  // `bytes` from the stripe's blocks, 16-byte aligned, or null past the
  // bound (or for want of memory: the tables only spare work).
  std::byte* cut(Stripe& stripe, std::size_t bytes);

  std::size_t limit_;
  FormSlots<Table*> tables_{nullptr};  // per form: its table, null for none
  std::unique_ptr<Stripe[]> stripes_;  // by form
  std::atomic<std::size_t> bytes_{0};
  std::atomic<bool> full_{false};
};
