// The input file as something shared and changing: runs on one input at the
// same time, a dictionary name taken by a link, inputs that are not regular
// files or that change between passes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "input/input_internal.h"
#include "input_support.h"

namespace {

using namespace testsupport;
using inputtest::data;
using inputtest::Scratch;

TEST(input_file, runs_on_one_input_at_the_same_time_each_read_back_their_own_dictionary) {
  Scratch s;
  s.put("cdk2.mol2", data("cdk2.mol2.xz"));
  // Alone, the two label settings give different dictionaries and outputs.
  const RunResult fine = run_tavrix({"-lmax", "3", "-ofile", "fine", "cdk2.mol2"}, s.dir);
  const RunResult basic = run_tavrix({"-NoAtmLabels", "-lmax", "3", "-ofile", "basic", "cdk2.mol2"}, s.dir);
  ASSERT_EQ(fine.status, 1);
  ASSERT_EQ(basic.status, 1);
  const std::string script =
      "cd '" + s.dir + "' && for i in 1 2 3 4 5 6; do "
      "'" TAVRIX_BINARY "' -lmax 3 -ofile fine$i cdk2.mol2 > fine$i.log & "
      "'" TAVRIX_BINARY "' -NoAtmLabels -lmax 3 -ofile basic$i cdk2.mol2 > basic$i.log & done; wait";
  ASSERT_EQ(std::system(script.c_str()), 0);
  auto with_stem = [](std::string out, const std::string& from, const std::string& to) {
    out.replace(out.find("outfile = " + from), from.size() + 10, "outfile = " + to);
    return out;
  };
  for (int i = 1; i <= 6; ++i) {
    const std::string n = std::to_string(i);
    EXPECT_EQ(read_file(s.dir + "/fine" + n + ".log"), with_stem(fine.out, "fine", "fine" + n)) << "run fine" << n;
    EXPECT_EQ(read_file(s.dir + "/basic" + n + ".log"), with_stem(basic.out, "basic", "basic" + n)) << "run basic" << n;
    EXPECT_TRUE(read_file(s.dir + "/fine" + n + ".out") == read_file(s.dir + "/fine.out")) << "run fine" << n;
    EXPECT_TRUE(read_file(s.dir + "/basic" + n + ".out") == read_file(s.dir + "/basic.out")) << "run basic" << n;
  }
  EXPECT_FALSE(file_exists(s.dir + "/cdk2.mol2.dict"));
}

TEST(input_file, a_link_at_the_dictionary_name_is_never_followed) {
  Scratch s;
  s.put("x.sdf", data("symmetric_h.sdf"));
  s.put("victim.txt", "keep me\n");
  ASSERT_EQ(symlink("victim.txt", (s.dir + "/x.sdf.dict").c_str()), 0);
  const RunResult r = run_tavrix({"x.sdf"}, s.dir);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("can't open a file 'x.sdf.dict'\n"), std::string::npos) << r.out;
  EXPECT_EQ(read_file(s.dir + "/victim.txt"), "keep me\n");
}

TEST(input_file, anything_but_a_regular_file_is_refused_at_once) {
  Scratch s;
  ASSERT_EQ(mkfifo((s.dir + "/fifo.sdf").c_str(), 0600), 0);
  // A reader that waited for a writer would hang here; timeout turns that into status 124.
  const RunResult r = run_program("/usr/bin/timeout", {"20", TAVRIX_BINARY, "fifo.sdf"}, s.dir);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("input file 'fifo.sdf' is not a regular file"), std::string::npos) << r.out;
}

TEST(input_file, a_file_that_changes_between_passes_is_refused_as_changed) {
  Scratch s;
  const std::string path = s.put("x.sdf", data("symmetric_h.sdf"));
  for (const std::string& change : {std::string("appended"), std::string("rewritten")}) {
    InputFile input;
    input.name = path;
    FilePtr first = open_pass(input);
    EXPECT_FALSE(input_has_changed(input));
    if (change == "appended") {
      s.put("x.sdf", data("symmetric_h.sdf") + "\n");
    } else {
      // The same bytes written again at a later time.
      struct timespec times[2] = {{0, UTIME_OMIT}, {1, 0}};
      ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    EXPECT_TRUE(input_has_changed(input)) << change;
    EXPECT_EXIT_WITH_OUTPUT(open_pass(input), 1,
                            "^input file changed while it was being read: '" + path + "'\n$")
        << change;
  }
}

}  // namespace
