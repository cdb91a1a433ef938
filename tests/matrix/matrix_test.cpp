// tavrix-matrix: the descriptor line parser, the program's command line and
// files, and the matrix of a real run read back (also by SciPy when present).
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <sstream>
#include <utility>

#include "matrix_export.h"
#include "support/process.h"

using namespace testsupport;

namespace {

std::vector<std::pair<int, int>> pairs_of(const DescriptorLine& line) {
  std::vector<std::pair<int, int>> out;
  for (const MatrixEntry& e : line.entries) out.emplace_back(e.descriptor, e.count);
  return out;
}

testsupport::RunResult run_matrix(const std::vector<std::string>& args, const std::string& cwd) {
  return run_program(TAVRIX_MATRIX_BINARY, args, cwd);
}

// The (row, column) -> count map of a Matrix Market coordinate file, with
// its stated size; fails the test on anything but the expected layout.
struct ReadMatrix {
  long long rows = -1, columns = -1, nonzeros = -1;
  std::map<std::pair<long long, long long>, long long> cells;
};

ReadMatrix read_mtx(const std::string& path) {
  std::istringstream in(read_file(path));
  std::string line;
  ReadMatrix m;
  std::getline(in, line);
  EXPECT_EQ(line, "%%MatrixMarket matrix coordinate integer general");
  while (std::getline(in, line) && !line.empty() && line[0] == '%') {}
  std::istringstream(line) >> m.rows >> m.columns >> m.nonzeros;
  long long r, c, v;
  while (in >> r >> c >> v) {
    EXPECT_TRUE(r >= 1 && r <= m.rows && c >= 1 && c <= m.columns) << r << " " << c;
    EXPECT_TRUE(m.cells.emplace(std::make_pair(r, c), v).second) << "repeated cell " << r << " " << c;
  }
  return m;
}

// An output that is the input itself would empty it before it is read
// again; an output that cannot take the bytes must not pass for a matrix.
TEST(tavrix_matrix, refuses_its_own_input_as_output_and_reports_lost_writes) {
  const std::string dir = make_temp_dir();
  const std::string content = "\"a\",1,1,1\n";
  write_file(dir + "/d.mtx", content);
  auto r = run_matrix({"-o", "./d", "d.mtx"}, dir);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "./d.mtx: is the descriptor file being read; choose another -o STEM\n");
  EXPECT_EQ(read_file(dir + "/d.mtx"), content);

  for (const char* full : {"f.mtx", "f.rows"}) {
    ASSERT_EQ(symlink("/dev/full", (dir + "/" + full).c_str()), 0);
    r = run_matrix({"-o", "f", "d.mtx"}, dir);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, std::string(full) + ": can't write: No space left on device\n");
    std::remove((dir + "/" + full).c_str());
  }
  remove_tree(dir);
}

}  // namespace

TEST(descriptor_line, reads_names_counts_and_pairs_sorted_by_descriptor) {
  struct Case {
    const char* text;
    const char* name;
    std::vector<std::pair<int, int>> pairs;
  };
  const Case cases[] = {
      {"\"c17\",0", "c17", {}},
      {"\"name\",2,4,3,1,1", "name", {{1, 1}, {4, 3}}},
      // Unescaped quotes and commas stay in the name; it ends at the last '"'.
      {"\"a \"b\",c\",1,5,2", "a \"b\",c", {{5, 2}}},
      {"\"\",1,2147483647,2147483647", "", {{2147483647, 2147483647}}},
      // A "\r" at the line end (text written with "\r\n") is not data; one
      // inside the name (an SD name line that ended in "\r\n") is part of it.
      {"\"x\r\",1,3,1\r", "x\r", {{3, 1}}},
  };
  DescriptorLine line;
  for (const Case& c : cases) {
    ASSERT_EQ(parse_descriptor_line(c.text, line), "") << c.text;
    EXPECT_EQ(line.name, c.name);
    EXPECT_EQ(pairs_of(line), c.pairs) << c.text;
  }
}

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

TEST(descriptor_line, damaged_lines_are_refused_or_read_back_the_same) {
  // Bytes of valid lines replaced, dropped or repeated at random: the parser
  // must never crash, and a line it accepts must read back identically once
  // written out again in the canonical form.
  const std::string seeds[] = {"\"c17\",0", "\"name\",2,4,3,1,1", "\"a\"b,\",3,10,1,2,20,7,5",
                               "\"123\",4,1,1,2,2,3,3,44,4"};
  const std::string alphabet = "\",0123456789-\r x";
  std::mt19937 rng(20240611);
  DescriptorLine line, again;
  for (int round = 0; round < 20000; ++round) {
    std::string text = seeds[rng() % 4];
    const int edits = 1 + static_cast<int>(rng() % 3);
    for (int e = 0; e < edits && !text.empty(); ++e) {
      const std::size_t at = rng() % text.size();
      switch (rng() % 3) {
        case 0: text[at] = alphabet[rng() % alphabet.size()]; break;
        case 1: text.erase(at, 1); break;
        default: text.insert(at, 1, text[at]); break;
      }
    }
    if (!parse_descriptor_line(text, line).empty()) continue;
    std::string canonical(1, '"');
    canonical.append(line.name).append("\",").append(std::to_string(line.entries.size()));
    for (const MatrixEntry& m : line.entries)
      canonical.append(",").append(std::to_string(m.descriptor)).append(",").append(std::to_string(m.count));
    ASSERT_EQ(parse_descriptor_line(canonical, again), "") << "round " << round << ": " << text;
    EXPECT_EQ(again.name, line.name) << "round " << round;
    EXPECT_EQ(pairs_of(again), pairs_of(line)) << "round " << round;
  }
}

