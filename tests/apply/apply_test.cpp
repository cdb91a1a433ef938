// tavrix-apply and the descriptor space it reads: a run's structure file,
// its records' atoms in any order, applied to compounds gives exactly the
// lines that run wrote for them; read in many small parts on several threads
// it gives the very space, or the very refusal, of reading it in one piece;
// what the program cannot use is refused with one message, exit status 1 and
// no file left behind.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <sstream>
#include <utility>

#include "space/space.h"
#include "support/process.h"

namespace {

using namespace testsupport;

const std::string golden_dir = std::string(TAVRIX_TEST_DATA) + "/golden";

// The files of a folder with their contents.
std::map<std::string, std::string> files_in(const std::string& dir) {
  std::map<std::string, std::string> files;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (std::string(e->d_name) != "." && std::string(e->d_name) != "..")
        files[e->d_name] = read_file(dir + "/" + e->d_name);
    closedir(d);
  }
  return files;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The golden runs by name, each with the words of its command.txt and the
// stem of the files it wrote.
struct GoldenRun {
  std::string name, stem;
  std::vector<std::string> words;
};

std::vector<GoldenRun> golden_runs() {
  std::vector<GoldenRun> runs;
  for (const auto& [name, unused] : files_in(golden_dir)) {
    GoldenRun run{name, "", {}};
    std::istringstream in(read_file(golden_dir + "/" + name + "/command.txt"));
    for (std::string w; in >> w;) run.words.push_back(w);
    if (run.words.empty()) continue;  // the inputs folder
    const auto ofile = std::find(run.words.begin(), run.words.end() - 1, "-ofile");
    run.stem = ofile != run.words.end() - 1 ? ofile[1] : run.words.back().substr(0, run.words.back().find('.'));
    runs.push_back(run);
  }
  return runs;
}

std::string golden_file(const GoldenRun& run, const std::string& suffix) {
  return unxz(golden_dir + "/" + run.name + "/" + run.stem + suffix + ".xz");
}

bool mol2_text(const std::string& text) { return text.rfind("@<TRIPOS>MOLECULE", 0) == 0; }

// The records of a file, each with its lines: SD records end with "$$$$",
// Mol2 records begin with "@<TRIPOS>MOLECULE".
using Record = std::vector<std::string>;

std::vector<Record> records_of(const std::string& text, bool mol2) {
  std::vector<Record> records;
  Record r;
  for (const std::string& line : lines_of(text)) {
    if (mol2 && line.rfind("@<TRIPOS>MOLECULE", 0) == 0 && !r.empty()) records.push_back(std::exchange(r, {}));
    r.push_back(line);
    if (!mol2 && line == "$$$$") records.push_back(std::exchange(r, {}));
  }
  if (!r.empty()) records.push_back(r);
  return records;
}

std::string text_of(const std::vector<Record>& records, const std::string& line_end = "\n") {
  std::string text;
  for (const Record& r : records)
    for (const std::string& line : r) text += line + line_end;
  return text;
}

// The same fragment with its atoms in a random order. Where five or more
// atoms share a label (the fourth field of an SD atom line, the sixth of a
// Mol2 one), labelling's arrangement may depend on how the atoms are
// numbered: such a record stays as it is.
void shuffle_atoms(Record& r, bool mol2, std::mt19937& rng) {
  const auto line_after = [&](const char* marker) {
    return static_cast<int>(std::find(r.begin(), r.end(), marker) - r.begin()) + 1;
  };
  int atoms = 0, bonds = 0;
  if (mol2) std::istringstream(r[2]) >> atoms >> bonds;
  else atoms = std::stoi(r[3].substr(0, 3)), bonds = std::stoi(r[3].substr(3, 3));
  const int first_atom = mol2 ? line_after("@<TRIPOS>ATOM") : 4;
  const int first_bond = mol2 ? line_after("@<TRIPOS>BOND") : first_atom + atoms;
  std::map<std::string, int> labels;
  for (int k = 0; k < atoms; ++k) {
    std::istringstream in(r[first_atom + k]);
    std::string label;
    for (int field = 0; field < (mol2 ? 6 : 4); ++field) in >> label;
    if (++labels[label] == 5) return;
  }
  std::vector<int> order(atoms);  // atom k becomes atom order[k]
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), rng);
  std::vector<std::string> atom_lines(atoms);
  for (int k = 0; k < atoms; ++k) atom_lines[order[k]] = r[first_atom + k];
  std::copy(atom_lines.begin(), atom_lines.end(), r.begin() + first_atom);
  const auto moved = [&](const std::string& atom) { return order[std::stoi(atom) - 1] + 1; };
  for (int k = 0; k < bonds; ++k) {
    std::string& line = r[first_bond + k];
    if (mol2) {
      std::istringstream in(line);
      std::string id, a, b, type;
      in >> id >> a >> b >> type;
      line = id + " " + std::to_string(moved(a)) + " " + std::to_string(moved(b)) + " " + type;
    } else {
      char ends[24];
      std::snprintf(ends, sizeof ends, "%3d%3d", moved(line.substr(0, 3)), moved(line.substr(3, 3)));
      line.replace(0, 6, ends);
    }
  }
}

