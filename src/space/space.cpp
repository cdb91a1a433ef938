// Reading a structure file back into a descriptor space, and finding the
// space's descriptors in new compounds.
#include "space/space.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <unordered_map>
#include <unordered_set>

#include "canon/canon.h"
#include "common/common.h"
#include "enumerate/fragment_counter.h"

namespace {

// ---- Reading records ----

// The text's lines, each without its line end ("\r\n" or "\n").
struct Lines {
  explicit Lines(const std::string& t) : text(t) {}
  const std::string& text;
  std::size_t at = 0;
  long long number = 0;  // 1-based number of the last line taken
  std::string_view line;
  bool next() {
    if (at >= text.size()) return false;
    std::size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    line = std::string_view(text).substr(at, end - at);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    at = end + 1;
    ++number;
    return true;
  }
};

struct RecordReader {
  const std::string& name;
  Lines lines;
  int record = 0;  // 1-based number of the record being read
  std::size_t record_start = 0;

  [[noreturn]] void refuse(const std::string& what) const {
    fatal_error(format_text("%s: record %d (line %lld): %s\n", name.c_str(), record, lines.number, what.c_str()));
  }
  std::string_view take(const char* what) {
    if (!lines.next()) refuse(format_text("the file ends before %s", what));
    return lines.line;
  }
};

std::vector<std::string_view> words(std::string_view line) {
  std::vector<std::string_view> out;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    const std::size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
    if (i > start) out.push_back(line.substr(start, i - start));
  }
  return out;
}

