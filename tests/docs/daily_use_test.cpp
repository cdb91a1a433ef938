// The Python examples of README.md, run as written on a real run of
// the bundled example, so the page stays true. scripts/test.sh installs
// python3-scipy, so a missing /usr/bin/python3 or SciPy fails the test
// rather than letting the page go unchecked; only the drawing, which needs
// RDKit, is left out where python3-rdkit is missing.
#include <gtest/gtest.h>

#include "support/process.h"

using namespace testsupport;

namespace {

// The ```python blocks of a Markdown text, in order.
std::vector<std::string> python_blocks(const std::string& markdown) {
  std::vector<std::string> blocks;
  const std::string open = "```python\n", close = "```\n";
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
  ASSERT_EQ(blocks.size(), 2u);

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
  write_file(dir + "/draw.py", blocks[1]);
  const auto draw = run_program("/usr/bin/python3", {"draw.py"}, dir);
  ASSERT_EQ(draw.status, 0) << draw.err;
  EXPECT_EQ(read_file(dir + "/descriptor12.png").substr(1, 3), "PNG");
  remove_tree(dir);
}
