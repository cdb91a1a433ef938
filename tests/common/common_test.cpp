// Shared services: label sets, the growable array, file opening and the line
// reader.
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

TEST(ptr_array, sorted_insertion_goes_after_equal_items) {
  auto a = array_new<std::pair<int, int>>(2);
  auto by_first = [](const std::pair<int, int>& item, int key) { return item.first - key; };
  const std::pair<int, int> items[] = {{5, 0}, {1, 1}, {5, 2}, {9, 3}, {0, 4}, {5, 5}};
  for (const auto& it : items) array_insert_sorted(it, a, it.first, by_first);
  std::vector<std::pair<int, int>> expected = {{0, 4}, {1, 1}, {5, 0}, {5, 2}, {5, 5}, {9, 3}};
  EXPECT_EQ(a.items, expected);
  EXPECT_EQ(array_find(5, a, by_first), 2);  // the first of the equal items
  EXPECT_EQ(array_find(4, a, by_first), -1);
  EXPECT_EQ(array_index_of(9, a, by_first), 5);
  EXPECT_EXIT_WITH_OUTPUT(array_item(a, 6), 1, "^index out of bound\n$");
  EXPECT_EXIT_WITH_OUTPUT(array_item(a, -1), 1, "^index out of bound\n$");
  EXPECT_EXIT_WITH_OUTPUT(array_insert_at(std::pair<int, int>{}, a, 6), 1, "^invalid insertion\n$");
}

// fopen accepts a folder for reading on Linux; reading it would then fail in
// ways that look like an empty file, so the folder is refused by name.
TEST(open_file, refuses_a_folder_for_reading_and_a_file_below_a_plain_file) {
  const std::string dir = testsupport::make_temp_dir();
  testsupport::write_file(dir + "/plain", "x");
  EXPECT_EXIT_WITH_OUTPUT(open_file(dir, "r"), 1, "^can't open a file '" + dir + "'\n$");
  EXPECT_EXIT_WITH_OUTPUT(open_file(dir + "/plain/x", "w"), 1, "^can't open a file '" + dir + "/plain/x'\n$");
  testsupport::remove_tree(dir);
}

// read_line on a file holding `content`, starting from a buffer of `size`.
std::vector<std::pair<std::string, std::size_t>> read_all(const std::string& content, std::size_t size) {
  const std::string dir = testsupport::make_temp_dir();
  testsupport::write_file(dir + "/f", content);
  FilePtr f = open_file(dir + "/f", "r");
  std::vector<char> buffer(size);
  std::vector<std::pair<std::string, std::size_t>> lines;
  while (read_line(buffer, size, f.get())) lines.emplace_back(buffer.data(), size);
  testsupport::remove_tree(dir);
  return lines;
}

TEST(read_line, grows_by_five_then_doubling_increments_and_reads_a_last_line_without_newline) {
  using Lines = std::vector<std::pair<std::string, std::size_t>>;
  EXPECT_EQ(read_all("abcdefgh\n", 10), (Lines{{"abcdefgh\n", 10}}));        // exactly size-1 with newline
  EXPECT_EQ(read_all("abcdefghi\n", 10), (Lines{{"abcdefghi\n", 15}}));      // one longer: +5
  EXPECT_EQ(read_all(std::string(20, 'x') + "\n", 10), (Lines{{std::string(20, 'x') + "\n", 25}}));  // +5 +10
  EXPECT_EQ(read_all(std::string(40, 'x') + "\nab\n", 10),
            (Lines{{std::string(40, 'x') + "\n", 45}, {"ab\n", 45}}));     // +5 +10 +20, kept afterwards
  EXPECT_EQ(read_all("a\nlast", 10), (Lines{{"a\n", 10}, {"last", 10}}));
  EXPECT_EQ(read_all("a\n123456789", 10), (Lines{{"a\n", 10}}));  // fills the buffer, then end of file
  EXPECT_EQ(read_all("", 10), Lines{});
}

}  // namespace
