// Output files that cannot be created or written: the structure file is
// opened before the input is read, so a bad stem ends the run before any
// input is touched; a write that fails later ends it as well, never in silence.
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

// A run in a scratch folder holding the example file; script is run by sh
// there, with TAVRIX standing for the program.
RunResult run_example_in_shell(const std::string& dir, const std::string& script) {
  write_file(dir + "/example.sdf", read_file(TAVRIX_TEST_DATA "/example/example.sdf"));
  return run_program("/bin/sh", {"-c", "TAVRIX='" TAVRIX_BINARY "'; " + script}, dir);
}

// A full disk, a link to /dev/full or a file size limit must not pass for a
// complete run: the message names the file and the reason, after the lines
// printed so far.
TEST(output_files, a_lost_write_ends_the_run_with_the_file_and_the_reason) {
  const std::string last_length = "total upto this threshold = 70,value of k = 70\n";
  const struct {
    const char* script;
    std::string output_end;
  } cases[] = {
      {"ln -s /dev/full x_frag.sdf; $TAVRIX -lmax 3 -ofile x example.sdf",
       last_length + "can't write a file 'x_frag.sdf': No space left on device\n"},
      {"ln -s /dev/full x.out; $TAVRIX -lmax 3 -ofile x example.sdf",
       "Descriptors generated : writing id and frequency files\ncan't write a file 'x.out': No space left on device\n"},
      {"trap '' XFSZ; ulimit -f 4; $TAVRIX -lmax 3 -ofile x example.sdf",
       last_length + "can't write a file 'x_frag.sdf': File too large\n"},
  };
  for (const auto& c : cases) {
    const std::string dir = make_temp_dir();
    const RunResult r = run_example_in_shell(dir, c.script);
    EXPECT_EQ(r.status, 1) << c.script;
    EXPECT_TRUE(r.out.ends_with(c.output_end)) << c.script << "\nstandard output:\n" << r.out;
    remove_tree(dir);
  }
}

// With standard output closed, the structure file would be opened as
// descriptor 1 and receive the progress lines once they fill their buffer,
// hence the many lengths.
TEST(output_files, a_closed_standard_output_leaves_the_structure_file_clean) {
  const std::string dir = make_temp_dir();
  write_file(dir + "/one_bond.sdf", read_file(TAVRIX_TEST_DATA "/output/one_bond.sdf"));
  const RunResult r = run_program("/bin/sh",
                                  {"-c", "TAVRIX='" TAVRIX_BINARY "'; $TAVRIX -lmax 300 -ofile open one_bond.sdf; "
                                         "$TAVRIX -lmax 300 -ofile closed one_bond.sdf >&-"},
                                  dir);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(read_file(dir + "/closed_frag.sdf"), read_file(dir + "/open_frag.sdf"));
  remove_tree(dir);
}

}  // namespace