// A whole unsigned number, or -1.
int number_of(std::string_view text) {
  if (text.empty() || text.size() > 6) return -1;
  int value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

// A fixed three-column field: blanks then digits, as a run writes "%3d".
int column_number(std::string_view line, std::size_t first) {
  if (line.size() < first + 2) return -1;
  std::string_view field = line.substr(first - 1, 3);
  while (!field.empty() && field.front() == ' ') field.remove_prefix(1);
  return number_of(field);
}

struct Bond {
  int a, b;
  int label;  // the space's bond label, numbered in order of first appearance until the end
};

// Label strings numbered in order of first appearance while reading; at the
// end they are put in byte order and every fragment renumbered.
struct Interner {
  std::unordered_map<std::string, int> number;
  std::vector<std::string> strings;
  int of(std::string_view label) {
    key.assign(label);
    if (const auto it = number.find(key); it != number.end()) return it->second;
    number.emplace(key, static_cast<int>(strings.size()));
    strings.push_back(key);
    return static_cast<int>(strings.size()) - 1;
  }
  std::string key;
  // Byte order; returns the new number of each old one.
  std::vector<int> sort(std::vector<std::string>& sorted) {
    sorted = strings;
    std::sort(sorted.begin(), sorted.end());
    std::vector<int> renumber(strings.size());
    for (std::size_t i = 0; i < strings.size(); ++i)
      renumber[i] = static_cast<int>(std::lower_bound(sorted.begin(), sorted.end(), strings[i]) - sorted.begin());
    return renumber;
  }
};

// Checks the atoms and bonds of a record and turns them into the fragment:
// a tree with at least one bond, every bond between two of its atoms, none
// twice; each atom's neighbours in ascending order, as labelling writes them.
SpaceFragment make_fragment(const RecordReader& r, std::vector<int> atoms, const std::vector<Bond>& bonds) {
  const int n = static_cast<int>(atoms.size());
  if (bonds.empty()) r.refuse("the record has no bond (every fragment has at least one)");
  if (static_cast<int>(bonds.size()) != n - 1)
    r.refuse(format_text("%d atoms and %zu bonds are not a tree", n, bonds.size()));
  std::vector<int> root(n);
  std::iota(root.begin(), root.end(), 0);
  auto find = [&root](int x) {
    while (root[x] != x) x = root[x] = root[root[x]];
    return x;
  };
  std::vector<std::vector<std::pair<int, int>>> adjacent(n);
  for (std::size_t k = 0; k < bonds.size(); ++k) {
    const Bond& bond = bonds[k];
    if (bond.a < 1 || bond.a > n || bond.b < 1 || bond.b > n)
      r.refuse(format_text("bond %zu joins atoms %d and %d, but the record has %d atoms", k + 1, bond.a, bond.b, n));
    if (bond.a == bond.b) r.refuse(format_text("bond %zu joins atom %d to itself", k + 1, bond.a));
    const int x = find(bond.a - 1), y = find(bond.b - 1);
    for (const auto& [far, label] : adjacent[bond.a - 1])
      if (far == bond.b - 1) r.refuse(format_text("bond %zu joins atoms %d and %d a second time", k + 1, bond.a, bond.b));
    if (x == y) r.refuse(format_text("bond %zu closes a ring: the record is not a tree", k + 1));
    root[x] = y;
    adjacent[bond.a - 1].emplace_back(bond.b - 1, bond.label);
    adjacent[bond.b - 1].emplace_back(bond.a - 1, bond.label);
  }
  SpaceFragment f;
  f.vs = n;
  f.es = 2 * static_cast<int>(bonds.size());
  f.vl = std::move(atoms);
  f.v.push_back(0);
  for (auto& list : adjacent) {
    std::sort(list.begin(), list.end());
    for (const auto& [far, label] : list) {
      f.e.push_back(far);
      f.el.push_back(label);
    }
    f.v.push_back(static_cast<int>(f.e.size()));
  }
  return f;
}

const char* sd_bond_label(int type) {
  switch (type) {
    case 1: return "-";
    case 2: return "=";
    case 3: return "#";
    case 4: return "~";
    default: return nullptr;
  }
}

// "ID", the program line, an empty line, the counts, atoms, bonds, "M  END",
// "$$$$": the SD records a run writes for SD input.
SpaceFragment read_sd_record(RecordReader& r, Interner& atom_labels, Interner& bond_labels) {
  r.take("the program line");
  r.take("the comment line");
  const std::string_view counts = r.take("the counts line");
  const int na = column_number(counts, 1), nb = column_number(counts, 4);
  if (na < 0 || nb < 0) r.refuse("the counts line does not give the atoms and bonds in columns 1-6");
  std::vector<int> atoms;
  for (int k = 0; k < na; ++k) {
    const std::string_view line = r.take("the atom lines");
    std::string symbol;
    if (line.size() >= 32)
      for (char c : line.substr(31, 3))
        if (c != ' ' && c != '\t') symbol += c;
    if (symbol.empty()) r.refuse(format_text("atom line %d holds no atom symbol in columns 32-34", k + 1));
    atoms.push_back(atom_labels.of(symbol));
  }
  std::vector<Bond> bonds;
  for (int k = 0; k < nb; ++k) {
    const std::string_view line = r.take("the bond lines");
    const int a = column_number(line, 1), b = column_number(line, 4), type = column_number(line, 7);
    const char* label = sd_bond_label(type);
    if (a < 0 || b < 0 || label == nullptr)
      r.refuse(format_text("bond line %d does not give two atoms and a bond type 1 to 4 in columns 1-9", k + 1));
    bonds.push_back({a, b, bond_labels.of(label)});
  }
  if (r.take("the \"M  END\" line") != "M  END") r.refuse("the line after the bonds is not \"M  END\"");
  if (r.take("the \"$$$$\" line") != "$$$$") r.refuse("the line after \"M  END\" is not \"$$$$\"");
  return make_fragment(r, std::move(atoms), bonds);
}

const char* mol2_bond_label(std::string_view type) {
  if (type == "1") return "-";
  if (type == "2") return "=";
  if (type == "3") return "#";
  if (type == "ar") return "~";
  if (type == "am") return "*";
  return nullptr;
}

// The Mol2 records a run writes for Mol2 input: the molecule line (already
// taken), the id, the counts, the head lines, the atoms, the bonds and an
// empty line.
SpaceFragment read_mol2_record(RecordReader& r, Interner& atom_labels, Interner& bond_labels) {
  r.take("the molecule name");
  const std::vector<std::string_view> counts = words(r.take("the counts line"));
  const int na = counts.size() >= 2 ? number_of(counts[0]) : -1;
  const int nb = counts.size() >= 2 ? number_of(counts[1]) : -1;
  if (na < 0 || nb < 0) r.refuse("the counts line does not give the atoms and bonds");
  while (r.take("the @<TRIPOS>ATOM line").substr(0, 13) != "@<TRIPOS>ATOM") {
  }
  std::vector<int> atoms;
  for (int k = 0; k < na; ++k) {
    const std::vector<std::string_view> w = words(r.take("the atom lines"));
    if (w.size() < 6) r.refuse(format_text("atom line %d has fewer than six fields", k + 1));
    atoms.push_back(atom_labels.of(w[5]));
  }
  if (r.take("the @<TRIPOS>BOND line").substr(0, 13) != "@<TRIPOS>BOND")
    r.refuse(format_text("the line after the %d atoms is not the @<TRIPOS>BOND line", na));
  std::vector<Bond> bonds;
  for (int k = 0; k < nb; ++k) {
    const std::vector<std::string_view> w = words(r.take("the bond lines"));
    const char* label = w.size() >= 4 ? mol2_bond_label(w[3]) : nullptr;
    const int a = w.size() >= 4 ? number_of(w[1]) : -1, b = w.size() >= 4 ? number_of(w[2]) : -1;
    if (a < 0 || b < 0 || label == nullptr)
      r.refuse(format_text("bond line %d does not give two atoms and a bond type 1, 2, 3, ar or am", k + 1));
    bonds.push_back({a, b, bond_labels.of(label)});
  }
  if (r.lines.next() && !r.lines.line.empty()) r.refuse("the line after the bonds is not empty");
  return make_fragment(r, std::move(atoms), bonds);
}

// A hash of a form's arrays, with its labels as the caller numbers them.
template <class AtomLabel, class BondLabel>
std::uint64_t form_hash(int vs, int es, const int* v, const int* e, AtomLabel atom, BondLabel bond) {
  std::uint64_t h = static_cast<std::uint64_t>(vs) << 32 | static_cast<std::uint32_t>(es);
  auto mix = [&h](int x) { h = (h ^ static_cast<std::uint32_t>(x)) * 0x100000001b3ull; };
  for (int i = 0; i < vs; ++i) mix(atom(i));
  for (int i = 0; i <= vs; ++i) mix(v[i]);
  for (int j = 0; j < es; ++j) mix(e[j]);
  for (int j = 0; j < es; ++j) mix(bond(j));
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdull;
  return h ^ (h >> 33);
}

bool same_arrays(const SpaceFragment& a, const SpaceFragment& b) {
  return a.vs == b.vs && a.es == b.es && a.vl == b.vl && a.v == b.v && a.e == b.e && a.el == b.el;
}

// The fragment rearranged the way labelling arranges a compound's fragment of
// the same tree, when that way does not depend on how the tree's atoms happen
// to be numbered; false for trees with cells of equal atoms too large for
// that. Labels keep their numbers, which are in byte order as a file's are.
bool canonical_arrangement(const SpaceFragment& f, SpaceFragment& out) {
  Graph g;
  g.vs = f.vs;
  g.es = f.es;
  g.v = f.v;
  g.e = f.e;
  g.vl = f.vl;
  g.el = f.el;
  g.vid.resize(f.vs);
  std::iota(g.vid.begin(), g.vid.end(), 0);
  g.vcell.assign(f.vs, 0);
  if (!canonical_label_fast(g)) return false;
  out = SpaceFragment{g.vs, g.es, std::move(g.v), std::move(g.e), std::move(g.vl), std::move(g.el)};
  return true;
}

std::uint64_t own_hash(const SpaceFragment& f) {
  return form_hash(f.vs, f.es, f.v.data(), f.e.data(), [&](int i) { return f.vl[i]; }, [&](int j) { return f.el[j]; });
}

}  // namespace

