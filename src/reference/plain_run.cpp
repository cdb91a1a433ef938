// The plain path of reference.h.
#include "reference/reference.h"

#include <algorithm>

#include "canon/canon.h"
#include "common/common.h"
#include "enumerate/enumerate.h"
#include "enumerate/tree_freq.h"
#include "table/table.h"

namespace {

struct Search {
  const SlotTable& t;
  int length;
  const std::function<void(const EdgeSet&)>& emit;
  EdgeSet set;
  std::vector<int> in_set;         // per atom: bonds of the set at it
  std::vector<char> excluded;      // per bond, on this path

  bool qualifies(int s) const {
    if (excluded[s]) return false;
    const int inside = (in_set[t.slot[s].first - 1] > 0) + (in_set[t.slot[s].second - 1] > 0);
    return set.size == 0 ? true : inside == 1;
  }

  void extend() {
    int s = 0;
    const int bonds = static_cast<int>(t.slot.size());
    while (s < bonds && !qualifies(s)) ++s;
    if (s == bonds) return;
    const auto [a, b] = t.slot[s];
    set.edge[set.size++] = {a, b};
    if (set.size == length) {
      emit(set);
    } else {
      ++in_set[a - 1];
      ++in_set[b - 1];
      extend();
      --in_set[a - 1];
      --in_set[b - 1];
    }
    --set.size;
    excluded[s] = 1;
    extend();
    excluded[s] = 0;
  }
};

bool branching(const Graph& f) {
  for (int i = 0; i < f.vs; ++i)
    if (f.v[i + 1] - f.v[i] > 2) return true;
  return false;
}

}  // namespace

bool same_form(const Graph& a, const Graph& b) {
  return a.vs == b.vs && a.es == b.es && a.key == b.key && a.v == b.v && a.e == b.e && a.el == b.el && a.vl == b.vl;
}

void plain_subtrees(const Graph& g, int length, const std::function<void(const EdgeSet&)>& emit) {
  SlotTable t;
  build_slot_table(g, t);
  if (length < 1 || length > static_cast<int>(t.slot.size())) return;
  Search search{t, length, emit, {}, std::vector<int>(g.vs, 0), std::vector<char>(t.slot.size(), 0)};
  search.set.edge.resize(length);
  search.extend();
}

PlainRun plain_run(const std::vector<Graph>& compounds, int opt, int lmin, int lmax, int fmin) {
  std::vector<int> slot_form(HASHTBL_SIZE, -1);  // index into forms
  std::vector<Graph> forms;                      // id = index + 1
  std::vector<int> slot_of, support;
  std::vector<std::vector<std::pair<int, int>>> entries(compounds.size());  // (id, count)
  std::vector<int> descriptor_of(1, 0);                                     // per id
  PlainRun run;
  for (int length = std::max(lmin, 1); length <= lmax; ++length) {
    const int first_form = static_cast<int>(forms.size());
    for (std::size_t c = 0; c < compounds.size(); ++c) {
      const std::size_t first_entry = entries[c].size();
      plain_subtrees(compounds[c], length, [&](const EdgeSet& s) {
        Graph f;
        std::vector<int> atoms;
        fill_fragment_graph(s, compounds[c], f, atoms);
        if (opt != 1 && branching(f) != (opt == 2)) return;
        canonical_label(f);
        int slot = home_slot(f.key);
        while (slot_form[slot] != -1 && !same_form(forms[slot_form[slot]], f))
          slot = (slot + 1) % HASHTBL_SIZE;
        if (slot_form[slot] == -1) {
          slot_form[slot] = static_cast<int>(forms.size());
          forms.push_back(f);
          slot_of.push_back(slot);
          support.push_back(0);
        }
        const int id = slot_form[slot] + 1;
        auto it = std::find_if(entries[c].begin() + first_entry, entries[c].end(),
                               [id](const std::pair<int, int>& e) { return e.first == id; });
        if (it != entries[c].end()) {
          ++it->second;
        } else {
          entries[c].emplace_back(id, 1);
          ++support[id - 1];
        }
      });
    }
    std::vector<int> made(forms.size() - first_form);
    for (std::size_t k = 0; k < made.size(); ++k) made[k] = first_form + static_cast<int>(k);
    std::sort(made.begin(), made.end(), [&](int a, int b) { return slot_of[a] < slot_of[b]; });
    descriptor_of.resize(forms.size() + 1, 0);
    for (int f : made) {
      if (support[f] < fmin) continue;
      run.descriptors.push_back(PlainDescriptor{f + 1, support[f], forms[f]});
      descriptor_of[f + 1] = static_cast<int>(run.descriptors.size());
    }
  }
  for (const auto& list : entries) {
    run.rows.emplace_back();
    for (const auto& [id, count] : list)
      if (descriptor_of[id] != 0) run.rows.back().emplace_back(descriptor_of[id], count);
  }
  return run;
}
