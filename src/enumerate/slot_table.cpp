// The bond slots of a compound.
#include "enumerate/tree_freq.h"

#include "common/common.h"

void build_slot_table(const Graph& g, SlotTable& t) {
  t.slot.clear();
  t.label.clear();
  for (int i = 0; i < g.vs; ++i) {
    TAVRIX_CHECK(g.vid[i] == i);
    // Adjacency is sorted by target, so taking the higher ends of each vertex
    // in stored order numbers the bonds by lower, then higher vertex.
    for (int j = g.v[i]; j < g.v[i + 1]; ++j) {
      if (g.e[j] > i) {
        t.slot.emplace_back(i + 1, g.e[j] + 1);
        t.label.push_back(g.el[j]);
      }
    }
  }
  t.words = static_cast<int>((t.slot.size() + 63) / 64);
  t.incident.assign(static_cast<std::size_t>(g.vs) * t.words, 0);
  for (std::size_t s = 0; s < t.slot.size(); ++s) {
    for (int end : {t.slot[s].first - 1, t.slot[s].second - 1})
      t.incident[static_cast<std::size_t>(end) * t.words + s / 64] |= std::uint64_t{1} << (s % 64);
  }
}