// Every reviewed run's structure file applied to its input gives its
// descriptor file and the same summary, on one thread or several, with the
// records as the run wrote them or with their atoms renumbered.
TEST(apply, reproduces_the_descriptor_file_of_every_reviewed_run) {
  std::mt19937 rng(20261125);
  int cases = 0;
  for (const GoldenRun& run : golden_runs()) {
    ++cases;
    const std::string input = run.words.back(), space = golden_file(run, "_frag.sdf");
    const std::string expected = golden_file(run, ".out");
    std::vector<std::string> apply_args;
    for (const std::string& w : run.words)
      if (w == "-NoAtmLabels" || w == "-NoBndLabels") apply_args.push_back(w);
    apply_args.insert(apply_args.end(), {"-ofile", "applied", "space_frag.sdf", input});
    std::vector<Record> records = records_of(space, mol2_text(space));
    for (Record& r : records) shuffle_atoms(r, mol2_text(space), rng);
    const std::string renumbered = text_of(records);
    ASSERT_NE(renumbered, space) << run.name;

    const std::string work = make_temp_dir();
    write_file(work + "/" + input, unxz(golden_dir + "/inputs/" + input + ".xz"));
    std::string summary;
    for (const std::string threads : {"1", "3"}) {
      for (const std::string& text : {space, renumbered}) {
        const std::string what = run.name + (text == space ? "" : " with atoms renumbered") +
                                 ", TAVRIX_THREADS=" + threads;
        write_file(work + "/space_frag.sdf", text);
        const RunResult r = run_program(TAVRIX_APPLY_BINARY, apply_args, work, {"TAVRIX_THREADS=" + threads});
        EXPECT_EQ(r.status, 0) << what << ": " << r.err;
        EXPECT_EQ(r.err, "") << what;
        EXPECT_TRUE(read_file(work + "/applied.out") == expected)
            << what << ": applied.out differs from the run's " << run.stem << ".out";
        if (summary.empty()) summary = r.out;
        EXPECT_EQ(r.out, summary) << what << ": the summary differs from the first one's";
        EXPECT_EQ(files_in(work).size(), 3u) << what << ": a file was left behind";
      }
    }
    remove_tree(work);
  }
  EXPECT_GE(cases, 9);
}

// A descriptor line without its name: the name's closing quote and what follows.
std::string without_name(const std::string& line) { return line.substr(line.rfind('"')); }

