// tavrix-matrix: turns a Tavrix descriptor file into a compound-by-descriptor
// count matrix in Matrix Market coordinate format plus a file of row names.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct MatrixEntry {
  int descriptor = 0;  // column, 1-based
  int count = 0;
};

// One compound's line of a descriptor file.
struct DescriptorLine {
  std::string_view name;             // points into the parsed text
  std::vector<MatrixEntry> entries;  // ascending descriptor numbers
};

// Parses one line of a descriptor file, given without its "\n" (a "\r" just
// before it, as written where text lines end in "\r\n", is ignored):
//   "NAME",m,d1,c1,...,dm,cm
// Names are not escaped by Tavrix and may hold '"' and ','; since nothing
// after the name holds a '"', the name ends at the last '"' of the line,
// which must be followed by ','. Numbers are unsigned decimal and fit a
// signed 32-bit integer; descriptors and counts are at least 1 and no
// descriptor appears twice. On success returns "" and fills line (entries
// sorted by descriptor); otherwise returns what is wrong, for a message.
std::string parse_descriptor_line(std::string_view text, DescriptorLine& line);

struct ExportRequest {
  std::string input;      // the descriptor file
  std::string stem;       // outputs: stem + ".mtx", stem + ".rows"
  long long columns = -1; // number of columns; -1: the largest descriptor seen
};

// The default output stem: input without a final ".out", else input itself.
std::string default_stem(const std::string& input);

// Reads the descriptor file twice (once to check it and size the matrix,
// once to write), so memory stays bounded by the longest line however many
// compounds there are. Writes nothing unless the whole file is valid; on a
// failure while writing, removes what it wrote. Returns "" on success,
// otherwise the message to print, such as "a.out:17: expected a count after
// descriptor 12".
std::string export_matrix(const ExportRequest& request);
