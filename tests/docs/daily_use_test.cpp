// The Python examples of README.md, run as written on a real run of
// the bundled example, so the page stays true. scripts/test.sh installs
// python3-scipy, so a missing /usr/bin/python3 or SciPy fails the test
// rather than letting the page go unchecked; only the drawing, which needs
// RDKit, is left out where python3-rdkit is missing.
#include <gtest/gtest.h>

#include "support/process.h"

using namespace testsupport;

namespace {

// The ```python (or other language's) blocks of a Markdown text, in order.
std::vector<std::string> python_blocks(const std::string& markdown, const std::string& language = "python") {
  std::vector<std::string> blocks;
  const std::string open = "```" + language + "\n", close = "```\n";
  for (std::size_t at = markdown.find(open); at != std::string::npos; at = markdown.find(open, at)) {
    at += open.size();
    const std::size_t end = markdown.find(close, at);
    if (end == std::string::npos) break;
    blocks.push_back(markdown.substr(at, end - at));
    at = end;
  }
  return blocks;
}

}  // namespace

TEST(daily_use, python_examples_load_the_matrix_and_draw_a_descriptor) {
  ASSERT_EQ(access("/usr/bin/python3", X_OK), 0) << "no /usr/bin/python3 (Debian: python3)";
  const std::string dir = make_temp_dir();
  const auto modules = run_program("/usr/bin/python3", {"-c", "import numpy, scipy.io"}, dir);
  ASSERT_EQ(modules.status, 0) << "needs NumPy and SciPy (Debian: python3-scipy): " << modules.err;
  const std::vector<std::string> blocks =
      python_blocks(read_file(std::string(TAVRIX_TEST_DATA) + "/../../README.md"));
  ASSERT_EQ(blocks.size(), 3u);  // the matrix, new compounds, drawing

  write_file(dir + "/compounds.sdf", read_file(std::string(TAVRIX_TEST_DATA) + "/example/example.sdf"));
  ASSERT_EQ(testsupport::run_tavrix({"-lmax", "5", "-ofile", "run1", "compounds.sdf"}, dir).status, 1);
  ASSERT_EQ(run_program(TAVRIX_MATRIX_BINARY, {"run1.out"}, dir).status, 0);

  write_file(dir + "/matrix.py", blocks[0]);
  const auto matrix = run_program("/usr/bin/python3", {"matrix.py"}, dir);
  ASSERT_EQ(matrix.status, 0) << matrix.err;
  EXPECT_EQ(matrix.out.rfind("matrix: (3, 272) names: 3\n", 0), 0u) << matrix.out;
  // Ten descriptors follow, most widespread first, ties by number: in the
  // example 2, 7, 21 and 68 are the ones found in all three compounds.
  EXPECT_EQ(std::count(matrix.out.begin(), matrix.out.end(), '\n'), 11);
  EXPECT_NE(matrix.out.find("\ndescriptor 2: in 3 compounds\ndescriptor 7: in 3 compounds\n"), std::string::npos)
      << matrix.out;

  if (run_program("/usr/bin/python3", {"-c", "import rdkit.Chem.Draw"}, dir).status != 0) {
    remove_tree(dir);
    GTEST_SKIP() << "the drawing example needs RDKit (Debian: python3-rdkit)";
  }
  write_file(dir + "/draw.py", blocks[2]);
  const auto draw = run_program("/usr/bin/python3", {"draw.py"}, dir);
  ASSERT_EQ(draw.status, 0) << draw.err;
  EXPECT_EQ(read_file(dir + "/descriptor12.png").substr(1, 3), "PNG");
  remove_tree(dir);
}

// The worked train/test example: its shell steps from the repository folder
// with the built programs first on PATH, then its Python block.
TEST(daily_use, new_compounds_get_the_columns_of_the_training_run) {
  if (access("/usr/bin/python3", X_OK) != 0) GTEST_SKIP() << "no /usr/bin/python3";
  const std::string dir = make_temp_dir();
  if (run_program("/usr/bin/python3", {"-c", "import scipy.io"}, dir).status != 0) {
    remove_tree(dir);
    GTEST_SKIP() << "needs SciPy";
  }
  const std::string readme = read_file(std::string(TAVRIX_TEST_DATA) + "/../../README.md");
  const std::vector<std::string> shell = python_blocks(readme, "sh"), python = python_blocks(readme);
  ASSERT_EQ(shell.size(), 1u);
  ASSERT_EQ(python.size(), 3u);
  const std::string programs = std::string(TAVRIX_BINARY).substr(0, std::string(TAVRIX_BINARY).rfind('/'));
  const std::string root = std::string(TAVRIX_TEST_DATA) + "/../..";
  // The example writes into the current folder: run it on a copy of the one
  // file it reads.
  ASSERT_EQ(std::system(("mkdir -p '" + dir + "/tests/data/golden/inputs' && cp '" + root +
                         "/tests/data/golden/inputs/nci200.sdf.xz' '" + dir + "/tests/data/golden/inputs/'")
                            .c_str()),
            0);
  write_file(dir + "/example.sh", shell[0]);
  const auto steps = run_program("/bin/sh", {"-c", "PATH='" + programs + "':$PATH; . ./example.sh"}, dir);
  ASSERT_EQ(steps.status, 0) << steps.out << steps.err;
  EXPECT_NE(steps.out.find("compounds read: 50\ndescriptors in the space: 1780 (fragments of 1 to 5 bonds)\n"),
            std::string::npos)
      << steps.out;

  write_file(dir + "/model.py", python[1]);
  const auto model = run_program("/usr/bin/python3", {"model.py"}, dir);
  ASSERT_EQ(model.status, 0) << model.err;
  EXPECT_EQ(model.out, "train: (150, 1780) test: (50, 1780)\n");
  remove_tree(dir);
}