// A compound set A followed by B: Tavrix on A+B, then its structure file
// applied to B alone gives B's lines of that run, and applied to A+B the whole
// descriptor file. Records are drawn at random, repeats allowed, with random
// fragment types, lengths, thresholds and label switches.
TEST(apply, carries_a_run_over_to_part_of_its_compounds_exactly) {
  const std::uint32_t seed = 20261123;
  std::mt19937 rng(seed);
  const std::string work = make_temp_dir();
  for (int round = 0; round < 16; ++round) {
    const std::string file =
        std::vector<std::string>{"nci200.sdf", "cdk2.sdf", "cdk2.mol2", "symmetric_h.sdf"}[rng() % 4];
    const std::string ext = file.substr(file.find('.'));
    const std::vector<Record> pool = records_of(unxz(golden_dir + "/inputs/" + file + ".xz"), ext == ".mol2");
    std::vector<Record> a(1 + rng() % 10), b(1 + rng() % 10);
    for (Record& r : a) r = pool[rng() % pool.size()];
    for (Record& r : b) r = pool[rng() % pool.size()];
    write_file(work + "/ab" + ext, text_of(a) + text_of(b));
    write_file(work + "/b" + ext, text_of(b));

    const int lmin = 1 + static_cast<int>(rng() % 3), lmax = lmin + static_cast<int>(rng() % 4);
    std::vector<std::string> switches;
    if (rng() % 2) switches.push_back("-NoBndLabels");
    if (rng() % 2) switches.push_back("-NoAtmLabels");
    std::vector<std::string> args = {"-ds", std::vector<std::string>{"QZ", "TF", "PF"}[rng() % 3], "-lmin",
                                     std::to_string(lmin), "-lmax", std::to_string(lmax), "-fmin",
                                     std::to_string(1 + rng() % 3)};
    args.insert(args.end(), switches.begin(), switches.end());
    args.push_back("ab" + ext);
    std::string run = "seed " + std::to_string(seed) + ", round " + std::to_string(round) + ": Tavrix";
    for (const std::string& w : args) run += " " + w;
    SCOPED_TRACE(run + " (" + std::to_string(a.size()) + " + " + std::to_string(b.size()) + " records of " + file +
                 ")");
    ASSERT_EQ(run_tavrix(args, work).status, 1);
    const std::vector<std::string> whole = lines_of(read_file(work + "/ab.out"));
    ASSERT_EQ(whole.size(), a.size() + b.size());

    switches.insert(switches.end(), {"-ofile", "applied", "ab_frag.sdf", "b" + ext});
    ASSERT_EQ(run_program(TAVRIX_APPLY_BINARY, switches, work).status, 0);
    const std::vector<std::string> lines_b = lines_of(read_file(work + "/applied.out"));
    ASSERT_EQ(lines_b.size(), b.size());
    for (std::size_t i = 0; i < b.size(); ++i)  // a record without a name is named by its position, which differs
      EXPECT_EQ(without_name(lines_b[i]), without_name(whole[a.size() + i])) << "compound " << i + 1 << " of B";
    switches.back() = "ab" + ext;
    ASSERT_EQ(run_program(TAVRIX_APPLY_BINARY, switches, work).status, 0);
    EXPECT_TRUE(read_file(work + "/applied.out") == read_file(work + "/ab.out")) << "applied to A+B";
    if (HasFailure()) break;
  }
  if (!HasFailure()) remove_tree(work);
}

std::string sd_atom(const char* symbol) {
  return std::string("    0.0000    0.0000    0.0000 ") + symbol + "   0  0  0  0  0  0  0\n";
}

// Descriptor C-C as a run writes it, and records of the same shape with
// other counts and bonds.
std::string sd_record(const std::string& counts, int atoms, const std::string& bonds) {
  std::string r = "1\n  QZ                2D\n\n" + counts + "  0  0  0  0  0  0  0  0  0\n";
  for (int i = 0; i < atoms; ++i) r += sd_atom("C");
  return r + bonds + "M  END\n$$$$\n";
}
const std::string CC = sd_record("  2  1", 2, "  1  2  1  0  0  0  0\n");

const std::string INPUT = "methane\n  test\n\n  2  1  0  0  0  0  0  0  0  0999 V2000\n" + sd_atom("C") +
                          sd_atom("C") + "  1  2  1  0  0  0  0\nM  END\n$$$$\n";