DescriptorSpace read_space(const std::string& name, std::string text, bool keep_text) {
  DescriptorSpace space;
  space.name = name;
  RecordReader r{name, Lines(text)};
  // The first line that is not empty tells the kind of records.
  Lines probe(text);
  while (probe.next() && probe.line.empty()) {
  }
  space.mol2 = probe.line.substr(0, 17) == "@<TRIPOS>MOLECULE";
  Interner atom_labels, bond_labels;
  while (true) {
    // Empty lines between records (and a file that ends in some) are passed over.
    const std::size_t start = r.lines.at;
    if (!r.lines.next()) break;
    if (r.lines.line.empty()) continue;
    ++r.record;
    if (space.mol2 && r.lines.line.substr(0, 17) != "@<TRIPOS>MOLECULE")
      r.refuse("the record does not begin with @<TRIPOS>MOLECULE");
    space.fragments.push_back(space.mol2 ? read_mol2_record(r, atom_labels, bond_labels)
                                         : read_sd_record(r, atom_labels, bond_labels));
    space.spans.emplace_back(start, std::min(r.lines.at, text.size()) - start);
    const int bonds = space.fragments.back().es / 2;
    space.shortest = space.shortest == 0 ? bonds : std::min(space.shortest, bonds);
    space.longest = std::max(space.longest, bonds);
  }
  const std::vector<int> atom_number = atom_labels.sort(space.atom_labels);
  const std::vector<int> bond_number = bond_labels.sort(space.bond_labels);
  for (SpaceFragment& f : space.fragments) {
    for (int& l : f.vl) l = atom_number[l];
    for (int& l : f.el) l = bond_number[l];
  }
  // The same fragment twice: the same arrays, or, where labelling settles one
  // arrangement for every numbering, the same tree in two arrangements.
  // Records are kept in their own arrangement; only those labelling would
  // arrange otherwise (made by hand) are held rearranged.
  std::unordered_multimap<std::uint64_t, int> seen;
  std::unordered_map<int, SpaceFragment> rearranged;
  auto form_of = [&](int d) -> const SpaceFragment& {
    const auto it = rearranged.find(d);
    return it == rearranged.end() ? space.fragments[d - 1] : it->second;
  };
  for (int d = 1; d <= static_cast<int>(space.fragments.size()); ++d) {
    SpaceFragment arranged;
    if (canonical_arrangement(space.fragments[d - 1], arranged) && !same_arrays(arranged, space.fragments[d - 1]))
      rearranged.emplace(d, std::move(arranged));
    const SpaceFragment& mine = form_of(d);
    const std::uint64_t h = own_hash(mine);
    for (auto [it, end] = seen.equal_range(h); it != end; ++it)
      if (same_arrays(form_of(it->second), mine))
        fatal_error(format_text("%s: record %d: the same fragment as record %d\n", name.c_str(), d, it->second));
    seen.emplace(h, d);
  }
  if (keep_text) space.text = std::move(text);
  return space;
}

