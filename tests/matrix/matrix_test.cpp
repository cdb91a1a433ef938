// tavrix-matrix: the descriptor line parser, the matrix of a small file byte
// for byte, the command line, and what it refuses. The matrices of reviewed
// runs are compared with the Python package's in tests/python.
#include <gtest/gtest.h>

#include <utility>

#include "matrix_export.h"
#include "support/process.h"

using namespace testsupport;

namespace {

const std::string HEADER = "%%MatrixMarket matrix coordinate integer general\n";

RunResult run_matrix(const std::vector<std::string>& args, const std::string& cwd) {
  return run_program(TAVRIX_MATRIX_BINARY, args, cwd);
}

}  // namespace

TEST(descriptor_line, names_what_is_wrong_with_a_malformed_line) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "expected a line starting with '\"'"},
      {"c17,0", "expected a line starting with '\"'"},
      {"\"c17,0", "expected '\",' after the name"},
      {"\"c17\"0", "expected '\",' after the name"},
      {"\"c17\"", "expected '\",' after the name"},
      {"\"c17\",", "expected the number of descriptors after the name"},
      {"\"c17\",-1", "expected the number of descriptors after the name"},
      {"\"c17\",x", "expected the number of descriptors after the name"},
      {"\"a\",2,12", "expected a count after descriptor 12"},
      {"\"a\",1,12,", "expected a count after descriptor 12"},
      {"\"a\",2,4,3", "expected ',' after the count of descriptor 4"},
      {"\"a\",2,4,3,", "expected descriptor number 2 of 2"},
      {"\"a\",1,0,3", "descriptor number 0 (they start at 1)"},
      {"\"a\",1,4,0", "count 0 for descriptor 4"},
      {"\"a\",1,4,3,5,1", "more pairs than the 1 announced"},
      {"\"a\",1,4,3 ", "unexpected ' ' at column 10"},
      {"\"a\",0;", "unexpected ';' at column 6"},
      {"\"a\",2,4,3,4,1", "descriptor 4 appears twice"},
      {"\"a\",1,2147483648,1", "descriptor number 1 of 1 is larger than 2147483647"},
      {"\"a\",1,4,99999999999999999999999", "a count after descriptor 4 is larger than 2147483647"},
      {"\"a\",99999999999,1,1", "the number of descriptors after the name is larger than 2147483647"},
      {"\"a\",2000000000,1,1", "expected ',' after the count of descriptor 1"},
  };
  DescriptorLine line;
  for (const auto& [text, message] : cases) EXPECT_EQ(parse_descriptor_line(text, line), message) << text;
}

