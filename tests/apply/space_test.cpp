// Reading a descriptor space: a structure file read in many small parts on
// several threads gives the very space, or the very refusal, that reading it
// in one piece gives, whatever it holds; and a record written in another
// arrangement than labelling's still stands for its fragment.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "space/space.h"
#include "support/process.h"

namespace {

using namespace testsupport;

const std::string golden_dir = std::string(TAVRIX_TEST_DATA) + "/golden";

// The golden runs, each with its words of command.txt.
std::vector<std::pair<std::string, std::vector<std::string>>> golden_runs() {
  std::vector<std::pair<std::string, std::vector<std::string>>> runs;
  if (DIR* d = opendir(golden_dir.c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (!file_exists(golden_dir + "/" + name + "/command.txt")) continue;
      std::istringstream in(read_file(golden_dir + "/" + name + "/command.txt"));
      std::vector<std::string> words;
      for (std::string w; in >> w;) words.push_back(w);
      runs.emplace_back(name, words);
    }
    closedir(d);
  }
  std::sort(runs.begin(), runs.end());
  return runs;
}

// The run's structure file.
std::string structure_file(const std::string& run, const std::vector<std::string>& words) {
  const std::string input = words.back();
  std::string stem = input.substr(0, input.find('.'));
  for (std::size_t i = 1; i + 1 < words.size(); ++i)
    if (words[i] == "-ofile") stem = words[i + 1];
  return unxz(golden_dir + "/" + run + "/" + stem + "_frag.sdf.xz");
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// A record's lines, and where its atoms and bonds stand among them.
struct Record {
  std::vector<std::string> lines;
  int first_atom = 0, atoms = 0, first_bond = 0, bonds = 0;
};

std::vector<Record> records_of(const std::string& text, bool mol2) {
  std::vector<Record> records;
  Record r;
  for (const std::string& line : lines_of(text)) {
    if (mol2 && line.rfind("@<TRIPOS>MOLECULE", 0) == 0 && !r.lines.empty()) records.push_back(std::exchange(r, {}));
    r.lines.push_back(line);
    if (!mol2 && line == "$$$$") records.push_back(std::exchange(r, {}));
  }
  if (!r.lines.empty()) records.push_back(r);
  for (Record& rec : records) {
    if (mol2) {
      std::istringstream counts(rec.lines[2]);
      counts >> rec.atoms >> rec.bonds;
      for (int i = 0; i < static_cast<int>(rec.lines.size()); ++i) {
        if (rec.lines[i] == "@<TRIPOS>ATOM") rec.first_atom = i + 1;
        if (rec.lines[i] == "@<TRIPOS>BOND") rec.first_bond = i + 1;
      }
    } else {
      rec.atoms = std::stoi(rec.lines[3].substr(0, 3));
      rec.bonds = std::stoi(rec.lines[3].substr(3, 3));
      rec.first_atom = 4;
      rec.first_bond = 4 + rec.atoms;
    }
  }
  return records;
}

// The same fragment with its atoms in another order: atom k of the record
// becomes atom order[k].
void renumber_atoms(Record& r, bool mol2, const std::vector<int>& order) {
  std::vector<std::string> atoms(r.atoms);
  for (int k = 0; k < r.atoms; ++k) atoms[order[k]] = r.lines[r.first_atom + k];
  std::copy(atoms.begin(), atoms.end(), r.lines.begin() + r.first_atom);
  for (int k = 0; k < r.bonds; ++k) {
    std::string& line = r.lines[r.first_bond + k];
    if (mol2) {
      std::istringstream in(line);
      std::string id, a, b, type;
      in >> id >> a >> b >> type;
      line = id + " " + std::to_string(order[std::stoi(a) - 1] + 1) + " " +
             std::to_string(order[std::stoi(b) - 1] + 1) + " " + type;
    } else {
      char ends[24];
      std::snprintf(ends, sizeof ends, "%3d%3d", order[std::stoi(line.substr(0, 3)) - 1] + 1,
                    order[std::stoi(line.substr(3, 3)) - 1] + 1);
      line.replace(0, 6, ends);
    }
  }
}

std::string text_of(const std::vector<Record>& records, const std::string& line_end) {
  std::string text;
  for (const Record& r : records)
    for (const std::string& line : r.lines) text += line + line_end;
  return text;
}

// Everything a space holds that a reader of it sees, labels as strings.
std::string describe(const DescriptorSpace& s) {
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
}

// The space read from text, or the refusal.
std::string reading(const std::string& path, const std::string& text, bool from_file, int threads, std::size_t part) {
  RaiseFailures raise;
  try {
    if (from_file) return describe(read_space_file(path, false, threads, part));
    return describe(read_space(path, text, true, threads, part));
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
  for (const auto& [run, words] : golden_runs()) {
    const std::string original = structure_file(run, words);
    const bool mol2 = original.rfind("@<TRIPOS>MOLECULE", 0) == 0;
    for (int variant = 0; variant < 12; ++variant) {
      std::vector<Record> records = records_of(original, mol2);
      // Records by hand: atoms in another order, a record again (in its
      // own or another arrangement), blank lines between records.
      for (Record& r : records)
        if (rng() % 4 == 0) {
          std::vector<int> order(r.atoms);
          std::iota(order.begin(), order.end(), 0);
          std::shuffle(order.begin(), order.end(), rng);
          renumber_atoms(r, mol2, order);
        }
      if (variant % 3 == 1) {
        Record again = records[rng() % records.size()];
        std::vector<int> order(again.atoms);
        std::iota(order.begin(), order.end(), 0);
        if (rng() % 2) std::shuffle(order.begin(), order.end(), rng);
        renumber_atoms(again, mol2, order);
        records.insert(records.begin() + static_cast<std::ptrdiff_t>(rng() % (records.size() + 1)), again);
      }
      if (variant % 4 == 2)
        for (Record& r : records)
          if (rng() % 8 == 0) r.lines.insert(r.lines.begin(), "");
      // A record without its last line ("$$$$", the empty line of Mol2),
      // running into the next.
      if (variant % 6 == 5) records[rng() % (records.size() - 1)].lines.pop_back();
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
      struct Way {
        std::size_t part;
        int threads;
        bool from_file;
      };
      for (const Way& way : {Way{1, 3, false}, Way{1, 1, true}, Way{4096, 3, true}, Way{4096, 1, false}}) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", " + run + " variant " + std::to_string(variant) +
                     ", parts of " + std::to_string(way.part) + " bytes, " + std::to_string(way.threads) +
                     " threads" + (way.from_file ? ", from the file" : ", from memory"));
        EXPECT_EQ(reading(path, text, way.from_file, way.threads, way.part), way.from_file ? whole_file : whole);
        if (HasFailure()) {
          remove_tree(work);
          return;
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

// A space numbers at most 65536 atom labels, whichever parts hold them.
TEST(apply, refuses_a_space_of_more_atom_labels_than_it_numbers) {
  for (const int labels : {65536, 65537}) {
    std::string text;
    for (int k = 0; k < labels; k += 2) {
      char record[200];
      std::snprintf(record, sizeof record,
                    "@<TRIPOS>MOLECULE\n%d\n2 1\nSMALL\n@<TRIPOS>ATOM\n1 a 0 0 0 x%d\n2 b 0 0 0 x%d\n"
                    "@<TRIPOS>BOND\n1 1 2 1\n\n",
                    k / 2 + 1, k, k + 1);
      text += record;
    }
    // One part, which then holds too many, or many parts, none of which does.
    for (const std::size_t part : {text.size() + 1, std::size_t{4096}}) {
      const std::string r = reading("many.sdf", text, false, 3, part);
      if (labels == 65536) EXPECT_EQ(r.rfind("refused", 0), std::string::npos) << r.substr(0, 200);
      else EXPECT_EQ(r, "refused: many.sdf: more than 65536 different atom labels\n");
    }
  }
}

// The most atoms of one label in the record.
int most_of_one_label(const Record& r, bool mol2) {
  std::map<std::string, int> count;
  int most = 0;
  for (int k = 0; k < r.atoms; ++k) {
    const std::string& line = r.lines[r.first_atom + k];
    std::string label;
    if (mol2) {
      std::istringstream in(line);
      for (int field = 0; field < 6; ++field) in >> label;
    } else {
      label = line.substr(31, 3);
    }
    most = std::max(most, ++count[label]);
  }
  return most;
}

// A run's structure file with its records' atoms in another order applied
// to the run's input gives the run's descriptor lines. Where five or more
// atoms share a label, labelling's arrangement may depend on how the atoms
// are numbered: those records stay as the run wrote them.
TEST(apply, finds_records_in_another_arrangement_as_their_fragments) {
  std::mt19937 rng(20261125);
  for (const auto& [run, words] : golden_runs()) {
    SCOPED_TRACE(run);
    const std::string input = words.back();
    RunSettings settings;
    settings.mol2input = input.find(".m") != std::string::npos;
    for (const std::string& w : words) {
      if (w == "-NoAtmLabels") settings.NoAtmLabels = true;
      if (w == "-NoBndLabels") settings.NoBndLabels = true;
    }
    const std::string compounds = unxz(golden_dir + "/inputs/" + input + ".xz");
    const std::string original = structure_file(run, words);
    const bool mol2 = original.rfind("@<TRIPOS>MOLECULE", 0) == 0;
    std::vector<Record> records = records_of(original, mol2);
    for (Record& r : records) {
      if (most_of_one_label(r, mol2) >= 5) continue;
      std::vector<int> order(r.atoms);
      std::iota(order.begin(), order.end(), 0);
      std::shuffle(order.begin(), order.end(), rng);
      renumber_atoms(r, mol2, order);
    }
    RaiseFailures raise;
    const CompoundInput in = read_compounds_in_memory(settings, InputSource{input, &compounds});
    // The rows and the summary's numbers.
    auto rows = [&](const DescriptorSpace& space, int threads) {
      std::vector<DescriptorPairs> out;
      ApplySummary s;
      apply_space(space, in, threads, [&](int, const DescriptorPairs& pairs) { out.push_back(pairs); }, s);
      out.push_back({{static_cast<int>(s.compounds), static_cast<int>(s.occurrences_matched)},
                     {static_cast<int>(s.distinct_found), static_cast<int>(s.distinct_outside)},
                     {static_cast<int>(s.descriptors_found), 0}});
      return out;
    };
    const std::vector<DescriptorPairs> expected = rows(read_space("run", original, false), 1);
    const DescriptorSpace shuffled = read_space("shuffled", text_of(records, "\n"), false, 2);
    EXPECT_GT(shuffled.rearranged.size(), 0u);
    EXPECT_EQ(rows(shuffled, 1), expected);
    EXPECT_EQ(rows(shuffled, 3), expected);
  }
}

}  // namespace