DescriptorSpace read_space_file(const std::string& path, bool keep_text) {
  FilePtr f = open_file(path, "r");
  // Read in one piece when the size is known: growing a string of tens of
  // megabytes step by step costs more than parsing it.
  std::string text;
  if (std::fseek(f.get(), 0, SEEK_END) == 0) {
    const long size = std::ftell(f.get());
    std::rewind(f.get());
    if (size > 0) {
      text.resize(static_cast<std::size_t>(size));
      text.resize(std::fread(text.data(), 1, text.size(), f.get()));
    }
  }
  char buffer[1 << 16];
  for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, f.get())) > 0;) text.append(buffer, got);
  if (std::ferror(f.get())) fatal_error(format_text("can't read a file '%s'\n", path.c_str()));
  return read_space(path, std::move(text), keep_text);
}

std::string_view record_text(const DescriptorSpace& space, int d) {
  if (space.text.empty() || d < 1 || d > static_cast<int>(space.spans.size())) return {};
  const auto [start, length] = space.spans[d - 1];
  return std::string_view(space.text).substr(start, length);
}

SpaceMatcher::SpaceMatcher(const DescriptorSpace& space, const LabelDictionary& dict)
    : space_(space), counter_(space.shortest, space.longest, 1), found_(space.fragments.size() + 1, 0) {
  auto index_in = [](const LabelSet& set, const std::string& label) {
    return static_cast<int>(array_find(std::string_view(label), set, compare_labels));
  };
  for (const std::string& l : space.atom_labels) atom_index_.push_back(index_in(dict.vertex_labels, l));
  for (const std::string& l : space.bond_labels) bond_index_.push_back(index_in(dict.edge_labels, l));
  // Each descriptor under the input's label numbers, by its arrays as written
  // and, where a record is not in the arrangement labelling settles on (a
  // record made by hand), by that arrangement too. A label the input lacks
  // leaves the descriptor out: nothing there can match it.
  auto reachable = [&](const SpaceFragment& f) {
    for (int l : f.vl)
      if (atom_index_[l] < 0) return false;
    for (int l : f.el)
      if (bond_index_[l] < 0) return false;
    return true;
  };
  auto input_hash = [&](const SpaceFragment& f) {
    return form_hash(f.vs, f.es, f.v.data(), f.e.data(), [&](int i) { return atom_index_[f.vl[i]]; },
                     [&](int j) { return bond_index_[f.el[j]]; });
  };
  for (int d = 1; d <= static_cast<int>(space.fragments.size()); ++d)
    if (reachable(space.fragments[d - 1])) candidates_.emplace(input_hash(space.fragments[d - 1]), d);
  for (int d = 1; d <= static_cast<int>(space.fragments.size()); ++d) {
    SpaceFragment arranged;
    const SpaceFragment& f = space.fragments[d - 1];
    if (!reachable(f) || !canonical_arrangement(f, arranged) || same_arrays(arranged, f)) continue;
    arranged_.push_back(std::move(arranged));
    arranged_descriptor_.push_back(d);
    candidates_.emplace(input_hash(arranged_.back()), -static_cast<int>(arranged_.size()));
  }
}

