// The pieces both readers share: the tokeniser and the dictionary loader.
// Arbitrary bytes as input are the reader fuzz target's work (fuzz/).
#include <random>

#include "input/input_internal.h"
#include "input/input_support.h"

namespace {

using namespace inputtest;

// On random lines: the tokens are the space-separated pieces before the
// first line feed (tabs are not separators; a line shorter than two bytes
// has none, and "nil" stands first), and the record-end test reads the
// first of them.
TEST(tokenize_line, agrees_with_a_plain_split) {
  std::mt19937 rng(20250611);  // fixed, so a failure replays
  const char alphabet[] = {' ', '$', '\n', '\t', 'x'};
  for (int round = 0; round < 20000; ++round) {
    std::string line(rng() % 12, ' ');
    for (char& c : line) c = alphabet[rng() % std::size(alphabet)];
    const std::string text = line.substr(0, line.find('\n'));
    std::vector<std::string> pieces;
    for (std::size_t i = 0, j; line.size() >= 2 && i < text.size(); i = j + 1) {
      j = std::min(text.find(' ', i), text.size());
      if (j > i) pieces.push_back(text.substr(i, j - i));
    }
    TokenArray t;
    tokenize_line(line, t);
    ASSERT_EQ(std::vector<std::string>(t.slot.begin(), t.slot.begin() + t.count), pieces) << testing::PrintToString(line);
    if (pieces.empty()) {
      ASSERT_EQ(t.slot[0], "nil");
    }
    ASSERT_EQ(first_token_is_record_end(line), !pieces.empty() && pieces[0] == "$$$$") << testing::PrintToString(line);
  }
}

TEST(load_label_dictionary, stops_at_lines_it_cannot_read) {
  Scratch scratch;
  EXPECT_EXIT_WITH_OUTPUT(load_label_dictionary(scratch.put("a.dict", "E -\nX y\n")), 1, exactly("invalid line at"));
  EXPECT_EXIT_WITH_OUTPUT(load_label_dictionary(scratch.put("b.dict", "E -\nV \n")), 1, exactly("wrong formatted line at"));
  EXPECT_EXIT_WITH_OUTPUT(load_label_dictionary(scratch.put("c.dict", "E -\n\n")), 1, exactly("invalid line at"));
}

}  // namespace
