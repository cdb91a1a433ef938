// Reading a structure file back into a descriptor space, and finding the
// space's descriptors in new compounds.
#include "space/space.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <numeric>
#include <thread>
#include <unordered_map>

#include "canon/canon.h"
#include "common/common.h"
#include "enumerate/fragment_counter.h"

namespace {

// ---- Reading records ----

// The lines of a text in memory, or of a file read a chunk at a time (a
// structure file runs to tens of megabytes, and only its fragments are
// kept), each without its line end ("\r\n" or "\n").
class Lines {
 public:
  explicit Lines(std::string_view text) : data_(text) {}
  explicit Lines(std::FILE* file) : file_(file), buffer_(1 << 20) {}

  long long number = 0;  // 1-based number of the last line taken
  std::string_view line;
  bool failed = false;   // the file could not be read to its end

  // Where the next line begins, counted from the start of the whole text.
  std::size_t offset() const { return base_ + std::min(at_, data_.size()); }

  bool next() {
    std::size_t end;
    while ((end = data_.find('\n', scanned_)) == std::string_view::npos) {
      scanned_ = data_.size();
      if (!refill()) break;
    }
    if (end == std::string_view::npos) {
      if (at_ >= data_.size()) return false;
      end = data_.size();  // a last line without its line feed
    }
    line = data_.substr(at_, end - at_);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    at_ = scanned_ = end + 1;
    ++number;
    return true;
  }

 private:
  // Moves the unread bytes to the front of the buffer and reads more behind
  // them; the buffer doubles only for a line longer than itself.
  bool refill() {
    if (file_ == nullptr || eof_) return false;
    const std::size_t done = std::min(at_, data_.size()), keep = data_.size() - done;
    if (keep > 0) std::memmove(buffer_.data(), data_.data() + done, keep);
    base_ += done;
    scanned_ -= done;
    at_ = 0;
    if (keep == buffer_.size()) buffer_.resize(2 * buffer_.size());
    const std::size_t got = std::fread(buffer_.data() + keep, 1, buffer_.size() - keep, file_);
    if (got == 0) {
      eof_ = true;
      failed = std::ferror(file_) != 0;
    }
    data_ = std::string_view(buffer_.data(), keep + got);
    return got > 0;
  }

  std::string_view data_;
  std::size_t at_ = 0;       // start of the next line in data_
  std::size_t scanned_ = 0;  // data_ holds no line feed from at_ up to here
  std::size_t base_ = 0;     // offset of data_ in the whole text
  std::FILE* file_ = nullptr;
  bool eof_ = false;
  std::vector<char> buffer_;
};

struct Bond {
  int a, b;
  int label;  // the space's bond label, numbered in order of first appearance until the end
};

struct RecordReader {
  RecordReader(const std::string& n, Lines& l) : name(n), lines(l) {}
  const std::string& name;
  Lines& lines;
  int record = 0;  // 1-based number of the record being read

  // Scratch, kept from record to record.
  std::vector<int> atoms;
  std::vector<Bond> bonds;
  std::vector<int> root, fill;
  std::vector<std::string_view> fields;

  long long counts_line = 0, first_bond_line = 0;  // where the record's counts and bonds stand

  // Names the line last read, or the given one.
  [[noreturn]] void refuse(const std::string& what) const { refuse_at(lines.number, what); }
  [[noreturn]] void refuse_at(long long line, const std::string& what) const {
    fatal_error(format_text("%s: record %d (line %lld): %s\n", name.c_str(), record, line, what.c_str()));
  }
  // The next line of the record; what names it (with k of n: "atom line"
  // 3 of 5) should the file end before it.
  std::string_view take(const char* what, int k = 0, int n = 0) {
    if (lines.next()) return lines.line;
    if (n > 0) refuse(format_text("the file ends before %s %d of %d", what, k, n));
    refuse(format_text("the file ends before %s", what));
  }
  // The line's fields, separated by blanks and tabs.
  const std::vector<std::string_view>& split(std::string_view line) {
    fields.clear();
    std::size_t i = 0;
    while (i < line.size()) {
      while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
      const std::size_t start = i;
      while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
      if (i > start) fields.push_back(line.substr(start, i - start));
    }
    return fields;
  }
};

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

struct LabelHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};