int SpaceMatcher::lookup(int form) {
  const GraphView g = counter_.form(form);
  const std::uint64_t h = form_hash(g.vs, g.es, g.v, g.e, [&](int i) { return g.vl[i]; }, [&](int j) { return g.el[j]; });
  auto equal = [&](const SpaceFragment& f) {
    if (f.vs != g.vs || f.es != g.es) return false;
    for (int i = 0; i < g.vs; ++i)
      if (atom_index_[f.vl[i]] != g.vl[i] || f.v[i + 1] != g.v[i + 1]) return false;
    for (int j = 0; j < g.es; ++j)
      if (f.e[j] != g.e[j] || bond_index_[f.el[j]] != g.el[j]) return false;
    return true;
  };
  // Arrays as written come first, so a run's own records keep their own
  // occurrences whatever a rearranged record could claim.
  int best = 0;
  for (auto [it, end] = candidates_.equal_range(h); it != end; ++it) {
    const int c = it->second;
    if (c > 0 && equal(space_.fragments[c - 1])) return c;
    if (c < 0 && best == 0 && equal(arranged_[-c - 1])) best = arranged_descriptor_[-c - 1];
  }
  return best;
}

void SpaceMatcher::match(const Graph& compound, int compid, DescriptorPairs& pairs) {
  pairs.clear();
  ++summary_.compounds;
  if (space_.fragments.empty()) return;
  entries_.clear();
  counter_.count_compound(compound, compid, entries_);
  for (const Occurrence& entry : entries_) {
    const int f = entry.id;  // the counter's form index
    if (f >= static_cast<int>(match_.size())) match_.resize(static_cast<std::size_t>(f) + 1, -1);
    if (match_[f] < 0) {
      match_[f] = lookup(f);
      ++summary_.distinct_found;
      if (match_[f] == 0) ++summary_.distinct_outside;
    }
    const int d = match_[f];
    if (d == 0) continue;
    pairs.emplace_back(d, entry.count);
    summary_.occurrences_matched += entry.count;
    if (!found_[d]) {
      found_[d] = 1;
      ++summary_.descriptors_found;
    }
  }
}

void apply_space(const DescriptorSpace& space, const CompoundInput& input, std::vector<DescriptorPairs>& rows,
                 ApplySummary& summary) {
  SpaceMatcher matcher(space, input.dictionary);
  const int n = static_cast<int>(input.compounds.size());
  rows.assign(n, DescriptorPairs());
  for (int c = 0; c < n; ++c) matcher.match(input.compounds[c], c, rows[c]);
  summary = matcher.summary();
}
