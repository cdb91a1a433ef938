// The growth steps of a run's forms; see step_tables.h.
#include "enumerate/step_tables.h"

#include <algorithm>
#include <new>

#include "common/common.h"

namespace {

// Buckets of a form's first table; each table after it is twice as large.
constexpr std::uint32_t FIRST_TABLE = 4;

}  // namespace

StepTables::StepTables(std::size_t byte_limit)
    : limit_(byte_limit), stripes_(std::make_unique<Stripe[]>(std::size_t{1} << STRIPE_BITS)) {}

StepTables::~StepTables() = default;

std::byte* StepTables::cut(Stripe& stripe, std::size_t bytes) {
  bytes = (bytes + 15) & ~std::size_t{15};
  if (stripe.used + bytes <= BLOCK_BYTES) {
    std::byte* at = stripe.block + stripe.used;
    stripe.used += bytes;
    return at;
  }
  const bool own_block = bytes > BLOCK_BYTES;
  const std::size_t block_bytes = own_block ? bytes : BLOCK_BYTES;
  if (bytes_.fetch_add(block_bytes, std::memory_order_relaxed) + block_bytes > limit_) {
    full_.store(true, std::memory_order_relaxed);
    return nullptr;
  }
  try {
    // new[] aligns bytes for any scalar, which may be less than 16.
    stripe.blocks.push_back(std::make_unique_for_overwrite<std::byte[]>(block_bytes + 16));
  } catch (const std::bad_alloc&) {
    full_.store(true, std::memory_order_relaxed);
    return nullptr;
  }
  std::byte* p = stripe.blocks.back().get();
  std::byte* at = p + (-reinterpret_cast<std::uintptr_t>(p) & 15);
  if (!own_block) {
    stripe.block = at;
    stripe.used = bytes;
  }
  return at;
}

void StepTables::add(int form, std::uint32_t key, int grown, const std::uint8_t* moves, int nmoves) {
  TAVRIX_CHECK(nmoves <= MAX_GROWN_VERTICES);
  if (full()) return;
  std::atomic<Table*>* slot;
  try {
    slot = tables_.make(form);
  } catch (const std::bad_alloc&) {
    full_.store(true, std::memory_order_relaxed);
    return;
  }
  Stripe& stripe = stripes_[static_cast<std::size_t>(form) & ((std::size_t{1} << STRIPE_BITS) - 1)];
  std::lock_guard<std::mutex> lock(stripe.mutex);
  // Another counter may have added it since this one looked.
  if (find(form, key) != nullptr) return;
  Table* table = slot->load(std::memory_order_relaxed);
  std::uint8_t* long_moves = nullptr;
  if (nmoves > INLINE_MOVES) {
    long_moves = reinterpret_cast<std::uint8_t*>(cut(stripe, static_cast<std::size_t>(nmoves)));
    if (long_moves == nullptr) return;
    std::copy_n(moves, nmoves, long_moves);
  }
  if (table == nullptr || 4 * (table->used + 1) > 3 * (table->mask + 1)) {
    const std::uint32_t size = table == nullptr ? FIRST_TABLE : 2 * (table->mask + 1);
    std::byte* at = cut(stripe, sizeof(Table) + std::size_t{size} * sizeof(StepBucket));
    if (at == nullptr) return;
    Table* grown_table = new (at) Table;
    grown_table->mask = size - 1;
    StepBucket* to = grown_table->buckets();
    std::uninitialized_default_construct_n(to, size);
    if (table != nullptr) {
      const StepBucket* from = table->buckets();
      for (std::uint32_t k = 0; k <= table->mask; ++k) {
        const std::uint32_t moved = from[k].key.load(std::memory_order_relaxed);
        if (moved == 0) continue;
        std::size_t b = step_home(moved, size - 1);
        while (to[b].key.load(std::memory_order_relaxed) != 0) b = (b + 1) & (size - 1);
        to[b].form = from[k].form;
        std::copy_n(from[k].moves, INLINE_MOVES, to[b].moves);
        to[b].key.store(moved, std::memory_order_relaxed);
      }
      grown_table->used = table->used;
    }
    // Readers that load the new table see every step moved into it.
    slot->store(grown_table, std::memory_order_release);
    table = grown_table;
  }
  key |= STEP_USED;
  StepBucket* buckets = table->buckets();
  std::size_t b = step_home(key, table->mask);
  while (buckets[b].key.load(std::memory_order_relaxed) != 0) b = (b + 1) & table->mask;
  buckets[b].form = grown;
  if (long_moves != nullptr)
    std::memcpy(buckets[b].moves, &long_moves, sizeof long_moves);
  else
    std::copy_n(moves, nmoves, buckets[b].moves);
  // Readers that see the key see the step.
  buckets[b].key.store(key, std::memory_order_release);
  ++table->used;
}

void StepTables::forget() {
  tables_.reset();
  for (std::size_t s = 0; s < (std::size_t{1} << STRIPE_BITS); ++s) {
    Stripe& stripe = stripes_[s];
    stripe.blocks.clear();
    stripe.block = nullptr;
    stripe.used = BLOCK_BYTES;
  }
  bytes_.store(0, std::memory_order_relaxed);
  full_.store(false, std::memory_order_relaxed);
}
