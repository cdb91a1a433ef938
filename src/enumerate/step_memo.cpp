// The counter's memo of growth steps, first bonds and labelled graphs.
#include "enumerate/step_memo.h"

#include <algorithm>

#include "common/common.h"

namespace {

// Bound the memo's memory whatever the input: past this (or the caller's
// smaller bound), lookups go on but nothing new is remembered.
constexpr std::size_t MAX_LABELLED_BYTES = std::size_t{1} << 28;

}  // namespace

void labelled_graph_key(const Graph& fragment, std::vector<int>& scratch, std::string& key) {
  scratch.clear();
  scratch.push_back(fragment.vs);
  scratch.insert(scratch.end(), fragment.vl.begin(), fragment.vl.end());
  scratch.insert(scratch.end(), fragment.e.begin(), fragment.e.end());
  scratch.insert(scratch.end(), fragment.el.begin(), fragment.el.end());
  key.assign(reinterpret_cast<const char*>(scratch.data()), scratch.size() * sizeof(int));
}

StepMemo::StepMemo(std::size_t byte_limit)
    : max_labelled_bytes_(byte_limit > 0 ? std::min(MAX_LABELLED_BYTES, byte_limit) : MAX_LABELLED_BYTES) {}

void StepMemo::add_first_bond(std::uint64_t key, int form, int lower_position) {
  first_bonds_.emplace(key, FirstBond{form, lower_position});
}

void StepMemo::remember_labelled(const std::string& key, int form, const int* order, int vertices) {
  if (labelled_bytes_ + key.size() > max_labelled_bytes_) {
    full_ = true;
    return;
  }
  int at = -1;
  if (order != nullptr) {
    at = static_cast<int>(orders_.size());
    for (int k = 0; k < vertices; ++k) orders_.push_back(static_cast<std::uint8_t>(order[k]));
  }
  labelled_bytes_ += key.size() + vertices;
  labelled_.emplace(key, LabelledGraph{form, at});
}

void StepMemo::forget() {
  first_bonds_.clear();
  orders_.clear();
  labelled_.clear();
  labelled_bytes_ = 0;
  full_ = false;
}