TEST(apply, refuses_what_it_cannot_use_with_one_message_and_no_file) {
  struct Case {
    const char* what;
    std::string space;  // the structure file space_frag.sdf; none when "-"
    std::string input;  // the input file; none when "-"
    std::vector<std::string> args;
    int status;
    std::string err;  // standard error, whole
    std::vector<std::string> env = {};
    std::string input_name = "in.sdf";
  };
  const std::vector<std::string> usual = {"space_frag.sdf", "in.sdf"};
  const std::vector<Case> cases = {
      {"record cut short", CC.substr(0, CC.find(sd_atom("C"))) + sd_atom("C"), INPUT, usual, 1,
       "space_frag.sdf: record 1 (line 5): the file ends before atom line 2 of 2\n"},
      {"bond to a missing atom", sd_record("  2  1", 2, "  1  3  1  0  0  0  0\n"), INPUT, usual, 1,
       "space_frag.sdf: record 1 (line 7): bond 1 joins atoms 1 and 3, but the record has 2 atoms\n"},
      {"ring", CC + sd_record("  3  3", 3, "  1  2  1  0  0  0  0\n  2  3  1  0  0  0  0\n  1  3  1  0  0  0  0\n"),
       INPUT, usual, 1, "space_frag.sdf: record 2 (line 13): 3 atoms and 3 bonds are not a tree\n"},
      {"bond twice", sd_record("  3  2", 3, "  1  2  1  0  0  0  0\n  2  1  1  0  0  0  0\n"), INPUT, usual, 1,
       "space_frag.sdf: record 1 (line 9): bond 2 joins atoms 2 and 1 a second time\n"},
      {"same fragment twice", CC + CC, INPUT, usual, 1, "space_frag.sdf: record 2: the same fragment as record 1\n"},
      {"not a structure record", "hello\n", INPUT, usual, 1,
       "space_frag.sdf: record 1 (line 1): the file ends before the program line\n"},
      {"a record larger than a fragment can be", "@<TRIPOS>MOLECULE\n1\n70000 69999 0 0 0\n", INPUT, usual, 1,
       "space_frag.sdf: record 1 (line 3): the record has 70000 atoms, more than the 65535 a fragment may have\n"},
      {"structure file missing", "-", INPUT, usual, 1, "can't open a file 'space_frag.sdf'\n"},
      {"input refused by the SD reader", CC, INPUT.substr(0, INPUT.find("  1  2  1")) + "  1  2  7  0  0  0  0\n",
       usual, 1, "in.sdf: read sdf file : edge label not valid 7\n"},
      {"input record refused", CC, INPUT.substr(0, INPUT.find("  1  2  1")) + "  0  2  1  0  0  0  0\n", usual, 1,
       "in.sdf: compound 1 (methane): bond line 1 names atom 0\n"},
      {"input missing", CC, "-", usual, 1, "can't open a file 'in.sdf'\n"},
      // Arguments swapped: the input named STEM.out is the run's descriptor file.
      {"output over the input", CC, "\"methane\",1,1,1\n", {"-ofile", "run", "space_frag.sdf", "run.out"}, 1,
       "run.out: is a file being read; choose another -ofile STEM\n", {}, "run.out"},
      {"one file only", CC, INPUT, {"in.sdf"}, 2, "tavrix-apply: a structure file and an input file are needed\n"},
      {"input name without a '.'", CC, INPUT, {"space_frag.sdf", "in"}, 2,
       "tavrix-apply: the input file name has no '.': name it .sdf (SD) or .mol2 (Mol2)\n", {}, "in"},
      {"unknown option", CC, INPUT, {"-x", "space_frag.sdf", "in.sdf"}, 2, "tavrix-apply: unknown option -x\n"},
      {"option after the files without its value", CC, INPUT, {"space_frag.sdf", "in.sdf", "-ofile"}, 2,
       "tavrix-apply: -ofile needs a value\n"},
      {"thread count refused", CC, INPUT, usual, 1,
       "TAVRIX_THREADS must be a whole number of threads from 1 to 1024, not '0'\n", {"TAVRIX_THREADS=0"}},
  };
  for (const Case& c : cases) {
    const std::string work = make_temp_dir();
    if (c.space != "-") write_file(work + "/space_frag.sdf", c.space);
    if (c.input != "-") write_file(work + "/" + c.input_name, c.input);
    const std::map<std::string, std::string> before = files_in(work);
    const RunResult r = run_program(TAVRIX_APPLY_BINARY, c.args, work, c.env);
    EXPECT_EQ(r.status, c.status) << c.what;
    EXPECT_EQ(r.err.substr(0, r.err.find('\n') + 1), c.err) << c.what;
    EXPECT_EQ(r.out, "") << c.what;
    EXPECT_EQ(files_in(work), before) << c.what << ": a file was left behind or changed";
    remove_tree(work);
  }
}