// Pairs sorted by descriptor; names that hold quotes and commas end at the
// last '"'; a "\r" at a line end (text written with "\r\n") is not data, one
// inside the name (an SD name line that ended in "\r\n") is part of it; a
// last line without "\n" still counts; a name without ".out" is the stem.
TEST(tavrix_matrix, command_line_stem_and_column_count) {
  const std::string dir = make_temp_dir();
  write_file(dir + "/c.txt",
             "\"first\",2,3,1,1,2\n\"second, \"quoted\"\",0\n\"x\r\",1,4,1\r\n\"\",1,2147483647,2147483647");
  RunResult r = run_matrix({"c.txt"}, dir);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(read_file(dir + "/c.txt.mtx"),
            HEADER + "% rows: compounds in the order of c.txt.rows; columns: descriptor numbers\n"
                     "4 2147483647 4\n1 1 2\n1 3 1\n3 4 1\n4 2147483647 2147483647\n");
  EXPECT_EQ(read_file(dir + "/c.txt.rows"), "first\nsecond, \"quoted\"\nx\r\n\n");

  write_file(dir + "/a.out", "\"a\",1,2,5\n");
  r = run_matrix({"-o", "b", "-n", "7", "a.out"}, dir);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_FALSE(file_exists(dir + "/a.mtx"));
  EXPECT_EQ(read_file(dir + "/b.mtx"),
            HEADER + "% rows: compounds in the order of b.rows; columns: descriptor numbers\n1 7 1\n1 2 5\n");

  // An empty descriptor file (a run on no compounds) is an empty matrix.
  write_file(dir + "/e.out", "");
  r = run_matrix({"e.out"}, dir);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(read_file(dir + "/e.mtx").find("\n0 0 0\n"), std::string::npos);

  r = run_matrix({"-h"}, dir);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("usage: tavrix-matrix [-n COLUMNS] [-o STEM] DESCRIPTOR_FILE\n", 0), 0u);

  const std::vector<std::pair<std::vector<std::string>, std::string>> wrong = {
      {{}, "tavrix-matrix: no descriptor file given\n"},
      {{"-x", "a.out"}, "tavrix-matrix: unknown option -x\n"},
      {{"a.out", "c.txt"}, "tavrix-matrix: one descriptor file at a time\n"},
      {{"-n", "-1", "a.out"}, "tavrix-matrix: -n takes a number of columns from 0 to 2147483647, not \"-1\"\n"},
      {{"-n", "2147483648", "a.out"},
       "tavrix-matrix: -n takes a number of columns from 0 to 2147483647, not \"2147483648\"\n"},
      {{"a.out", "-o"}, "tavrix-matrix: one descriptor file at a time\n"},
      {{"-o"}, "tavrix-matrix: -o needs a value\n"},
  };
  for (const auto& [args, message] : wrong) {
    r = run_matrix(args, dir);
    EXPECT_EQ(r.status, 2) << message;
    EXPECT_EQ(r.err.rfind(message + "\nusage: tavrix-matrix", 0), 0u) << r.err;
  }
  remove_tree(dir);
}

// A malformed line is named before any output exists; an output that is the
// input itself would empty it before it is read again; an output that cannot
// take the bytes must not pass for a matrix, nor leave part of one.
TEST(tavrix_matrix, refuses_what_it_cannot_read_or_write_and_leaves_nothing) {
  const std::string dir = make_temp_dir();
  const std::string d = "\"a\",1,1,1\n";
  write_file(dir + "/d.mtx", d);
  write_file(dir + "/bad.out", "\"ok\",1,1,1\n\"ok too\",0\n\"x\",2,12\n\"never read\",0\n");
  write_file(dir + "/wide.out", "\"a\",1,1,1\n\"b\",1,9,1\n");
  ASSERT_EQ(symlink("/dev/full", (dir + "/f.mtx").c_str()), 0);
  ASSERT_EQ(symlink("/dev/full", (dir + "/g.rows").c_str()), 0);
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"bad.out"}, "bad.out:3: expected a count after descriptor 12\n"},
      {{"-n", "8", "wide.out"}, "wide.out:2: descriptor 9 is beyond the 8 columns asked for\n"},
      {{"-n", "0", "wide.out"}, "wide.out:1: descriptor 1 is beyond the 0 columns asked for\n"},
      {{"missing.out"}, "missing.out: No such file or directory\n"},
      {{"-o", "no/such/folder/x", "d.mtx"}, "no/such/folder/x.mtx: No such file or directory\n"},
      {{"-o", "./d", "d.mtx"}, "./d.mtx: is the descriptor file being read; choose another -o STEM\n"},
      {{"-o", "f", "d.mtx"}, "f.mtx: can't write: No space left on device\n"},
      {{"-o", "g", "d.mtx"}, "g.rows: can't write: No space left on device\n"},
  };
  for (const auto& [args, message] : cases) {
    const RunResult r = run_matrix(args, dir);
    EXPECT_EQ(r.status, 1) << message;
    EXPECT_EQ(r.err, message);
    EXPECT_EQ(r.out, "") << message;
  }
  EXPECT_EQ(read_file(dir + "/d.mtx"), d);
  for (const char* left : {"bad.mtx", "bad.rows", "wide.mtx", "wide.rows", "d.rows", "f.rows", "g.mtx"})
    EXPECT_FALSE(file_exists(dir + "/" + left)) << left << " was left behind";
  remove_tree(dir);
}
