// Runs on several threads, and with every compound's entries forced through
// the temporary file, against the same run on one thread, where the golden
// runs do not reach: output in many chunks, lost writes, refused input,
// and the thread count's own refusals; and the growth steps threads share.
// Random sets on several threads are compared with the plain path in
// count_test.cpp.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <random>
#include <sstream>
#include <thread>

#include "enumerate/step_tables.h"
#include "support/process.h"

namespace {

using namespace testsupport;

std::vector<std::string> sd_records(const std::string& text) {
  std::vector<std::string> records;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find("$$$$\n", start)) != std::string::npos; start = end + 5)
    records.push_back(text.substr(start, end + 5 - start));
  return records;
}

struct Outcome {
  RunResult result;
  std::string descriptors, structures;
};

Outcome run_with(const std::vector<std::string>& args, const std::string& dir, const std::vector<std::string>& env) {
  Outcome o{run_tavrix(args, dir, env), "", ""};
  o.descriptors = read_file(dir + "/run.out");
  o.structures = read_file(dir + "/run_frag.sdf");
  std::remove((dir + "/run.out").c_str());
  std::remove((dir + "/run_frag.sdf").c_str());
  return o;
}

void expect_same(const Outcome& a, const Outcome& b, const std::string& what) {
  EXPECT_EQ(a.result.status, b.result.status) << what;
  EXPECT_EQ(a.result.out, b.result.out) << what;
  EXPECT_EQ(a.result.err, b.result.err) << what;
  EXPECT_TRUE(a.descriptors == b.descriptors) << what << ": descriptor files differ";
  EXPECT_TRUE(a.structures == b.structures) << what << ": structure files differ";
}

const std::vector<std::vector<std::string>> several = {
    {"TAVRIX_THREADS=2"}, {"TAVRIX_THREADS=3", "TAVRIX_SPILL_MB=0"}, {"TAVRIX_THREADS=8"}};

// Records and descriptor lines are formatted on the threads a chunk at a
// time: 5000 compounds and 20479 descriptors of one length make dozens of
// chunks of each, which must join in order.
TEST(threads, output_formatted_in_chunks_joins_in_order) {
  const std::string dir = make_temp_dir();
  write_file(dir + "/nci5k.sdf", unxz(std::string(TAVRIX_TEST_DATA) + "/../../bench/data/nci5k.sdf.xz"));
  const std::vector<std::string> args = {"-lmin", "6", "-lmax", "6", "-ofile", "run", "nci5k.sdf"};
  const Outcome one = run_with(args, dir, {"TAVRIX_THREADS=1"});
  ASSERT_NE(one.result.out.find("value of k = 20479\n"), std::string::npos) << one.result.out;
  // Every chunk, not only the first: a line per compound, a record per
  // descriptor.
  EXPECT_EQ(std::count(one.descriptors.begin(), one.descriptors.end(), '\n'), 4993);
  EXPECT_EQ(sd_records(one.structures).size(), 20479u);
  for (const auto& env : several) expect_same(one, run_with(args, dir, env), env[0]);
  remove_tree(dir);
}

// A write that fails while other threads format is reported as one thread
// reports it: after the lines of the lengths written, with the reason.
TEST(threads, a_write_lost_while_threads_format_is_reported_as_on_one_thread) {
  const std::string dir = make_temp_dir();
  write_file(dir + "/nci5k.sdf", unxz(std::string(TAVRIX_TEST_DATA) + "/../../bench/data/nci5k.sdf.xz"));
  for (const char* file : {"/run_frag.sdf", "/run.out"}) {
    ASSERT_EQ(symlink("/dev/full", (dir + file).c_str()), 0);
    const std::vector<std::string> args = {"-lmax", "4", "-ofile", "run", "nci5k.sdf"};
    const RunResult one = run_tavrix(args, dir, {"TAVRIX_THREADS=1"});
    EXPECT_EQ(one.status, 1);
    EXPECT_TRUE(one.out.ends_with(std::string("'") + (file + 1) + "': No space left on device\n")) << one.out;
    const RunResult three = run_tavrix(args, dir, {"TAVRIX_THREADS=3"});
    EXPECT_EQ(three.status, 1);
    EXPECT_EQ(three.out, one.out);
    std::remove((dir + file).c_str());
  }
  remove_tree(dir);
}

// Step tables that one thread fills while others look steps up: a step
// found is the step added, whatever thread added it and however its form's
// table grew meanwhile; once every thread is done, every step is found.
TEST(threads, step_tables_shared_by_threads_give_every_step_as_added) {
  StepTables tables(std::size_t{64} << 20);
  constexpr int THREADS = 4, FORMS = 300, STEPS = 40;
  // Step s of form f leads to form f * STEPS + s, its moves made from both.
  auto moves_of = [](int f, int s, std::uint8_t* moves) {
    for (int k = 0; k < MAX_GROWN_VERTICES; ++k) moves[k] = static_cast<std::uint8_t>(f + s + k);
  };
  auto atoms_of = [](int s) { return 2 + s % (MAX_GROWN_VERTICES - 1); };
  auto check = [&](int f, int s, const StepBucket* b) {
    if (b == nullptr) return true;
    std::uint8_t moves[MAX_GROWN_VERTICES];
    moves_of(f, s, moves);
    return b->form == f * STEPS + s && std::equal(moves, moves + atoms_of(s), b->moves_of(atoms_of(s)));
  };
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < THREADS; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 rng(t);
      for (int k = 0; k < FORMS * STEPS; ++k) {
        const int f = static_cast<int>(rng() % FORMS), s = static_cast<int>(rng() % STEPS);
        const std::uint32_t key = step_key(s % 7, s / 7, f % 5);
        if (!check(f, s, tables.find(f, key))) ++wrong;
        std::uint8_t moves[MAX_GROWN_VERTICES];
        moves_of(f, s, moves);
        tables.add(f, key, f * STEPS + s, moves, atoms_of(s));
      }
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
  int missing = 0;
  std::mt19937 rng(0);
  for (int k = 0; k < FORMS * STEPS; ++k) {
    const int f = static_cast<int>(rng() % FORMS), s = static_cast<int>(rng() % STEPS);
    const StepBucket* b = tables.find(f, step_key(s % 7, s / 7, f % 5));
    if (b == nullptr) ++missing;
    else if (!check(f, s, b)) ++wrong;
  }
  EXPECT_EQ(missing, 0);
  EXPECT_EQ(wrong.load(), 0);
}

