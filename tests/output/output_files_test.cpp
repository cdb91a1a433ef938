// Output files that cannot be created: the structure file is opened before
// the input is read, so a bad stem ends the run before any input is touched.
#include <gtest/gtest.h>

#include "support/process.h"

namespace {

using namespace testsupport;

class output_files : public ::testing::Test {
 protected:
  void SetUp() override {
    work = make_temp_dir();
    write_file(work + "/one_bond.sdf", read_file(std::string(TAVRIX_TEST_DATA) + "/output/one_bond.sdf"));
  }
  void TearDown() override { remove_tree(work); }
  std::string work;
};

std::string echo_line(const std::string& stem) {
  return "mint = 1,maxt = 7,freqt = 1,option = QZ,opt = 1,outfile = " + stem + ",filestub = one_bond.sdf\n";
}

TEST_F(output_files, a_stem_in_a_missing_folder_ends_the_run_before_the_input_is_read) {
  const std::string stem = work + "/missing/x";
  RunResult r = run_tavrix({"-ofile", stem, "one_bond.sdf"}, work);
  EXPECT_EQ(r.out, echo_line(stem) + "can't open a file '" + stem + "_frag.sdf'\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "");
  EXPECT_FALSE(file_exists(work + "/one_bond.sdf.dict")) << "the input was read";
}

// A file used as a folder cannot be written, even by root, whom permission
// bits on a folder would not stop.
TEST_F(output_files, a_stem_below_a_plain_file_ends_the_run_the_same_way) {
  const std::string stem = work + "/one_bond.sdf/x";
  RunResult r = run_tavrix({"-ofile", stem, "one_bond.sdf"}, work);
  EXPECT_EQ(r.out, echo_line(stem) + "can't open a file '" + stem + "_frag.sdf'\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_FALSE(file_exists(work + "/one_bond.sdf.dict"));
}

TEST_F(output_files, a_writable_stem_elsewhere_gets_both_files) {
  const std::string stem = work + "/sub/y";
  ASSERT_EQ(system(("mkdir '" + work + "/sub'").c_str()), 0);
  RunResult r = run_tavrix({"-ofile", stem, "one_bond.sdf"}, work);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(read_file(stem + ".out"), "\"one bond\",1,1,1\n");
  EXPECT_TRUE(file_exists(stem + "_frag.sdf"));
  EXPECT_FALSE(file_exists(work + "/one_bond.sdf.dict"));
}

}  // namespace
