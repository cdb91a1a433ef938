// The command line as a user types it: messages, usage text, exit statuses
// and the settings echo, checked on the built binary.
#include <gtest/gtest.h>

#include "settings/settings.h"
#include "support/process.h"

namespace {

using namespace testsupport;

// The usage text as documented for users, kept as a file beside the tests.
std::string usage_text() { return read_file(std::string(TAVRIX_TEST_DATA) + "/settings/usage.txt"); }

class command_line : public ::testing::Test {
 protected:
  void SetUp() override { work = make_temp_dir(); }
  void TearDown() override { remove_tree(work); }
  RunResult run(std::vector<std::string> args) { return run_tavrix(args, work); }
  std::string work;
};

const char* const invalid_options = "Error : Invalid options.\n";
const char* const no_extension =
    "Input filename does not have either .sdf or .mol2 as extention\n"
    "Input file must be either SD file or Mol2. Refer to README.txt\n";

// Every refusal of the command line: what it prints and its status. Words
// the parser does not know (option words match only exactly) print the usage
// and end with status 0; an input name whose format cannot be told ends with
// status 1.
TEST_F(command_line, refusals_print_their_message_and_status) {
  const std::string usage = usage_text();
  const std::string invalid = "\nError: Invalid value for ";
  struct Case {
    std::vector<std::string> args;
    std::string out;
    int status;
  };
  const Case cases[] = {
      {{}, usage, 0},
      {{"-help"}, no_extension, 1},  // alone, it is the input name
      {{"-lmax", "3", "compounds"}, no_extension, 1},
      {{"-help", "x.sdf"}, usage, 0},
      {{"lmax", "x.sdf"}, usage, 0},
      {{"-LMAX", "x.sdf"}, usage, 0},
      {{"-", "x.sdf"}, usage, 0},
      {{"-NoAtmLabels=1", "x.sdf"}, usage, 0},
      {{"-ds", "qz", "x.sdf"}, invalid + "ds\n" + usage, 0},
      {{"-lmin", "-1", "x.sdf"}, invalid + "lmin\n" + usage, 0},
      {{"-lmax", "+2", "x.sdf"}, invalid + "lmax\n" + usage, 0},
      {{"-fmin", "a", "x.sdf"}, invalid + "fmin\n" + usage, 0},
      {{"-lmin", "x.sdf"}, invalid + "lmin\n" + usage, 0},  // the input taken as the value
      {{"-lmin", "3", "-ofile", "x.sdf"}, invalid_options + usage, 0},
  };
  for (const Case& c : cases) {
    RunResult r = run(c.args);
    EXPECT_EQ(r.out, c.out) << testing::PrintToString(c.args);
    EXPECT_EQ(r.status, c.status) << testing::PrintToString(c.args);
  }
}

// Settings are echoed before the input is opened; a missing input then ends
// the run, which is enough to read the echo.
std::string echo_line(const RunResult& r) { return r.out.substr(0, r.out.find('\n') + 1); }

// PF, -ofile and the stems are echoed in the golden runs and parse_arguments' test.
TEST_F(command_line, echo_shows_the_settings_in_order) {
  EXPECT_EQ(echo_line(run({"-lmin", "2", "-lmax", "5", "x.sdf"})),
            "mint = 2,maxt = 5,freqt = 1,option = QZ,opt = 1,outfile = x,filestub = x.sdf\n");
  EXPECT_EQ(echo_line(run({"-ds", "TF", "-fmin", "12abc", "x.mol2"})),
            "mint = 1,maxt = 7,freqt = 12,option = TF,opt = 2,outfile = x,filestub = x.mol2\n");
  EXPECT_EQ(echo_line(run({"-ds", "PF", "-ds", "QZ", "-lmin", "0", "-fmin", "0", "x.sdf"})),
            "mint = 0,maxt = 7,freqt = 0,option = QZ,opt = 1,outfile = x,filestub = x.sdf\n");
}

TEST(parse_arguments, format_follows_the_letter_after_the_first_dot) {
  struct Case { const char* name; bool mol2; const char* stem; };
  const Case cases[] = {{"data.MOL2", false, "data"}, {"data.mol", true, "data"},   {"data.m", true, "data"},
                        {"data.txt", false, "data"},  {"set.b.mol2", false, "set"}, {"./x.mol2", false, ""},
                        {"x.sdf", false, "x"},        {"dir.v2/x.sdf", false, "dir"}};
  for (const Case& c : cases) {
    std::vector<std::string> words = {"Tavrix", "-NoAtmLabels", "-NoAtmLabels", c.name};
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    testing::internal::CaptureStdout();
    RunSettings s = parse_arguments(static_cast<int>(argv.size()), argv.data());
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(s.mol2input, c.mol2) << c.name;
    EXPECT_EQ(s.outfstem, c.stem) << c.name;
    EXPECT_TRUE(s.NoAtmLabels);
    EXPECT_FALSE(s.NoBndLabels);
  }
}

}  // namespace