TEST(tavrix_matrix, matrix_of_a_run_holds_every_pair_of_the_descriptor_file) {
  const std::string dir = make_temp_dir();
  write_file(dir + "/example.sdf", read_file(std::string(TAVRIX_TEST_DATA) + "/example/example.sdf"));
  const auto run = testsupport::run_tavrix({"-lmax", "5", "example.sdf"}, dir);
  ASSERT_EQ(run.status, 1) << run.out;
  const auto r = run_matrix({"example.out"}, dir);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");

  // Expected cells straight from the descriptor file's text.
  std::istringstream out(read_file(dir + "/example.out"));
  std::map<std::pair<long long, long long>, long long> expected;
  std::string text, names;
  long long row = 0, largest = 0;
  while (std::getline(out, text)) {
    ++row;
    const std::size_t close = text.rfind('"');
    names += text.substr(1, close - 1) + "\n";
    std::istringstream fields(text.substr(close + 2));
    std::string m, d, c;
    std::getline(fields, m, ',');
    while (std::getline(fields, d, ',') && std::getline(fields, c, ',')) {
      expected[{row, std::stoll(d)}] = std::stoll(c);
      largest = std::max(largest, std::stoll(d));
    }
  }
  const ReadMatrix m = read_mtx(dir + "/example.mtx");
  EXPECT_EQ(m.rows, 3);
  EXPECT_EQ(m.columns, largest);
  // Every fragment of the run is a descriptor (fmin 1): the columns are all of them.
  EXPECT_NE(run.out.find("total features stored after freq elimination = " + std::to_string(largest) + "\n"),
            std::string::npos);
  EXPECT_EQ(m.nonzeros, static_cast<long long>(expected.size()));
  EXPECT_EQ(m.cells, expected);
  EXPECT_EQ(read_file(dir + "/example.rows"), names);

  // SciPy reads the same matrix: its size, cell count and sum, against the
  // cells checked above. Skipped where /usr/bin/python3 lacks SciPy.
  long long sum = 0;
  for (const auto& cell : expected) sum += cell.second;
  write_file(dir + "/check.py",
             "import sys\ntry:\n    import scipy.io\nexcept ImportError:\n    sys.exit(77)\n"
             "m = scipy.io.mmread('example.mtx').tocsr()\nprint(m.shape[0], m.shape[1], m.nnz, int(m.sum()))\n");
  if (access("/usr/bin/python3", X_OK) == 0) {
    const auto py = run_program("/usr/bin/python3", {"check.py"}, dir);
    if (py.status != 77) {
      EXPECT_EQ(py.status, 0) << py.out << py.err;
      EXPECT_EQ(py.out, "3 " + std::to_string(largest) + " " + std::to_string(expected.size()) + " " +
                            std::to_string(sum) + "\n");
    }
  }
  remove_tree(dir);
}

TEST(tavrix_matrix, command_line_stem_and_column_count) {
  const std::string dir = make_temp_dir();
  write_file(dir + "/a.out", "\"first\",2,3,1,1,2\n\"second, \"quoted\"\",0\n\"third\",1,2,5\n");

  auto r = run_matrix({"-o", "b", "-n", "7", "a.out"}, dir);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_FALSE(file_exists(dir + "/a.mtx"));
  EXPECT_EQ(read_file(dir + "/b.mtx"),
            "%%MatrixMarket matrix coordinate integer general\n"
            "% rows: compounds in the order of b.rows; columns: descriptor numbers\n"
            "3 7 3\n1 1 2\n1 3 1\n3 2 5\n");
  EXPECT_EQ(read_file(dir + "/b.rows"), "first\nsecond, \"quoted\"\nthird\n");

  // Without -n the columns reach the largest descriptor; a name without
  // ".out" is the stem as it is; a last line without "\n" still counts.
  write_file(dir + "/c.txt", "\"x\",1,4,1\n\"y\",0");
  r = run_matrix({"c.txt"}, dir);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(read_file(dir + "/c.txt.mtx").find("\n2 4 1\n1 4 1\n"), std::string::npos);
  EXPECT_EQ(read_file(dir + "/c.txt.rows"), "x\ny\n");

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

TEST(tavrix_matrix, malformed_or_missing_input_names_the_line_and_writes_nothing) {
  const std::string dir = make_temp_dir();
  write_file(dir + "/bad.out", "\"ok\",1,1,1\n\"ok too\",0\n\"x\",2,12\n\"never read\",0\n");
  auto r = run_matrix({"bad.out"}, dir);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "bad.out:3: expected a count after descriptor 12\n");
  EXPECT_EQ(r.out, "");
  EXPECT_FALSE(file_exists(dir + "/bad.mtx"));
  EXPECT_FALSE(file_exists(dir + "/bad.rows"));

  write_file(dir + "/wide.out", "\"a\",1,1,1\n\"b\",1,9,1\n");
  r = run_matrix({"-n", "8", "wide.out"}, dir);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "wide.out:2: descriptor 9 is beyond the 8 columns asked for\n");
  EXPECT_FALSE(file_exists(dir + "/wide.mtx"));

  r = run_matrix({"missing.out"}, dir);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "missing.out: No such file or directory\n");

  r = run_matrix({"-o", "no/such/folder/x", "wide.out"}, dir);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "no/such/folder/x.mtx: No such file or directory\n");
  remove_tree(dir);
}
