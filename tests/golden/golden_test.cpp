// Whole runs on public compound files, compared byte for byte with reviewed
// outputs: standard output, exit status, descriptor file and structure file.
#include <gtest/gtest.h>

#include <dirent.h>

#include <sstream>

#include "support/process.h"

namespace {

using namespace testsupport;

const std::string golden_dir = std::string(TAVRIX_TEST_DATA) + "/golden";

std::vector<std::string> split_words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

std::vector<std::string> list_dir(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Each run is made with several thread counts and with every compound's
// entries forced through the temporary file: the output may not change.
const std::vector<std::vector<std::string>> environments = {
    {"TAVRIX_THREADS=1"},
    {"TAVRIX_THREADS=2"},
    {"TAVRIX_THREADS=3", "TAVRIX_SPILL_MB=0"},
    {"TAVRIX_THREADS=8"},
};

class golden_run : public ::testing::TestWithParam<std::tuple<std::string, int>> {};

TEST_P(golden_run, matches_reviewed_output_byte_for_byte) {
  const std::string dir = golden_dir + "/" + std::get<0>(GetParam());
  const std::vector<std::string>& env = environments[std::get<1>(GetParam())];
  std::vector<std::string> args = split_words(read_file(dir + "/command.txt"));
  ASSERT_GE(args.size(), 2u);
  args.erase(args.begin());  // the program name
  const std::string input = args.back();
  const std::string work = make_temp_dir();
  write_file(work + "/" + input, unxz(golden_dir + "/inputs/" + input + ".xz"));

  RunResult r = run_tavrix(args, work, env);
  EXPECT_EQ(r.out, read_file(dir + "/stdout.txt"));
  EXPECT_EQ(std::to_string(r.status) + "\n", read_file(dir + "/status.txt"));
  EXPECT_EQ(r.err, "");
  for (const std::string& name : list_dir(dir)) {
    if (name.size() < 3 || name.substr(name.size() - 3) != ".xz") continue;
    const std::string produced = name.substr(0, name.size() - 3);
    ASSERT_TRUE(file_exists(work + "/" + produced)) << produced;
    EXPECT_TRUE(read_file(work + "/" + produced) == unxz(dir + "/" + name)) << produced << " differs";
  }
  EXPECT_FALSE(file_exists(work + "/" + input + ".dict")) << "the label dictionary file is left behind";
  EXPECT_EQ(list_dir(work).size(), list_dir(dir).size() - 2) << "files other than the outputs are left behind";
  if (!HasFailure()) remove_tree(work);
}

std::vector<std::string> golden_cases() {
  std::vector<std::string> cases;
  for (const std::string& name : list_dir(golden_dir))
    if (file_exists(golden_dir + "/" + name + "/command.txt")) cases.push_back(name);
  return cases;
}

INSTANTIATE_TEST_SUITE_P(public_files, golden_run,
                         ::testing::Combine(::testing::ValuesIn(golden_cases()), ::testing::Range(0, 4)),
                         [](const auto& info) {
                           return std::get<0>(info.param) + "_env" + std::to_string(std::get<1>(info.param));
                         });

// Memory reserved up front must not keep a small run from a tight
// address-space limit (a batch queue's ulimit -v).
TEST(whole_run, a_small_run_fits_a_70_mb_address_space_limit) {
#ifdef TAVRIX_SANITIZED
  GTEST_SKIP() << "the sanitizers reserve terabytes of address space";
#endif
  const std::string work = make_temp_dir();
  write_file(work + "/example.sdf", read_file(std::string(TAVRIX_TEST_DATA) + "/example/example.sdf"));
  const RunResult free_run = run_tavrix({"-lmax", "3", "-ofile", "free", "example.sdf"}, work);
  const RunResult limited = run_program(
      "/bin/sh", {"-c", "ulimit -v 70000 && exec '" TAVRIX_BINARY "' -lmax 3 -ofile limited example.sdf"}, work);
  EXPECT_EQ(limited.status, 1);
  EXPECT_EQ(limited.err, "");
  std::string expected = free_run.out;
  expected.replace(expected.find("outfile = free"), 14, "outfile = limited");
  EXPECT_EQ(limited.out, expected);
  EXPECT_EQ(read_file(work + "/limited.out"), read_file(work + "/free.out"));

  // Eight threads under tighter and looser limits: threads the system refuses
  // leave the work to the others, and a heap that runs out is reported; the
  // run never dies of a signal and never writes other numbers.
  for (int kb = 50000; kb <= 190000; kb += 20000) {
    const RunResult r = run_program("/bin/sh",
                                    {"-c", "ulimit -v " + std::to_string(kb) + " && TAVRIX_THREADS=8 exec '" TAVRIX_BINARY
                                           "' -lmax 3 -ofile limited example.sdf"},
                                    work);
    EXPECT_EQ(r.status, 1) << kb << " KB";
    if (r.err.empty()) {
      EXPECT_EQ(r.out, expected) << kb << " KB";
      EXPECT_EQ(read_file(work + "/limited.out"), read_file(work + "/free.out")) << kb << " KB";
    } else {
      EXPECT_TRUE(r.err.ends_with(": not enough memory\n")) << kb << " KB: " << r.err;
    }
  }
  remove_tree(work);
}

}  // namespace