// Label strings numbered in order of first appearance while reading; at the
// end they are put in byte order and every fragment renumbered.
struct Interner {
  std::unordered_map<std::string, int, LabelHash, std::equal_to<>> number;
  std::vector<std::string> strings;
  int of(std::string_view label) {
    if (const auto it = number.find(label); it != number.end()) return it->second;
    number.emplace(std::string(label), static_cast<int>(strings.size()));
    strings.emplace_back(label);
    return static_cast<int>(strings.size()) - 1;
  }
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
// The first bad bond in file order is the one named.
SpaceFragment make_fragment(RecordReader& r) {
  const std::vector<Bond>& bonds = r.bonds;
  const int n = static_cast<int>(r.atoms.size());
  const int nb = static_cast<int>(bonds.size());
  if (nb == 0) r.refuse_at(r.counts_line, "the record has no bond (every fragment has at least one)");
  if (nb != n - 1) r.refuse_at(r.counts_line, format_text("%d atoms and %d bonds are not a tree", n, nb));
  std::vector<int>& root = r.root;
  root.resize(n);
  std::iota(root.begin(), root.end(), 0);
  auto find = [&root](int x) {
    while (root[x] != x) x = root[x] = root[root[x]];
    return x;
  };
  for (int k = 0; k < nb; ++k) {
    const Bond& bond = bonds[k];
    if (bond.a < 1 || bond.a > n || bond.b < 1 || bond.b > n)
      r.refuse_at(r.first_bond_line + k,
                  format_text("bond %d joins atoms %d and %d, but the record has %d atoms", k + 1, bond.a, bond.b, n));
    if (bond.a == bond.b)
      r.refuse_at(r.first_bond_line + k, format_text("bond %d joins atom %d to itself", k + 1, bond.a));
    const int x = find(bond.a - 1), y = find(bond.b - 1);
    if (x == y) {
      for (int j = 0; j < k; ++j)
        if (std::min(bonds[j].a, bonds[j].b) == std::min(bond.a, bond.b) &&
            std::max(bonds[j].a, bonds[j].b) == std::max(bond.a, bond.b))
          r.refuse_at(r.first_bond_line + k,
                      format_text("bond %d joins atoms %d and %d a second time", k + 1, bond.a, bond.b));
      r.refuse_at(r.first_bond_line + k, format_text("bond %d closes a ring: the record is not a tree", k + 1));
    }
    root[x] = y;
  }
  SpaceFragment f;
  f.vs = n;
  f.es = 2 * nb;
  f.vl.assign(r.atoms.begin(), r.atoms.end());
  f.v.assign(n + 1, 0);
  for (const Bond& bond : bonds) {
    ++f.v[bond.a];
    ++f.v[bond.b];
  }
  for (int i = 0; i < n; ++i) f.v[i + 1] += f.v[i];
  r.fill.assign(f.v.begin(), f.v.end() - 1);
  f.e.resize(f.es);
  f.el.resize(f.es);
  for (const Bond& bond : bonds) {
    const int a = bond.a - 1, b = bond.b - 1;
    f.e[r.fill[a]] = b;
    f.el[r.fill[a]++] = bond.label;
    f.e[r.fill[b]] = a;
    f.el[r.fill[b]++] = bond.label;
  }
  // Neighbours ascending; a few per atom, so insertion sort.
  for (int i = 0; i < n; ++i)
    for (int j = f.v[i] + 1; j < f.v[i + 1]; ++j)
      for (int k = j; k > f.v[i] && f.e[k - 1] > f.e[k]; --k) {
        std::swap(f.e[k - 1], f.e[k]);
        std::swap(f.el[k - 1], f.el[k]);
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
  r.counts_line = r.lines.number;
  const int na = column_number(counts, 1), nb = column_number(counts, 4);
  if (na < 0 || nb < 0) r.refuse("the counts line does not give the atoms and bonds in columns 1-6");
  r.atoms.clear();
  for (int k = 0; k < na; ++k) {
    const std::string_view line = r.take("atom line", k + 1, na);
    char symbol[3];
    std::size_t length = 0;
    if (line.size() >= 32)
      for (char c : line.substr(31, 3))
        if (c != ' ' && c != '\t') symbol[length++] = c;
    if (length == 0) r.refuse(format_text("atom line %d holds no atom symbol in columns 32-34", k + 1));
    r.atoms.push_back(atom_labels.of(std::string_view(symbol, length)));
  }
  r.bonds.clear();
  r.first_bond_line = r.lines.number + 1;
  for (int k = 0; k < nb; ++k) {
    const std::string_view line = r.take("bond line", k + 1, nb);
    const int a = column_number(line, 1), b = column_number(line, 4), type = column_number(line, 7);
    const char* label = sd_bond_label(type);
    if (a < 0 || b < 0 || label == nullptr)
      r.refuse(format_text("bond line %d does not give two atoms and a bond type 1 to 4 in columns 1-9", k + 1));
    r.bonds.push_back({a, b, bond_labels.of(label)});
  }
  if (r.take("the \"M  END\" line") != "M  END") r.refuse("the line after the bonds is not \"M  END\"");
  if (r.take("the \"$$$$\" line") != "$$$$") r.refuse("the line after \"M  END\" is not \"$$$$\"");
  return make_fragment(r);
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
  const std::vector<std::string_view>& counts = r.split(r.take("the counts line"));
  r.counts_line = r.lines.number;
  const int na = counts.size() >= 2 ? number_of(counts[0]) : -1;
  const int nb = counts.size() >= 2 ? number_of(counts[1]) : -1;
  if (na < 0 || nb < 0) r.refuse("the counts line does not give the atoms and bonds");
  while (r.take("the @<TRIPOS>ATOM line").substr(0, 13) != "@<TRIPOS>ATOM") {
  }
  r.atoms.clear();
  for (int k = 0; k < na; ++k) {
    const std::vector<std::string_view>& w = r.split(r.take("atom line", k + 1, na));
    if (w.size() < 6) r.refuse(format_text("atom line %d has fewer than six fields", k + 1));
    r.atoms.push_back(atom_labels.of(w[5]));
  }
  if (r.take("the @<TRIPOS>BOND line").substr(0, 13) != "@<TRIPOS>BOND")
    r.refuse(format_text("the line after the %d atoms is not the @<TRIPOS>BOND line", na));
  r.bonds.clear();
  r.first_bond_line = r.lines.number + 1;
  for (int k = 0; k < nb; ++k) {
    const std::vector<std::string_view>& w = r.split(r.take("bond line", k + 1, nb));
    const char* label = w.size() >= 4 ? mol2_bond_label(w[3]) : nullptr;
    const int a = w.size() >= 4 ? number_of(w[1]) : -1, b = w.size() >= 4 ? number_of(w[2]) : -1;
    if (a < 0 || b < 0 || label == nullptr)
      r.refuse(format_text("bond line %d does not give two atoms and a bond type 1, 2, 3, ar or am", k + 1));
    r.bonds.push_back({a, b, bond_labels.of(label)});
  }
  if (r.lines.next() && !r.lines.line.empty()) r.refuse("the line after the bonds is not empty");
  return make_fragment(r);
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

bool same_arrays(const Graph& a, const SpaceFragment& b) {
  return a.vs == b.vs && a.es == b.es && a.vl == b.vl && a.v == b.v && a.e == b.e && a.el == b.el;
}

// Labelling's arrangement of the fragment in g (scratch, reused), when that
// arrangement does not depend on how the tree's atoms happen to be numbered;
// false for trees with cells of equal atoms too large for that. Labels keep
// their numbers, which are in byte order as a file's are.
bool canonical_arrangement(const SpaceFragment& f, Graph& g) {
  g.vs = f.vs;
  g.es = f.es;
  g.ncell = 0;
  g.key = 0;
  g.v.assign(f.v.begin(), f.v.end());
  g.e.assign(f.e.begin(), f.e.end());
  g.vl.assign(f.vl.begin(), f.vl.end());
  g.el.assign(f.el.begin(), f.el.end());
  g.vid.resize(f.vs);
  std::iota(g.vid.begin(), g.vid.end(), 0);
  g.vcell.assign(f.vs, 0);
  return canonical_label_fast(g);
}

std::uint64_t own_hash(const SpaceFragment& f) {
  return form_hash(f.vs, f.es, f.v.data(), f.e.data(), [&](int i) { return f.vl[i]; }, [&](int j) { return f.el[j]; });
}

// Reads every record from lines into the space: fragments, labels, lengths,
// where each record lies, and labelling's arrangement of the records written
// in another; refuses the same fragment twice.
void read_records(const std::string& name, Lines& lines, DescriptorSpace& space, int threads) {
  RecordReader r(name, lines);
  Interner atom_labels, bond_labels;
  bool first = true;
  while (true) {
    // Empty lines between records (and a file that ends in some) are passed over.
    const std::size_t start = lines.offset();
    if (!lines.next()) break;
    if (lines.line.empty()) continue;
    ++r.record;
    // The first line that is not empty tells the kind of records.
    if (first) space.mol2 = lines.line.substr(0, 17) == "@<TRIPOS>MOLECULE";
    first = false;
    if (space.mol2 && lines.line.substr(0, 17) != "@<TRIPOS>MOLECULE")
      r.refuse("the record does not begin with @<TRIPOS>MOLECULE");
    space.fragments.push_back(space.mol2 ? read_mol2_record(r, atom_labels, bond_labels)
                                         : read_sd_record(r, atom_labels, bond_labels));
    space.spans.emplace_back(start, lines.offset() - start);
    const int bonds = space.fragments.back().es / 2;
    space.shortest = space.shortest == 0 ? bonds : std::min(space.shortest, bonds);
    space.longest = std::max(space.longest, bonds);
  }
  if (lines.failed) fatal_error(format_text("can't read a file '%s'\n", name.c_str()));
  const std::vector<int> atom_number = atom_labels.sort(space.atom_labels);
  const std::vector<int> bond_number = bond_labels.sort(space.bond_labels);
  for (SpaceFragment& f : space.fragments) {
    for (int& l : f.vl) l = atom_number[l];
    for (int& l : f.el) l = bond_number[l];
  }
  // The same fragment twice: the same arrays, or, where labelling settles one
  // arrangement for every numbering, the same tree in two arrangements.
  // Records are kept in their own arrangement; only those labelling would
  // arrange otherwise (made by hand) are held rearranged as well.
  const int n = static_cast<int>(space.fragments.size());
  std::vector<int> rearranged(n + 1, -1);  // descriptor -> index in space.rearranged
  auto form_of = [&](int d) -> const SpaceFragment& {
    return rearranged[d] < 0 ? space.fragments[d - 1] : space.rearranged[rearranged[d]].second;
  };
  // Each record's arrangement is settled on its own, so the records are
  // shared out among the threads in ranges; the rearranged ones are then
  // gathered in record order.
  std::vector<std::pair<std::uint64_t, int>> hashes(n);
  const int parts = std::clamp(threads, 1, std::max(1, n / 1024));
  std::vector<std::vector<std::pair<int, SpaceFragment>>> found(parts);
  std::vector<Failure> failures(parts);
  std::vector<char> failed(parts, 0);
  auto arrange = [&](int part) {
    try {
      RaiseFailures raise;
      Graph g;
      for (int d = 1 + static_cast<int>(static_cast<long long>(n) * part / parts);
           d <= static_cast<int>(static_cast<long long>(n) * (part + 1) / parts); ++d) {
        const SpaceFragment& f = space.fragments[d - 1];
        if (canonical_arrangement(f, g) && !same_arrays(g, f)) {
          found[part].emplace_back(d, SpaceFragment{g.vs, g.es, g.v, g.e, g.vl, g.el});
          hashes[d - 1] = {own_hash(found[part].back().second), d};
        } else {
          hashes[d - 1] = {own_hash(f), d};
        }
      }
    } catch (const Failure& f) {
      failures[part] = f;
      failed[part] = 1;
    }
  };
  {
    std::vector<std::thread> helpers;
    for (int part = 1; part < parts; ++part) helpers.emplace_back(arrange, part);
    arrange(0);
    for (std::thread& t : helpers) t.join();
  }
  for (int part = 0; part < parts; ++part)
    if (failed[part]) {
      if (failures[part].on_stderr) fatal_error_on_stderr(failures[part].message);
      fatal_error(failures[part].message);
    }
  for (auto& part : found)
    for (auto& [d, f] : part) {
      rearranged[d] = static_cast<int>(space.rearranged.size());
      space.rearranged.emplace_back(d, std::move(f));
    }
  // Within a run of equal hashes, records in file order: the first record
  // that repeats an earlier one is named, with the earliest it repeats.
  std::sort(hashes.begin(), hashes.end());
  int again = 0, earlier = 0;
  for (std::size_t lo = 0, hi; lo < hashes.size(); lo = hi) {
    for (hi = lo + 1; hi < hashes.size() && hashes[hi].first == hashes[lo].first;) ++hi;
    for (std::size_t j = lo + 1; j < hi; ++j) {
      const int d = hashes[j].second;
      if (again != 0 && d >= again) break;
      for (std::size_t i = lo; i < j; ++i)
        if (same_arrays(form_of(hashes[i].second), form_of(d))) {
          again = d;
          earlier = hashes[i].second;
          break;
        }
    }
  }
  if (again != 0)
    fatal_error(format_text("%s: record %d: the same fragment as record %d\n", name.c_str(), again, earlier));
}

}  // namespace

DescriptorSpace read_space(const std::string& name, std::string text, bool keep_text, int threads) {
  DescriptorSpace space;
  space.name = name;
  Lines lines{std::string_view(text)};
  read_records(name, lines, space, threads);
  if (keep_text) space.text = std::move(text);
  return space;
}

DescriptorSpace read_space_file(const std::string& path, bool keep_text, int threads) {
  FilePtr f = open_file(path, "r");
  if (keep_text) {
    std::string text;
    char buffer[1 << 16];
    for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, f.get())) > 0;) text.append(buffer, got);
    if (std::ferror(f.get())) fatal_error(format_text("can't read a file '%s'\n", path.c_str()));
    return read_space(path, std::move(text), true);
  }
  DescriptorSpace space;
  space.name = path;
  Lines lines{f.get()};
  read_records(path, lines, space, threads);
  return space;
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
  candidates_.reserve(space.fragments.size() + space.rearranged.size());
  for (int d = 1; d <= static_cast<int>(space.fragments.size()); ++d)
    if (reachable(space.fragments[d - 1])) candidates_.emplace_back(input_hash(space.fragments[d - 1]), d);
  for (int k = 0; k < static_cast<int>(space.rearranged.size()); ++k)
    if (reachable(space.rearranged[k].second))
      candidates_.emplace_back(input_hash(space.rearranged[k].second), -(k + 1));
  // By hash, and for one hash the records as written first (ascending), then
  // the rearranged ones.
  std::sort(candidates_.begin(), candidates_.end(), [](const auto& a, const auto& b) {
    if (a.first != b.first) return a.first < b.first;
    if ((a.second > 0) != (b.second > 0)) return a.second > 0;
    return std::abs(a.second) < std::abs(b.second);
  });
  // An open-addressing index over the sorted candidates: a lookup then costs
  // a cache miss or two, where a binary search over them costs a dozen.
  std::size_t size = 16;
  while (size < 2 * candidates_.size()) size *= 2;
  slots_.assign(size, -1);
  for (std::size_t i = 0; i < candidates_.size(); ++i) {
    std::size_t b = candidates_[i].first & (size - 1);
    while (slots_[b] >= 0) b = (b + 1) & (size - 1);
    slots_[b] = static_cast<std::int32_t>(i);
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
  const std::size_t mask = slots_.size() - 1;
  int rearranged = 0;
  for (std::size_t b = h & mask; slots_[b] >= 0; b = (b + 1) & mask) {
    const auto& [hash, c] = candidates_[slots_[b]];
    if (hash != h) continue;
    if (c > 0 && equal(space_.fragments[c - 1])) return c;
    if (c < 0 && rearranged == 0 && equal(space_.rearranged[-c - 1].second)) rearranged = space_.rearranged[-c - 1].first;
  }
  return rearranged;
}

