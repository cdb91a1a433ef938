// Output files that cannot be created: the structure file is opened before
// the input is read, so a bad stem ends the run before any input is touched.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/process.h"

namespace {

using namespace testsupport;

TEST(output_files, a_stem_that_cannot_be_written_ends_the_run_before_the_input_is_read) {
  const std::string work = make_temp_dir();
  write_file(work + "/one_bond.sdf", read_file(std::string(TAVRIX_TEST_DATA) + "/output/one_bond.sdf"));
  // A folder that is missing, and a plain file used as a folder, which even
  // root cannot write below (permission bits on a folder would not stop it).
  for (const std::string& stem : {work + "/missing/x", work + "/one_bond.sdf/x"}) {
    RunResult r = run_tavrix({"-ofile", stem, "one_bond.sdf"}, work);
    EXPECT_EQ(r.out, "mint = 1,maxt = 7,freqt = 1,option = QZ,opt = 1,outfile = " + stem +
                         ",filestub = one_bond.sdf\ncan't open a file '" + stem + "_frag.sdf'\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "");
    EXPECT_FALSE(file_exists(work + "/one_bond.sdf.dict")) << "the input was read";
  }
  // A writable stem in another folder gets both files.
  const std::string stem = work + "/sub/y";
  ASSERT_EQ(mkdir((work + "/sub").c_str(), 0755), 0);
  RunResult r = run_tavrix({"-ofile", stem, "one_bond.sdf"}, work);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(read_file(stem + ".out"), "\"one bond\",1,1,1\n");
  EXPECT_TRUE(file_exists(stem + "_frag.sdf"));
  EXPECT_FALSE(file_exists(work + "/one_bond.sdf.dict"));
  remove_tree(work);
}

}  // namespace
