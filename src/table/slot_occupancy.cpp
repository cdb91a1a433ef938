// Slot claiming and the fragment key.
#include <bit>
#include <cstdint>

#include "common/common.h"
#include "table/table.h"

void create_occupancy(SlotOccupancy& occupancy) {
  occupancy.bits.assign((HASHTBL_SIZE + 63) / 64, 0);
  occupancy.used = 0;
}

int claim_slot(SlotOccupancy& occupancy, std::uint32_t key) {
  if (occupancy.used >= HASHTBL_SIZE) fatal_error("HASH TABLE FULL: INCREASE THE SIZE\n");
  const int words = static_cast<int>(occupancy.bits.size());
  const int home = home_slot(key);
  int w = home / 64;
  // Free slots of the home word at or after the home slot, then whole words.
  std::uint64_t free = ~occupancy.bits[w] & (~std::uint64_t{0} << (home % 64));
  while (true) {
    // Bits past the last slot stay free in the mask; skip them by wrapping.
    if (free != 0) {
      const int slot = w * 64 + std::countr_zero(free);
      if (slot < HASHTBL_SIZE) {
        occupancy.bits[w] |= std::uint64_t{1} << (slot % 64);
        ++occupancy.used;
        return slot;
      }
    }
    w = w + 1 == words ? 0 : w + 1;
    free = ~occupancy.bits[w];
  }
}

std::uint32_t compute_key(const GraphView& g) {
  const std::uint32_t n = 2u * g.es + 2u * g.vs + 1u;
  std::uint32_t h = 4u * n;
  auto mix = [&h](int value) {
    const std::uint32_t bits = static_cast<std::uint32_t>(value);
    for (int shift = 0; shift < 32; shift += 8) {
      // Bytes go in least significant first, each as a signed value, so a
      // byte of 0xff adds -1 (wrapping) rather than 255.
      const auto byte = static_cast<std::int8_t>(static_cast<std::uint8_t>(bits >> shift));
      h ^= (h << 5) + (h >> 3) + static_cast<std::uint32_t>(static_cast<std::int32_t>(byte));
    }
  };
  for (int j = 0; j < g.es; ++j) mix(g.e[j]);
  for (int i = 0; i <= g.vs; ++i) mix(g.v[i]);
  for (int j = 0; j < g.es; ++j) mix(g.el[j]);
  for (int i = 0; i < g.vs; ++i) mix(g.vl[i]);
  return h;
}
