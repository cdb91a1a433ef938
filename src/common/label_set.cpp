// Label sets: sorted, duplicate-free label strings whose positions are the
// integer labels stored in every graph.
#include "common/common.h"

#include <cstring>

int compare_labels(const std::string& item, std::string_view key) {
  std::size_t n = std::min(item.size(), key.size());
  int c = n == 0 ? 0 : std::memcmp(item.data(), key.data(), n);  // memcmp compares unsigned bytes
  if (c != 0) return c;
  if (item.size() == key.size()) return 0;
  return item.size() < key.size() ? -1 : 1;
}

LabelDictionary new_label_dictionary() {
  return LabelDictionary{array_new<std::string>(128), array_new<std::string>(128)};
}

namespace {
void add_label(std::string_view label, LabelSet& set) {
  if (array_find(label, set, compare_labels) != -1) return;
  array_insert_sorted(std::string(label), set, label, compare_labels);
}
}  // namespace

void add_edge_label(std::string_view label, LabelDictionary& dict) { add_label(label, dict.edge_labels); }
void add_vertex_label(std::string_view label, LabelDictionary& dict) { add_label(label, dict.vertex_labels); }

int edge_label_index(std::string_view label, const LabelDictionary& dict) {
  std::int64_t i = array_index_of(label, dict.edge_labels, compare_labels);
  if (i == -1) fatal_error("can't find an edge label in the label set\n");
  return static_cast<int>(i);
}

int vertex_label_index(std::string_view label, const LabelDictionary& dict) {
  std::int64_t i = array_index_of(label, dict.vertex_labels, compare_labels);
  if (i == -1) {
    // The known labels first, one a line, as "%s" prints them (up to a NUL).
    std::string message;
    for (const std::string& known : dict.vertex_labels.items) message += format_text("%s\n", known.c_str());
    message += format_text("can't find a vertex label '%.*s' in the label set\n", static_cast<int>(label.size()),
                           label.data());
    fatal_error(message);
  }
  return static_cast<int>(i);
}