TEST(apply, empty_structure_file_is_an_empty_space) {
  const std::string work = make_temp_dir();
  write_file(work + "/space_frag.sdf", "");
  write_file(work + "/in.sdf", INPUT + INPUT);
  const RunResult r = run_program(TAVRIX_APPLY_BINARY, {"space_frag.sdf", "in.sdf"}, work);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(read_file(work + "/in.out"), "\"methane\",0\n\"methane\",0\n");
  EXPECT_NE(r.out.find("compounds read: 2\ndescriptors in the space: 0\n"), std::string::npos) << r.out;
  remove_tree(work);
}

// The space's memory is reserved as it fills, so applying a small space on
// several threads fits a tight address-space limit (a batch queue's ulimit -v).
TEST(apply, a_small_space_fits_a_70_mb_address_space_limit) {
#ifdef TAVRIX_SANITIZED
  GTEST_SKIP() << "the sanitizers reserve terabytes of address space";
#endif
  const std::string work = make_temp_dir();
  write_file(work + "/example.sdf", read_file(std::string(TAVRIX_TEST_DATA) + "/example/example.sdf"));
  ASSERT_EQ(run_tavrix({"-lmax", "3", "example.sdf"}, work).status, 1);
  const RunResult limited = run_program(
      "/bin/sh",
      {"-c", "ulimit -v 70000 && TAVRIX_THREADS=3 exec '" TAVRIX_APPLY_BINARY "' -ofile limited example_frag.sdf "
             "example.sdf"},
      work);
  EXPECT_EQ(limited.status, 0) << limited.err;
  EXPECT_EQ(read_file(work + "/limited.out"), read_file(work + "/example.out"));
  remove_tree(work);
}

// The space read from text, or from the file, in parts of part bytes:
// everything a reader of it sees, labels as strings; or the refusal.
std::string reading(const std::string& path, const std::string& text, bool from_file, int threads, std::size_t part) {
  RaiseFailures raise;
  try {
    const DescriptorSpace s =
        from_file ? read_space_file(path, false, threads, part) : read_space(path, text, true, threads, part);
    std::ostringstream out;
    out << "mol2 " << s.mol2 << ", " << s.size() << " records of " << s.shortest << " to " << s.longest << " bonds\n";
    auto put = [&](const SpaceFragment& f) {
      for (int i = 0; i < f.vs; ++i) out << s.atom_labels[f.vl[i]] << ' ';
      for (int k = 0; k < f.bonds; ++k)
        out << f.bond[3 * k] << s.bond_labels[f.bond[3 * k + 2]] << f.bond[3 * k + 1] << ' ';
      out << '\n';
    };
    for (int d = 1; d <= s.size(); ++d) put(s.fragment(d));
    for (const auto& [d, arrays] : s.rearranged) {
      out << "record " << d << " rearranged: ";
      put(fragment_at(arrays));
    }
    for (const auto& [start, length] : s.spans) out << start << '+' << length << ' ';
    return out.str();
  } catch (const Failure& f) {
    return "refused: " + f.message;
  }
}

