// The line source: chunked reading must give exactly the lines of the plain
// byte-at-a-time reading, wherever the chunk boundaries and the length limit
// fall relative to line feeds, carriage returns and NUL bytes.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "input/input_internal.h"

namespace {

using namespace std::string_literals;

struct TempFile {
  std::FILE* f = std::tmpfile();
  explicit TempFile(const std::string& bytes) {
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::rewind(f);
  }
  ~TempFile() { std::fclose(f); }
};

// The reading every line source must agree with: getc, with the length limit
// checked before each character and a "\r\n" pair taken as one.
std::vector<std::string> reference_lines(const std::string& bytes, std::size_t buffer_size) {
  TempFile file(bytes);
  std::vector<std::string> lines;
  std::string buf;
  for (;;) {
    buf.clear();
    while (buf.size() < buffer_size - 1) {
      int c = std::getc(file.f);
      if (c == EOF) break;
      if (c == '\r') {
        int after = std::getc(file.f);
        if (after == EOF) break;
        if (after == '\n') {
          buf += '\n';
          break;
        }
        std::ungetc(after, file.f);
      }
      buf += static_cast<char>(c);
      if (c == '\n') break;
    }
    if (buf.empty()) return lines;
    lines.push_back(buf.substr(0, buf.find('\0')));
  }
}

std::vector<std::string> chunked_lines(const std::string& bytes, std::size_t chunk_size, std::size_t buffer_size) {
  TempFile file(bytes);
  InputLines in(file.f, chunk_size, buffer_size);
  std::vector<std::string> lines;
  while (next_line(in)) lines.emplace_back(in.line);
  EXPECT_TRUE(in.line.empty());
  EXPECT_FALSE(next_line(in)) << "the end of the file must stay the end";
  return lines;
}

// Written out by hand, so that the reference itself is pinned down.
TEST(next_line, known_cases_at_every_chunk_size) {
  struct Case {
    std::string bytes;
    std::vector<std::string> lines;  // with a line buffer of 4 bytes: at most 3 per line
  };
  const Case cases[] = {
      {""s, {}},
      {"ab\r\ncd"s, {"ab\n", "cd"}},
      {"abc\r\nd\n"s, {"abc", "\n", "d\n"}},  // the pair past the limit: the feed becomes a line
      {"ab\r\nx"s, {"ab\n", "x"}},            // the pair ends the line right at the limit
      {"ab\rx\n"s, {"ab\r", "x\n"}},          // a carriage return at the limit stays
      {"a\rb\n"s, {"a\rb", "\n"}},
      {"a\r"s, {"a"}},
      {"\r"s, {}},
      {"\r\r"s, {"\r"}},
      {"\r\r\n"s, {"\r\n"}},
      {"\n\r\n\n"s, {"\n", "\n", "\n"}},
      {"a\0\nc\0"s, {"a", "c"}},
      {"\0\r\n"s, {""}},
      {"abcdefg"s, {"abc", "def", "g"}},
      {"abcdef\n"s, {"abc", "def", "\n"}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(reference_lines(c.bytes, 4), c.lines) << testing::PrintToString(c.bytes);
    for (std::size_t chunk = 1; chunk <= 9; ++chunk)
      EXPECT_EQ(chunked_lines(c.bytes, chunk, 4), c.lines) << testing::PrintToString(c.bytes) << " chunk " << chunk;
  }
}

// Random bytes from the few that matter, with chunk and buffer sizes small
// enough that refills and the limit land on every kind of byte.
TEST(next_line, agrees_with_the_reference_on_random_bytes) {
  std::mt19937 rng(20250611);  // fixed, so a failure replays
  const char alphabet[] = {'a', ' ', '\r', '\n', '\0'};
  for (int round = 0; round < 4000; ++round) {
    std::string bytes(rng() % 40, ' ');
    for (char& b : bytes) b = alphabet[rng() % std::size(alphabet)];
    const std::size_t buffer_size = 2 + rng() % 7, chunk = 1 + rng() % 12;
    ASSERT_EQ(chunked_lines(bytes, chunk, buffer_size), reference_lines(bytes, buffer_size))
        << testing::PrintToString(bytes) << " chunk " << chunk << " buffer " << buffer_size;
  }
}

}  // namespace