TEST(threads, the_first_refused_compound_in_input_order_is_reported) {
  const std::string dir = make_temp_dir();
  std::vector<std::string> records = sd_records(unxz(std::string(TAVRIX_TEST_DATA) + "/input/nci200.sdf.xz"));
  // An invalid bond type in record 120 and an atom line too short in record
  // 180: counting has started on later compounds when the first is read.
  auto edit = [](std::string& record, bool bond) {
    std::vector<std::string> lines;
    std::istringstream in(record);
    for (std::string line; std::getline(in, line);) lines.push_back(line + "\n");
    const int atoms = std::stoi(lines[3].substr(0, 3));
    std::string& line = lines[4 + atoms - (bond ? 0 : 1)];
    line = bond ? line.substr(0, 8) + "9" + line.substr(9) : line.substr(0, 20) + "\n";
    record.clear();
    for (const std::string& l : lines) record += l;
  };
  edit(records[119], true);
  edit(records[179], false);
  std::string text;
  for (const std::string& r : records) text += r;
  write_file(dir + "/bad.sdf", text);
  const std::vector<std::string> args = {"-lmax", "5", "-ofile", "run", "bad.sdf"};
  const Outcome one = run_with(args, dir, {"TAVRIX_THREADS=1"});
  EXPECT_EQ(one.result.status, 1);
  EXPECT_NE(one.result.out.find("read sdf file : edge label not valid 9\n"), std::string::npos) << one.result.out;
  for (const auto& env : several) expect_same(one, run_with(args, dir, env), env[0]);
  remove_tree(dir);
}

// A run with threads to spare cuts the old files it writes over while it
// reads: it must leave them as one thread leaves them, whether it completes,
// fails at once, or reads the very file it writes.
TEST(threads, old_files_written_over_are_left_as_one_thread_leaves_them) {
  const std::string dir = make_temp_dir();
  const std::string nci = unxz(std::string(TAVRIX_TEST_DATA) + "/input/nci200.sdf.xz");
  const std::string old(3 << 20, 'x');
  const std::string refused = read_file(std::string(TAVRIX_TEST_DATA) + "/input/invalid_bond_type.sdf");
  const std::vector<std::string> files = {"/run_frag.sdf", "/run.out", "/run.sdf.dict", "/run_frag.sdf.dict"};
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"run.sdf", nci}, {"run.sdf", refused}, {"run_frag.sdf", nci}};
  for (const auto& [input, text] : cases) {
    std::vector<std::string> left[2];
    for (int side = 0; side < 2; ++side) {
      write_file(dir + "/run_frag.sdf", old);
      write_file(dir + "/run.out", old);
      write_file(dir + "/" + input, text);
      const RunResult r = run_tavrix({"-lmax", "4", "-ofile", "run", input}, dir, {side == 0 ? "TAVRIX_THREADS=1" : "TAVRIX_THREADS=3"});
      left[side] = {std::to_string(r.status), r.out, r.err};
      for (const std::string& file : files) left[side].push_back(file_exists(dir + file) ? read_file(dir + file) : "none");
      for (const std::string& file : files) std::remove((dir + file).c_str());
    }
    EXPECT_TRUE(left[0] == left[1]) << input << ": " << left[0][1] << "\nagainst\n" << left[1][1];
  }
  remove_tree(dir);
}

TEST(threads, a_thread_count_that_is_no_positive_number_is_refused_before_any_file) {
  const std::string dir = make_temp_dir();
  write_file(dir + "/x.sdf", read_file(std::string(TAVRIX_TEST_DATA) + "/example/example.sdf"));
  for (const std::string value : {"0", "-2", "two", "", "3x", "99999999999"}) {
    const RunResult r = run_tavrix({"x.sdf"}, dir, {"TAVRIX_THREADS=" + value});
    EXPECT_EQ(r.status, 1) << value;
    EXPECT_NE(r.out.find("TAVRIX_THREADS must be a whole number of threads from 1 to 1024, not '" + value + "'\n"),
              std::string::npos)
        << r.out;
    EXPECT_FALSE(file_exists(dir + "/x_frag.sdf")) << value;
    EXPECT_FALSE(file_exists(dir + "/x.sdf.dict")) << value;
  }
  const RunResult r = run_tavrix({"x.sdf"}, dir, {"TAVRIX_SPILL_MB=lots"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("TAVRIX_SPILL_MB must be"), std::string::npos) << r.out;
  remove_tree(dir);
}

}  // namespace