TEST(apply, reads_a_structure_file_in_parts_on_threads_as_in_one_piece) {
  const std::uint32_t seed = 20261124;
  std::mt19937 rng(seed);
  const std::string work = make_temp_dir();
  const std::string path = work + "/space_frag.sdf";
  int cases = 0, refused = 0, rearranged = 0;
  for (const GoldenRun& run : golden_runs()) {
    const std::string original = golden_file(run, "_frag.sdf");
    const bool mol2 = mol2_text(original);
    for (int variant = 0; variant < 12; ++variant) {
      std::vector<Record> records = records_of(original, mol2);
      // Records by hand: atoms in another order, a record again (in its
      // own or another arrangement), blank lines between records.
      for (Record& r : records)
        if (rng() % 4 == 0) shuffle_atoms(r, mol2, rng);
      if (variant % 3 == 1) {
        Record again = records[rng() % records.size()];
        if (rng() % 2) shuffle_atoms(again, mol2, rng);
        records.insert(records.begin() + static_cast<std::ptrdiff_t>(rng() % (records.size() + 1)), again);
      }
      if (variant % 4 == 2)
        for (Record& r : records)
          if (rng() % 8 == 0) r.insert(r.begin(), "");
      // A record without its last line ("$$$$", the empty line of Mol2),
      // running into the next.
      if (variant % 6 == 5) records[rng() % (records.size() - 1)].pop_back();
      std::string text = text_of(records, variant % 5 == 3 ? "\r\n" : "\n");
      // Faults: a line lost, a line that looks like where a record ends or
      // begins, the file cut short.
      if (variant % 2 == 1) {
        std::vector<std::string> lines = lines_of(text);
        const std::size_t at = rng() % lines.size();
        switch (rng() % 4) {
          case 0: lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(at)); break;
          case 1: lines[at] = "$$$$"; break;
          case 2: lines[at] = "@<TRIPOS>MOLECULE"; break;
          default: lines.resize(at); break;
        }
        text.clear();
        for (const std::string& line : lines) text += line + "\n";
        if (rng() % 3 == 0) text.resize(text.size() - rng() % std::min<std::size_t>(text.size(), 40));
      }
      write_file(path, text);
      // In one piece: from memory (with each record's text) and from the file.
      const std::string whole = reading(path, text, false, 1, text.size() + 1);
      const std::string whole_file = reading(path, text, true, 1, text.size() + 1);
      ++cases;
      refused += whole.rfind("refused: ", 0) == 0;
      rearranged += whole.find(" rearranged: ") != std::string::npos;
      // Every record a part of its own, or parts that mostly end inside a
      // record; one thread or several; from memory or from the file: each
      // pair of these met once.
      for (const std::size_t part : {std::size_t{1}, std::size_t{4096}}) {
        for (const int threads : {1, 3}) {
          const bool from_file = (part == 1) == (threads == 1);
          SCOPED_TRACE("seed " + std::to_string(seed) + ", " + run.name + " variant " + std::to_string(variant) +
                       ", parts of " + std::to_string(part) + " bytes, " + std::to_string(threads) + " threads" +
                       (from_file ? ", from the file" : ", from memory"));
          EXPECT_EQ(reading(path, text, from_file, threads, part), from_file ? whole_file : whole);
          if (HasFailure()) return remove_tree(work);
        }
      }
    }
  }
  remove_tree(work);
  // The variants reach each kind of case.
  EXPECT_GE(cases, 90);
  EXPECT_GT(refused, cases / 4);
  EXPECT_LT(refused, cases);
  EXPECT_GT(rearranged, 0);
}

// A space numbers at most 65536 atom labels, whichever parts hold them: one
// part, which then holds too many, or many parts, none of which does.
TEST(apply, refuses_a_space_of_more_atom_labels_than_it_numbers) {
  for (const int labels : {65536, 65537}) {
    std::string text;
    for (int k = 0; k < labels; k += 2)
      text += format_text("@<TRIPOS>MOLECULE\n%d\n2 1\nSMALL\n@<TRIPOS>ATOM\n1 a 0 0 0 x%d\n2 b 0 0 0 x%d\n"
                          "@<TRIPOS>BOND\n1 1 2 1\n\n",
                          k / 2 + 1, k, k + 1);
    for (const std::size_t part : {text.size() + 1, std::size_t{4096}}) {
      const std::string r = reading("many.sdf", text, false, 3, part);
      if (labels == 65536) EXPECT_EQ(r.rfind("refused", 0), std::string::npos) << r.substr(0, 200);
      else EXPECT_EQ(r, "refused: many.sdf: more than 65536 different atom labels\n");
    }
  }
}

}  // namespace
