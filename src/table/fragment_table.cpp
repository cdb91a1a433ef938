// The fragment hash table with linear probing, and the per-compound lists of
// fragments found with their counts.
#include <algorithm>
#include <bit>
#include <cstdint>

#include "common/common.h"
#include "table/table.h"

void create_table(FragmentTable& table) {
  table.hashg.assign(HASHTBL_SIZE, HashEntry{});
  release_stored(table);
}

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

void release_stored(FragmentTable& table) {
  for (int slot : table.stored_slot)
    if (slot >= 0 && slot < static_cast<int>(table.hashg.size())) table.hashg[slot].g = -1;
  table.stored.clear();
  table.stored_slot.clear();
  table.last.clear();
}

std::vector<int> current_slots(const FragmentTable& table) {
  std::vector<int> slots(table.stored_slot.begin(), table.stored_slot.begin() + table.stored.size());
  std::sort(slots.begin(), slots.end());
  return slots;
}

void create_occurrence_lists(FragmentTable& table, int n) {
  // Every list has room for 100 entries, doubling when full; the entries
  // themselves are taken as they come, so a million small compounds do not
  // hold 800 MB of empty entries.
  table.csrcount.assign(n, OccurrenceCount{0, 100, 0});
  table.csr.assign(n, std::vector<Occurrence>());
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

void insert_fragment(FragmentTable& table, const Graph& g, int compid) { insert_fragment_slot(table, g, compid); }

int insert_fragment_slot(FragmentTable& table, const Graph& g, int compid) {
  TAVRIX_CHECK(g.vs == table.threshold + 1 && g.es == 2 * table.threshold);
  const int h = home_slot(g.key);
  int i = h;
  while (table.hashg[i].occupied) {
    // A finished slot (no stored graph) holds a shorter fragment and never matches.
    const HashEntry& slot = table.hashg[i];
    if (slot.g != -1 && compare_graphs(table.stored[slot.g], g) == 0) {
      count_in_slot(table, i, compid);
      return i;
    }
    i = i + 1 == HASHTBL_SIZE ? 0 : i + 1;
    if (i == h) fatal_error("HASH TABLE FULL: INCREASE THE SIZE\n");
  }
  HashEntry& slot = table.hashg[i];
  slot.occupied = 1;
  slot.support = 1;
  slot.id = ++table.total;
  table.stored.push_back(g);
  slot.g = static_cast<int>(table.stored.size()) - 1;
  // The side arrays follow stored's size, whoever shortened stored.
  table.stored_slot.resize(table.stored.size());
  table.last.resize(table.stored.size());
  table.stored_slot[slot.g] = i;
  // New in the run, so new in this compound: its entry goes at the end.
  table.last[slot.g] = LastOccurrence{compid, table.csrcount[compid].size};
  TAVRIX_CHECK(table.csrcount[compid].offset <= table.csrcount[compid].size);
  append_occurrence(table, compid, slot.id);
  return i;
}

void count_in_slot(FragmentTable& table, int slot, int compid) {
  HashEntry& found = table.hashg[slot];
  TAVRIX_CHECK(found.g >= 0 && found.g < static_cast<int>(table.last.size()));
  LastOccurrence& last = table.last[found.g];
  OccurrenceCount& count = table.csrcount[compid];
  std::vector<Occurrence>& list = table.csr[compid];
  int p = -1;
  if (last.compid == compid) {
    const bool kept = last.position >= count.offset && last.position < count.size &&
                      list[last.position].id == found.id;
    p = kept ? last.position : find_occurrence(table, compid, found.id);
  }
  if (p != -1) {
    ++list[p].count;
    return;
  }
  // First occurrence in this compound: one more supporting compound, and a
  // new entry at the end of the list.
  ++found.support;
  last = LastOccurrence{compid, count.size};
  append_occurrence(table, compid, found.id);
}

void append_occurrence(FragmentTable& table, int compid, int id) {
  OccurrenceCount& count = table.csrcount[compid];
  std::vector<Occurrence>& list = table.csr[compid];
  if (count.size == count.capacity) count.capacity *= 2;
  list.push_back(Occurrence{id, 1});
  ++count.size;
}

int find_occurrence(const FragmentTable& table, int compid, int id) {
  const OccurrenceCount& count = table.csrcount[compid];
  const std::vector<Occurrence>& list = table.csr[compid];
  // Earlier lengths' entries, below offset, can never hold this id.
  for (int p = count.offset; p < count.size; ++p)
    if (list[p].id == id) return p;
  return -1;
}

void add_occurrence(FragmentTable& table, int compid, int id) {
  TAVRIX_CHECK(id >= 1);
  OccurrenceCount& count = table.csrcount[compid];
  std::vector<Occurrence>& list = table.csr[compid];
  TAVRIX_CHECK(count.offset <= count.size);
  const int p = find_occurrence(table, compid, id);
  if (p != -1) {
    ++list[p].count;
    return;
  }
  append_occurrence(table, compid, id);
}
