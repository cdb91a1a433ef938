// Shared services: label sets and the dictionary's line reader. The
// growable array serves the label sets, and opening files is checked where
// the readers and writers refuse folders and paths below plain files.
#include <gtest/gtest.h>

#include "common/common.h"
#include "support/process.h"

namespace {

std::vector<std::string> labels_of(const LabelSet& set) { return set.items; }

// Byte order, bytes compared unsigned and a prefix first, whatever the order
// labels arrive in; an index is the position in that order, and a new label
// moves the ones after it up.
TEST(label_set, indices_follow_byte_order_whatever_the_insertion_order) {
  for (const std::vector<std::string>& order :
       {std::vector<std::string>{"O", "C", "\xC3\xA9", "Cl", "N", "C.ar", "C.3", "c", "C"},
        std::vector<std::string>{"c", "\xC3\xA9", "C.3", "Cl", "C", "O", "C.ar", "N"}}) {
    LabelDictionary d = new_label_dictionary();
    for (const std::string& l : order) add_vertex_label(l, d);
    EXPECT_EQ(labels_of(d.vertex_labels),
              (std::vector<std::string>{"C", "C.3", "C.ar", "Cl", "N", "O", "c", "\xC3\xA9"}));
    EXPECT_EQ(vertex_label_index("Cl", d), 3);
    add_vertex_label("Ca", d);
    EXPECT_EQ(vertex_label_index("Cl", d), 4);
  }
}

TEST(label_set, missing_labels_end_the_run_with_their_messages) {
  LabelDictionary d = new_label_dictionary();
  add_vertex_label("O", d);
  add_vertex_label("C", d);
  EXPECT_EXIT_WITH_OUTPUT(vertex_label_index("N", d), 1, "^C\nO\ncan't find a vertex label 'N' in the label set\n$");
  EXPECT_EXIT_WITH_OUTPUT(edge_label_index("-", d), 1, "^can't find an edge label in the label set\n$");
}

// The dictionary's line reader: a long line grows the buffer by 5, 10, 20...
// bytes and the caller keeps it; a last line without a line feed counts.
TEST(read_line, grows_by_five_then_doubling_and_keeps_the_buffer) {
  const std::string dir = testsupport::make_temp_dir();
  testsupport::write_file(dir + "/f", std::string(40, 'x') + "\nab\nlast");
  FilePtr f = open_file(dir + "/f", "r");
  std::vector<char> buffer(10);
  std::size_t size = 10;
  std::vector<std::pair<std::string, std::size_t>> lines;
  while (read_line(buffer, size, f.get())) lines.emplace_back(buffer.data(), size);
  EXPECT_EQ(lines, (decltype(lines){{std::string(40, 'x') + "\n", 45}, {"ab\n", 45}, {"last", 45}}));
  testsupport::remove_tree(dir);
}

}  // namespace