void SpaceMatcher::match(const Graph& compound, int compid, DescriptorPairs& pairs) {
  pairs.clear();
  ++summary_.compounds;
  if (space_.fragments.empty()) return;
  entries_.clear();
  counter_.count_compound(compound, compid, entries_);
  for (const FormCount& entry : entries_) {
    const int f = entry.form;
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

ApplySummary SpaceMatcher::combined_summary(const std::vector<const SpaceMatcher*>& matchers) {
  ApplySummary total;
  if (matchers.empty()) return total;
  // Each matcher numbers its own forms: the same fragment met by two of them
  // is found the same by its canonical arrays.
  FormStore distinct;
  std::vector<char> found(matchers.front()->found_.size(), 0);
  for (const SpaceMatcher* m : matchers) {
    total.compounds += m->summary_.compounds;
    total.occurrences_matched += m->summary_.occurrences_matched;
    for (int f = 0; f < static_cast<int>(m->match_.size()); ++f) {
      if (m->match_[f] < 0) continue;
      const int before = distinct.size();
      if (distinct.find_or_add(m->counter_.form(f)) < before) continue;
      ++total.distinct_found;
      if (m->match_[f] == 0) ++total.distinct_outside;
    }
    for (std::size_t d = 0; d < found.size(); ++d) found[d] |= m->found_[d];
  }
  total.descriptors_found = std::count(found.begin(), found.end(), 1);
  return total;
}

namespace {

// Compounds a worker matches at a time: the hand-over is cheap next to them,
// and the workers stay evenly busy to the end.
constexpr int APPLY_BATCH = 32;

struct ApplyBatch {
  std::vector<DescriptorPairs> rows;
  bool done = false;
  bool failed = false;
  Failure failure;
  bool out_of_memory = false;
};

// Workers take batches in input order, no further ahead of the caller than
// the slots allow; stopped and joined however the caller ends.
class ApplyPool {
 public:
  ApplyPool(const CompoundInput& input, std::vector<std::unique_ptr<SpaceMatcher>>& matchers)
      : input_(input), slots_(4 * matchers.size()) {
    const int n = static_cast<int>(input.compounds.size());
    batches_ = (n + APPLY_BATCH - 1) / APPLY_BATCH;
    try {
      for (auto& m : matchers) threads_.emplace_back([this, &m] { serve(*m); });
    } catch (...) {
      stop_all();
      throw;
    }
  }
  ~ApplyPool() { stop_all(); }
  ApplyPool(const ApplyPool&) = delete;
  ApplyPool& operator=(const ApplyPool&) = delete;

  int batches() const { return batches_; }

  // Batch b once matched, rethrowing its failure.
  const std::vector<DescriptorPairs>& wait_for(int b) {
    ApplyBatch& slot = slots_[b % slots_.size()];
    {
      std::unique_lock<std::mutex> lock(mutex_);
      ready_.wait(lock, [&slot] { return slot.done; });
    }
    if (slot.failed) throw slot.failure;
    if (slot.out_of_memory) throw std::bad_alloc();
    return slot.rows;
  }
  // Batch b's slot is free for a later batch.
  void release(int b) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      slots_[b % slots_.size()].done = false;
      ++released_;
    }
    room_.notify_all();
  }

 private:
  void serve(SpaceMatcher& matcher) {
    RaiseFailures raise;
    const int n = static_cast<int>(input_.compounds.size());
    for (;;) {
      int b = 0;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        room_.wait(lock, [this] {
          return stop_ || next_ >= batches_ || next_ < released_ + static_cast<int>(slots_.size());
        });
        if (stop_ || next_ >= batches_) return;
        b = next_++;
      }
      ApplyBatch& slot = slots_[b % slots_.size()];
      const int first = b * APPLY_BATCH, last = std::min(n, first + APPLY_BATCH);
      bool ok = true;
      try {
        slot.rows.resize(last - first);
        for (int c = first; c < last; ++c) matcher.match(input_.compounds[c], c, slot.rows[c - first]);
      } catch (const Failure& f) {
        slot.failed = true;
        slot.failure = f;
        ok = false;
      } catch (const std::exception&) {
        // Only a request too large for the allocator can arrive here.
        slot.out_of_memory = true;
        ok = false;
      }
      {
        std::lock_guard<std::mutex> lock(mutex_);
        slot.done = true;
      }
      ready_.notify_all();
      // A matcher that failed part way is not to be trusted with more; the
      // batches before this one were handed out already, so the caller
      // still gets to this failure.
      if (!ok) return;
    }
  }
  void stop_all() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    room_.notify_all();
    for (std::thread& t : threads_) t.join();
    threads_.clear();
  }

  const CompoundInput& input_;
  std::vector<ApplyBatch> slots_;
  int batches_ = 0;
  std::mutex mutex_;
  std::condition_variable ready_, room_;
  int next_ = 0;      // the next batch to hand out
  int released_ = 0;  // batches the caller is done with
  bool stop_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace

void apply_space(const DescriptorSpace& space, const CompoundInput& input, int threads,
                 const std::function<void(int, const DescriptorPairs&)>& row, ApplySummary& summary) {
  const int n = static_cast<int>(input.compounds.size());
  // No more threads than batches.
  threads = std::clamp(threads, 1, std::max(1, (n + APPLY_BATCH - 1) / APPLY_BATCH));
  std::vector<std::unique_ptr<SpaceMatcher>> matchers;
  for (int t = 0; t < threads; ++t) matchers.push_back(std::make_unique<SpaceMatcher>(space, input.dictionary));
  if (threads == 1) {
    DescriptorPairs pairs;
    for (int c = 0; c < n; ++c) {
      matchers[0]->match(input.compounds[c], c, pairs);
      row(c, pairs);
    }
    summary = matchers[0]->summary();
    return;
  }
  {
    ApplyPool pool(input, matchers);
    for (int b = 0; b < pool.batches(); ++b) {
      const std::vector<DescriptorPairs>& rows = pool.wait_for(b);
      for (int k = 0; k < static_cast<int>(rows.size()); ++k) row(b * APPLY_BATCH + k, rows[k]);
      pool.release(b);
    }
  }
  std::vector<const SpaceMatcher*> all;
  for (const auto& m : matchers) all.push_back(m.get());
  summary = SpaceMatcher::combined_summary(all);
}
