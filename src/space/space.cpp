// Reading a structure file back into a descriptor space, and finding the
// space's descriptors in new compounds.
#include "space/space.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <new>
#include <numeric>
#include <unordered_map>

#include "canon/canon.h"
#include "common/common.h"
#include "common/ordered_batches.h"
#include "common/parallel.h"
#include "enumerate/fragment_counter.h"
#include "input/bond_labels.h"

namespace {

// Memory of this size and more is mapped on its own, aligned to the pages
// that transparent huge pages use.
constexpr std::size_t LARGE_PAGE = std::size_t{2} << 20;

}  // namespace

SpaceMemory::SpaceMemory(std::size_t bytes, Pages pages) : size_(bytes) {
  if (bytes == 0) return;
  if (pages == Pages::by_range) {
    void* m = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (m == MAP_FAILED) throw std::bad_alloc();
    data_ = mapping_ = m;
    mapped_ = bytes;
    return;
  }
  if (bytes >= LARGE_PAGE) {
    const std::size_t length = bytes + LARGE_PAGE;
    void* m = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m != MAP_FAILED) {
      mapping_ = m;
      mapped_ = length;
      const std::uintptr_t at = (reinterpret_cast<std::uintptr_t>(m) + LARGE_PAGE - 1) & ~(LARGE_PAGE - 1);
      data_ = reinterpret_cast<void*>(at);
      // Only advice: where the system has no such pages, small ones serve.
      madvise(data_, bytes, MADV_HUGEPAGE);
      return;
    }
  }
  data_ = ::operator new(bytes);
  std::memset(data_, 0, bytes);
}

void SpaceMemory::make_ready(std::size_t from, std::size_t to) {
  if (mapping_ == nullptr || to <= from) return;
  const std::size_t page = 4096;
  const std::size_t first = from & ~(page - 1), last = std::min((to + page - 1) & ~(page - 1), mapped_);
#ifdef MADV_POPULATE_WRITE
  // Only a request: where the system cannot, the pages come as they are touched.
  if (last > first) madvise(static_cast<char*>(mapping_) + first, last - first, MADV_POPULATE_WRITE);
#endif
}

SpaceMemory::~SpaceMemory() { release(); }

SpaceMemory::SpaceMemory(SpaceMemory&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      mapping_(std::exchange(other.mapping_, nullptr)),
      mapped_(std::exchange(other.mapped_, 0)) {}

SpaceMemory& SpaceMemory::operator=(SpaceMemory&& other) noexcept {
  if (this != &other) {
    release();
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    mapping_ = std::exchange(other.mapping_, nullptr);
    mapped_ = std::exchange(other.mapped_, 0);
  }
  return *this;
}

void SpaceMemory::release() {
  if (mapping_ != nullptr) munmap(mapping_, mapped_);
  else if (data_ != nullptr) ::operator delete(data_);
  data_ = mapping_ = nullptr;
  size_ = mapped_ = 0;
}

namespace {

// ---- Threads ----

// Helpers for `threads` threads in all, the caller working as the last; none
// for one thread, or where the system refuses more (an address-space limit,
// a limit on processes). threads becomes the number there are.
std::unique_ptr<TaskQueue> make_helpers(int& threads) {
  threads = std::max(threads, 1);
  if (threads == 1) return nullptr;
  auto queue = std::make_unique<TaskQueue>(threads - 1);
  threads = queue->helpers() + 1;
  if (threads == 1) queue.reset();
  return queue;
}

// Hands the task to the helpers, or runs it at once on this thread when
// there are none.
void start(TaskQueue* queue, BatchTask& task) {
  if (queue != nullptr) {
    queue->submit(task);
  } else {
    task.run(0);
    task.done = true;
  }
}

// ---- Reading records ----

// The lines of a text in memory, or of a file read a chunk at a time after
// the bytes already in hand, each without its line end ("\r\n" or "\n").
class Lines {
 public:
  explicit Lines(std::string_view text) : data_(text) {}
  Lines(std::FILE* file, std::vector<char> first) : file_(file) {
    const std::size_t n = first.size();
    first.resize(std::max<std::size_t>(n, 1 << 20));
    buffer_ = std::move(first);
    data_ = std::string_view(buffer_.data(), n);
  }

  long long number = 0;  // 1-based number of the last line taken
  std::string_view line;
  bool failed = false;   // the file could not be read to its end

  // Where the next line begins, counted from the start of the whole text.
  std::size_t offset() const { return base_ + std::min(at_, data_.size()); }

  bool next() {
    std::size_t end;
    while (true) {
      const void* nl = scanned_ < data_.size() ? std::memchr(data_.data() + scanned_, '\n', data_.size() - scanned_)
                                               : nullptr;
      if (nl != nullptr) {
        end = static_cast<std::size_t>(static_cast<const char*>(nl) - data_.data());
        break;
      }
      scanned_ = data_.size();
      if (!refill()) {
        if (at_ >= data_.size()) return false;
        end = data_.size();  // a last line without its line feed
        break;
      }
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

// A record refused: where, and why. Record and line count from the start of
// the text being read; the caller adds what lies before it.
struct RecordFault {
  int record = 0;
  long long line = 0;
  std::string what;
};

// The text being read ended inside a record, and more text follows it: the
// record is to be read again from the whole file.
struct PartCut {};

struct Bond {
  int a, b;
  int label;  // the part's bond label, numbered in order of first appearance
};

// Label strings numbered in order of first appearance while reading; at the
// end they are put in byte order and every fragment renumbered.
struct LabelHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};
struct Interner {
  std::unordered_map<std::string, int, LabelHash, std::equal_to<>> number;
  std::vector<std::string> strings;
  // Labels are short and few: those of up to 7 bytes are found by their
  // bytes as a number, in a small table in front of the map.
  struct Recent {
    std::uint64_t key = 0;  // 0 for none: a packed key holds its length
    int number = 0;
  };
  Recent recent[64];
  int of(std::string_view label) {
    std::uint64_t key = 0;
    if (label.size() <= 7) {
      for (std::size_t i = 0; i < label.size(); ++i)
        key |= static_cast<std::uint64_t>(static_cast<unsigned char>(label[i])) << (8 * i);
      key |= static_cast<std::uint64_t>(label.size() + 1) << 56;
      const Recent& r = recent[(key * 0x9e3779b97f4a7c15ull) >> 58];
      if (r.key == key) return r.number;
    }
    int n;
    if (const auto it = number.find(label); it != number.end()) {
      n = it->second;
    } else {
      n = static_cast<int>(strings.size());
      number.emplace(std::string(label), n);
      strings.emplace_back(label);
    }
    if (key != 0) recent[(key * 0x9e3779b97f4a7c15ull) >> 58] = Recent{key, n};
    return n;
  }
  // Byte order; returns the new number of each old one.
  std::vector<int> sort(std::vector<std::string>& sorted) const {
    sorted = strings;
    std::sort(sorted.begin(), sorted.end());
    std::vector<int> renumber(strings.size());
    for (std::size_t i = 0; i < strings.size(); ++i)
      renumber[i] = static_cast<int>(std::lower_bound(sorted.begin(), sorted.end(), strings[i]) - sorted.begin());
    return renumber;
  }
};

// A record's numbers: vs, the bonds, vs atom labels, then (a, b, label) for
// each bond.
constexpr int HEAD = 2;
SpaceFragment view_at(const SpaceValue* p) {
  SpaceFragment f;
  f.vs = p[0];
  f.bonds = p[1];
  f.vl = p + HEAD;
  f.bond = f.vl + f.vs;
  return f;
}
std::size_t record_size(int vs, int bonds) {
  return HEAD + static_cast<std::size_t>(vs) + 3 * static_cast<std::size_t>(bonds);
}
std::size_t record_size(const SpaceValue* p) { return record_size(p[0], p[1]); }

// The record's labels under new numbers.
void renumber_labels(SpaceValue* p, const std::vector<int>& atom_number, const std::vector<int>& bond_number) {
  const int vs = p[0], bonds = p[1];
  SpaceValue* vl = p + HEAD;
  SpaceValue* bond = vl + vs;
  for (int i = 0; i < vs; ++i) vl[i] = static_cast<SpaceValue>(atom_number[vl[i]]);
  for (int k = 0; k < bonds; ++k) bond[3 * k + 2] = static_cast<SpaceValue>(bond_number[bond[3 * k + 2]]);
}

// What reading a part of the text leaves: its records' arrays with labels
// numbered in byte order among the part's own labels.
struct PartRecords {
  std::vector<SpaceValue> arrays;
  SpaceValue* placed = nullptr;  // where the arrays lie in the space, once they do
  std::vector<std::size_t> starts;                       // each record's arrays in `arrays`
  std::vector<std::pair<int, std::size_t>> rearranged;   // (record of the part, 0-based; its arrangement)
  std::vector<std::string> atom_labels, bond_labels;     // byte order
  std::vector<std::pair<std::size_t, std::size_t>> spans;  // (start, length) in the part's text, when kept
  int records = 0;
  long long lines = 0;
  int shortest = 0, longest = 0;
};

struct RecordReader {
  RecordReader(const std::string& n, Lines& l, bool at_end) : name(n), lines(l), last(at_end) {}
  const std::string& name;
  Lines& lines;
  bool last;       // the lines end where the file ends
  int record = 0;  // 1-based number of the record being read

  // Scratch, kept from record to record.
  std::vector<int> atoms;
  std::vector<Bond> bonds;
  std::vector<int> root, fill;
  std::vector<std::string_view> fields;

  long long counts_line = 0, first_bond_line = 0;  // where the record's counts and bonds stand

  // Names the line last read, or the given one.
  [[noreturn]] void refuse(const std::string& what) const { refuse_at(lines.number, what); }
  [[noreturn]] void refuse_at(long long line, const std::string& what) const { throw RecordFault{record, line, what}; }
  // The next line of the record; what names it (with k of n: "atom line"
  // 3 of 5) should the file end before it.
  std::string_view take(const char* what, int k = 0, int n = 0) {
    if (lines.next()) return lines.line;
    if (!last) throw PartCut{};
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

// Checks the atoms and bonds of a record and appends the fragment to the
// part: a tree with at least one bond, every bond between two of its atoms,
// none twice; the bonds ordered by their ends, as labelling's arrays list
// them. The first bad bond in file order is the one named.
void add_fragment(RecordReader& r, PartRecords& part) {
  std::vector<Bond>& bonds = r.bonds;
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
  for (Bond& bond : bonds) {
    if (bond.a > bond.b) std::swap(bond.a, bond.b);
  }
  std::sort(bonds.begin(), bonds.end(),
            [](const Bond& x, const Bond& y) { return x.a != y.a ? x.a < y.a : x.b < y.b; });
  const std::size_t start = part.arrays.size();
  part.arrays.resize(start + record_size(n, nb));
  SpaceValue* p = part.arrays.data() + start;
  *p++ = static_cast<SpaceValue>(n);
  *p++ = static_cast<SpaceValue>(nb);
  for (const int label : r.atoms) *p++ = static_cast<SpaceValue>(label);
  for (const Bond& bond : bonds) {
    *p++ = static_cast<SpaceValue>(bond.a - 1);
    *p++ = static_cast<SpaceValue>(bond.b - 1);
    *p++ = static_cast<SpaceValue>(bond.label);
  }
  part.starts.push_back(start);
}

// "ID", the program line, an empty line, the counts, atoms, bonds, "M  END",
// "$$$$": the SD records a run writes for SD input.
void read_sd_record(RecordReader& r, Interner& atom_labels, Interner& bond_labels, PartRecords& part) {
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
  add_fragment(r, part);
}

// The Mol2 records a run writes for Mol2 input: the molecule line (already
// taken), the id, the counts, the head lines, the atoms, the bonds and an
// empty line.
void read_mol2_record(RecordReader& r, Interner& atom_labels, Interner& bond_labels, PartRecords& part) {
  r.take("the molecule name");
  const std::vector<std::string_view>& counts = r.split(r.take("the counts line"));
  r.counts_line = r.lines.number;
  const int na = counts.size() >= 2 ? number_of(counts[0]) : -1;
  const int nb = counts.size() >= 2 ? number_of(counts[1]) : -1;
  if (na < 0 || nb < 0) r.refuse("the counts line does not give the atoms and bonds");
  if (na > MAX_SPACE_VALUE)
    r.refuse(format_text("the record has %d atoms, more than the %d a fragment may have", na, MAX_SPACE_VALUE));
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
    // A run writes no bond that the readers leave out of a compound.
    const char* label = w.size() >= 4 ? mol2_bond_label(w[3]) : nullptr;
    if (label != nullptr && *label == '\0') label = nullptr;
    const int a = w.size() >= 4 ? number_of(w[1]) : -1, b = w.size() >= 4 ? number_of(w[2]) : -1;
    if (a < 0 || b < 0 || label == nullptr)
      r.refuse(format_text("bond line %d does not give two atoms and a bond type 1, 2, 3, ar or am", k + 1));
    r.bonds.push_back({a, b, bond_labels.of(label)});
  }
  // The empty line: where more text follows the part, the record is read
  // again with it.
  if (r.lines.next()) {
    if (!r.lines.line.empty()) r.refuse("the line after the bonds is not empty");
  } else if (!r.last) {
    throw PartCut{};
  }
  add_fragment(r, part);
}

// A hash of a fragment's numbers: atoms, bonds, the atoms' labels, then each
// bond (a, b, label) in order, labels as the caller numbers them.
struct FormHash {
  std::uint64_t h;
  FormHash(int vs, int bonds) : h(static_cast<std::uint64_t>(vs) << 32 | static_cast<std::uint32_t>(bonds)) {}
  void mix(int x) { h = (h ^ static_cast<std::uint32_t>(x)) * 0x100000001b3ull; }
  std::uint64_t value() const {
    std::uint64_t x = h ^ (h >> 33);
    x *= 0xff51afd7ed558ccdull;
    return x ^ (x >> 33);
  }
};

std::uint64_t own_hash(const SpaceValue* p) {
  const SpaceFragment f = view_at(p);
  FormHash h(f.vs, f.bonds);
  for (int i = 0; i < f.vs; ++i) h.mix(f.vl[i]);
  for (int k = 0; k < 3 * f.bonds; ++k) h.mix(f.bond[k]);
  return h.value();
}

bool same_arrays(const SpaceValue* a, const SpaceValue* b) {
  return a[0] == b[0] && a[1] == b[1] && std::equal(a + HEAD, a + record_size(a), b + HEAD);
}

// Labelling's arrangement of the record at `start`, appended to the part
// when it differs from the record's own; nothing when the record is in it
// already, or when the tree has cells of equal atoms too large for the
// arrangement not to depend on how its atoms happen to be numbered. Labels
// keep their numbers: labelling only compares them, and they are in byte
// order within the part as within the whole space.
void settle_arrangement(PartRecords& part, int record, SmallGraph& in) {
  const std::size_t start = part.starts[record];
  const SpaceFragment f = view_at(part.arrays.data() + start);
  const int n = f.vs;
  if (n < 1 || n > SMALL_GRAPH_VERTICES) return;
  in.n = n;
  for (int u = 0; u < n; ++u) {
    std::memset(in.adj[u], 0, sizeof(int) * n);
    in.label[u] = f.vl[u];
    in.deg[u] = 0;
  }
  for (int k = 0; k < f.bonds; ++k) {
    const int a = f.bond[3 * k], b = f.bond[3 * k + 1], label = f.bond[3 * k + 2];
    in.adj[a][b] = in.adj[b][a] = label + 1;
    in.nb[a][in.deg[a]++] = b;
    in.nb[b][in.deg[b]++] = a;
  }
  int order[SMALL_GRAPH_VERTICES];
  if (!canonical_order_fast(in, order)) return;
  bool identity = true;
  for (int k = 0; k < n && identity; ++k) identity = order[k] == k;
  if (identity) return;
  // The record read in that order, as labelling writes it.
  std::vector<SpaceValue>& arrays = part.arrays;
  const std::size_t at = arrays.size();
  arrays.resize(at + record_size(n, f.bonds));
  SpaceValue* p = arrays.data() + at;
  *p++ = static_cast<SpaceValue>(n);
  *p++ = static_cast<SpaceValue>(f.bonds);
  for (int k = 0; k < n; ++k) *p++ = static_cast<SpaceValue>(in.label[order[k]]);
  for (int a = 0; a < n; ++a) {
    const int* row = in.adj[order[a]];
    for (int b = a + 1; b < n; ++b)
      if (const int code = row[order[b]]; code != 0) {
        *p++ = static_cast<SpaceValue>(a);
        *p++ = static_cast<SpaceValue>(b);
        *p++ = static_cast<SpaceValue>(code - 1);
      }
  }
  // A symmetric tree may come out the same in another order.
  if (same_arrays(arrays.data() + at, arrays.data() + start)) arrays.resize(at);
  else part.rearranged.emplace_back(record, at);
}

// ---- Parts of the text ----

// Bytes read from a file, their room made without writing it first (the
// read does).
struct Bytes {
  std::unique_ptr<char[]> data;
  std::size_t size = 0, capacity = 0;
  void reserve(std::size_t n) {
    if (n <= capacity) return;
    auto more = std::make_unique_for_overwrite<char[]>(n);
    if (size > 0) std::memcpy(more.get(), data.get(), size);
    data = std::move(more);
    capacity = n;
  }
  std::string_view view() const { return std::string_view(data.get(), size); }
};

// A part of the structure file that begins where a record may begin, and
// what reading it gave.
struct Part : BatchTask {
  // What to read.
  const std::string* name = nullptr;
  bool mol2 = false;
  bool keep_spans = false;
  std::size_t offset = 0;  // of its text in the whole file
  std::string_view text;
  Bytes bytes;              // its text, when read from a file
  bool last = false;        // the file ends where it ends

  // What reading it gave.
  enum class State { read, fault, cut, failed } state = State::read;
  RecordFault fault;
  Failure failure;  // state failed, unless out of memory
  bool out_of_memory = false;
  bool arrange_failed = false;  // records read, their arrangements not settled
  Failure arrange_failure;
  bool arrange_out_of_memory = false;
  bool too_many_labels = false;  // more atom labels than a space numbers
  PartRecords records;

  void run(int) override {
    Lines lines(text);
    read(lines);
  }

  // Reads every record of lines, then settles their labels and arrangements.
  void read(Lines& lines) {
    try {
      RaiseFailures raise;
      RecordReader r(*name, lines, last);
      Interner atoms, bonds;
      PartRecords& out = records;
      // Untouched capacity costs no memory: room for the arrays of any run's
      // records, so that they are written once.
      if (!text.empty()) out.arrays.reserve(text.size() / 2);
      while (true) {
        // Empty lines between records (and a file that ends in some) are passed over.
        const std::size_t start = lines.offset();
        if (!lines.next()) break;
        if (lines.line.empty()) continue;
        ++r.record;
        if (mol2 && lines.line.substr(0, 17) != "@<TRIPOS>MOLECULE")
          r.refuse("the record does not begin with @<TRIPOS>MOLECULE");
        if (mol2) read_mol2_record(r, atoms, bonds, out);
        else read_sd_record(r, atoms, bonds, out);
        if (keep_spans) out.spans.emplace_back(start, lines.offset() - start);
        const int bonds_in = out.arrays[out.starts.back() + 1];
        out.shortest = out.shortest == 0 ? bonds_in : std::min(out.shortest, bonds_in);
        out.longest = std::max(out.longest, bonds_in);
      }
      out.records = r.record;
      out.lines = lines.number;
      // Numbers past the bound were cut short: the space is refused once
      // every part is read (other faults come first).
      if (atoms.strings.size() > MAX_SPACE_VALUE + 1u) {
        too_many_labels = true;
        return;
      }
      const std::vector<int> atom_number = atoms.sort(out.atom_labels);
      const std::vector<int> bond_number = bonds.sort(out.bond_labels);
      for (const std::size_t s : out.starts) renumber_labels(out.arrays.data() + s, atom_number, bond_number);
    } catch (const RecordFault& f) {
      state = State::fault;
      fault = f;
      return;
    } catch (const PartCut&) {
      state = State::cut;
      return;
    } catch (const Failure& f) {
      state = State::failed;
      failure = f;
      return;
    } catch (const std::exception&) {
      state = State::failed;
      out_of_memory = true;
      return;
    }
    try {
      RaiseFailures raise;
      auto scratch = std::make_unique<SmallGraph>();
      for (int k = 0; k < records.records; ++k) settle_arrangement(records, k, *scratch);
    } catch (const Failure& f) {
      arrange_failed = true;
      arrange_failure = f;
    } catch (const std::exception&) {
      arrange_failed = arrange_out_of_memory = true;
    }
  }
};

// Cuts a text, in memory or read from a file, into parts that end where a
// record may end: after a "$$$$" line (SD), before a "@<TRIPOS>MOLECULE"
// line (Mol2). A part's guess can be wrong only in a file that is not
// records as a run writes them; reading the part then says so (PartCut, or a
// fault), and the text is read again from there in one piece.
class PartSource {
 public:
  PartSource(std::string_view text, std::size_t chunk) : text_(text), chunk_(chunk) {}
  PartSource(std::FILE* file, std::size_t chunk) : file_(file), chunk_(chunk) {}

  bool failed = false;  // the file could not be read to its end
  bool mol2 = false;    // known once the first part is out
  std::size_t part_bytes() const { return chunk_; }

  // The next part's text into p; false when the text is used up.
  bool next(Part& p) {
    if (done_) return false;
    while (true) {
      const bool more = extend();
      const std::string_view w = window();
      if (!kind_known_) find_kind(w, !more);
      std::size_t cut = 0;
      if (!more) {
        cut = w.size();
        done_ = true;
        if (cut == 0) return false;
      } else if (kind_known_ && w.size() >= chunk_) {
        cut = boundary(w);
      }
      if (cut == 0) continue;
      p.offset = offset_;
      p.mol2 = mol2;
      p.last = done_;
      if (file_ != nullptr) {
        // The bytes after the cut start the next part.
        Bytes rest = fresh_buffer();
        rest.reserve(buffer_.size - cut);
        std::memcpy(rest.data.get(), buffer_.data.get() + cut, buffer_.size - cut);
        rest.size = buffer_.size - cut;
        buffer_.size = cut;
        p.bytes = std::move(buffer_);
        p.text = p.bytes.view();
        buffer_ = std::move(rest);
      } else {
        p.text = w.substr(0, cut);
        begin_ += cut;
      }
      offset_ += cut;
      searched_ = 0;
      return true;
    }
  }

  // A part's bytes, once read, for a later part: memory already in use
  // costs less than new memory.
  void recycle(Bytes&& bytes) {
    if (bytes.capacity == 0) return;
    bytes.size = 0;
    spare_.push_back(std::move(bytes));
  }

  // The bytes read from the file and not yet handed out, for reading the
  // rest in one piece.
  std::string_view take_rest() {
    done_ = true;
    return buffer_.view();
  }

 private:
  Bytes fresh_buffer() {
    Bytes b;
    if (!spare_.empty()) {
      b = std::move(spare_.back());
      spare_.pop_back();
    } else {
      b.reserve(chunk_ + chunk_ / 8);
    }
    return b;
  }
  std::string_view window() const { return file_ != nullptr ? buffer_.view() : text_.substr(begin_, end_ - begin_); }
  // Takes up to chunk_ more bytes into the window; false at the end.
  bool extend() {
    if (file_ == nullptr) {
      if (end_ == text_.size()) return false;
      end_ = std::min(text_.size(), end_ + chunk_);
      return true;
    }
    if (buffer_.capacity == 0) buffer_ = fresh_buffer();
    if (buffer_.capacity < buffer_.size + chunk_)
      buffer_.reserve(std::max(buffer_.size + chunk_, 2 * buffer_.capacity));
    const std::size_t got = std::fread(buffer_.data.get() + buffer_.size, 1, chunk_, file_);
    buffer_.size += got;
    if (got == 0) failed = std::ferror(file_) != 0;
    return got > 0;
  }
  // The first line that is not empty tells the kind of records.
  void find_kind(std::string_view w, bool at_end) {
    std::size_t at = 0;
    while (at < w.size()) {
      const std::size_t nl = w.find('\n', at);
      if (nl == std::string_view::npos && !at_end) return;  // not whole yet
      std::string_view line = w.substr(at, nl == std::string_view::npos ? std::string_view::npos : nl - at);
      if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
      if (!line.empty()) {
        mol2 = line.substr(0, 17) == "@<TRIPOS>MOLECULE";
        kind_known_ = true;
        return;
      }
      if (nl == std::string_view::npos) break;
      at = nl + 1;
    }
    if (at_end) kind_known_ = true;
  }
  // Where the last whole line of the window that may end a record ends; 0
  // for none. Lines already looked at in this window are not looked at again.
  std::size_t boundary(std::string_view w) {
    const char* base = w.data();
    const void* found = ::memrchr(base, '\n', w.size());
    if (found == nullptr) return 0;
    std::size_t end = static_cast<std::size_t>(static_cast<const char*>(found) - base);  // the line's '\n'
    const std::size_t floor = searched_;
    searched_ = end + 1;
    while (true) {
      const void* before = end > floor ? ::memrchr(base + floor, '\n', end - floor) : nullptr;
      const std::size_t start =
          before != nullptr ? static_cast<std::size_t>(static_cast<const char*>(before) - base) + 1 : floor;
      if (start > 0 && start >= floor) {
        const std::string_view line = w.substr(start, end - start);
        if (mol2 ? line.substr(0, 17) == "@<TRIPOS>MOLECULE" : line == "$$$$" || line == "$$$$\r")
          return mol2 ? start : end + 1;
      }
      if (before == nullptr) return 0;
      end = start - 1;
    }
  }

  std::string_view text_;
  std::size_t begin_ = 0, end_ = 0;  // the window in text_
  std::FILE* file_ = nullptr;
  Bytes buffer_;                     // the window, from a file
  std::vector<Bytes> spare_;
  std::size_t chunk_;
  std::size_t offset_ = 0;           // of the window in the whole text
  std::size_t searched_ = 0;         // the window's lines before this hold no boundary
  bool kind_known_ = false;
  bool done_ = false;
};

// Parts read at a time: enough to keep the threads busy, few enough that
// the text in hand stays a few megabytes.
constexpr std::size_t PART_BYTES = std::size_t{1} << 20;

// Places arrays in the space's blocks, each block twice the size of the
// one before, up to a bound.
class Arena {
 public:
  // text_bytes, when known, sizes the first block: a run's records take about
  // a tenth of their text.
  Arena(std::vector<SpaceMemory>& blocks, std::size_t text_bytes) : blocks_(blocks) {
    next_ = std::clamp(text_bytes / 8, MIN_BLOCK, MAX_BLOCK);
  }
  SpaceValue* place(const std::vector<SpaceValue>& values) {
    const std::size_t bytes = values.size() * sizeof(SpaceValue);
    if (blocks_.empty() || used_ + bytes > blocks_.back().size()) {
      // Address room: what is never written costs no memory.
      blocks_.emplace_back(std::max(next_, bytes), SpaceMemory::Pages::by_range);
      next_ = std::min(2 * next_, MAX_BLOCK);
      used_ = 0;
    }
    SpaceMemory& block = blocks_.back();
    // Ready in one request, rather than a page at a time as they are written.
    block.make_ready(used_, used_ + bytes);
    SpaceValue* at = reinterpret_cast<SpaceValue*>(static_cast<char*>(block.data()) + used_);
    std::copy(values.begin(), values.end(), at);
    used_ += bytes;
    return at;
  }

 private:
  static constexpr std::size_t MIN_BLOCK = std::size_t{1} << 20;
  static constexpr std::size_t MAX_BLOCK = std::size_t{64} << 20;
  std::vector<SpaceMemory>& blocks_;
  std::size_t next_;      // bytes of the next block
  std::size_t used_ = 0;  // bytes of the last block in use
};

// More atom labels than a space numbers.
[[noreturn]] void refuse_labels(const std::string& name) {
  fatal_error(format_text("%s: more than %d different atom labels\n", name.c_str(), MAX_SPACE_VALUE + 1));
}

[[noreturn]] void report(const Failure& f) {
  if (f.on_stderr) fatal_error_on_stderr(f.message);
  fatal_error(f.message);
}

// Reads every part of the source, refusing the first fault in the file; the
// parts' records in file order.
std::vector<std::unique_ptr<Part>> read_parts(const std::string& name, PartSource& source, std::FILE* file,
                                              std::string_view text, std::size_t text_bytes, bool keep_spans,
                                              int threads, DescriptorSpace& space) {
  threads = std::max(threads, 1);
  std::vector<std::unique_ptr<Part>> parts;
  // A part's arrays are copied into the space once it is read, and its
  // vector, memory already touched, serves a later part.
  Arena arena(space.blocks, text_bytes);
  std::vector<std::vector<SpaceValue>> spare_arrays;
  // Declared before the helpers, so that however this ends they have
  // stopped before the parts they may be reading go away.
  std::deque<std::unique_ptr<Part>> in_flight;
  // No more threads than parts, where the size of the text tells.
  if (text_bytes > 0) {
    const std::size_t parts_in_text = std::max<std::size_t>(1, text_bytes / source.part_bytes());
    threads = static_cast<int>(std::min<std::size_t>(threads, parts_in_text));
  }
  std::unique_ptr<TaskQueue> helpers = make_helpers(threads);
  const std::size_t limit = threads > 1 ? 2 * static_cast<std::size_t>(threads) : 1;
  int record_base = 0;
  long long line_base = 0;
  bool source_done = false;
  while (true) {
    while (!source_done && in_flight.size() < limit) {
      auto p = std::make_unique<Part>();
      p->name = &name;
      p->keep_spans = keep_spans;
      if (!source.next(*p)) {
        source_done = true;
        break;
      }
      if (!spare_arrays.empty()) {
        p->records.arrays = std::move(spare_arrays.back());
        spare_arrays.pop_back();
      }
      // Held in flight before a helper may take it.
      in_flight.push_back(std::move(p));
      start(helpers.get(), *in_flight.back());
    }
    if (in_flight.empty()) break;
    Part& front = *in_flight.front();
    if (helpers) helpers->finish(front, threads - 1);
    if (front.state == Part::State::cut) {
      // The guess of where the part ends was wrong: the rest of the file is
      // read as one part, from the part's start.
      if (helpers) {
        for (auto& p : in_flight) helpers->finish(*p, threads - 1);
      }
      auto whole = std::make_unique<Part>();
      whole->name = &name;
      whole->mol2 = front.mol2;
      whole->keep_spans = keep_spans;
      whole->offset = front.offset;
      whole->last = true;
      if (file != nullptr) {
        std::vector<char> held;
        for (auto& p : in_flight) held.insert(held.end(), p->text.begin(), p->text.end());
        const std::string_view rest = source.take_rest();
        held.insert(held.end(), rest.begin(), rest.end());
        in_flight.clear();
        Lines lines(file, std::move(held));
        whole->read(lines);
        if (lines.failed) source.failed = true;
      } else {
        in_flight.clear();
        Lines lines(text.substr(whole->offset));
        whole->read(lines);
      }
      whole->done = true;
      source_done = true;
      in_flight.push_back(std::move(whole));
      continue;
    }
    if (front.state == Part::State::fault)
      fatal_error(format_text("%s: record %d (line %lld): %s\n", name.c_str(), record_base + front.fault.record,
                              line_base + front.fault.line, front.fault.what.c_str()));
    if (front.state == Part::State::failed) {
      if (front.out_of_memory) throw std::bad_alloc();
      report(front.failure);
    }
    record_base += front.records.records;
    line_base += front.records.lines;
    source.recycle(std::move(front.bytes));
    front.records.placed = arena.place(front.records.arrays);
    front.records.arrays.clear();
    spare_arrays.push_back(std::move(front.records.arrays));
    parts.push_back(std::move(in_flight.front()));
    in_flight.pop_front();
  }
  if (source.failed) fatal_error(format_text("can't read a file '%s'\n", name.c_str()));
  for (const auto& p : parts)
    if (p->too_many_labels) refuse_labels(name);
  for (const auto& p : parts)
    if (p->arrange_failed) {
      if (p->arrange_out_of_memory) throw std::bad_alloc();
      report(p->arrange_failure);
    }
  return parts;
}

// The space from its parts: labels numbered over the whole space, the
// records in order, the index; refuses the same fragment twice.
void gather(std::vector<std::unique_ptr<Part>>& parts, DescriptorSpace& space, int threads) {
  space.mol2 = !parts.empty() && parts.front()->mol2;
  auto merge_labels = [&parts](std::vector<std::string> PartRecords::*labels, std::vector<std::string>& all) {
    for (const auto& p : parts) all.insert(all.end(), (p->records.*labels).begin(), (p->records.*labels).end());
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
  };
  merge_labels(&PartRecords::atom_labels, space.atom_labels);
  merge_labels(&PartRecords::bond_labels, space.bond_labels);
  if (space.atom_labels.size() > MAX_SPACE_VALUE + 1u) refuse_labels(space.name);
  std::size_t records = 0, rearranged = 0;
  for (const auto& p : parts) {
    records += p->records.starts.size();
    rearranged += p->records.rearranged.size();
  }
  space.records.reserve(records);
  space.rearranged.reserve(rearranged);
  std::vector<int> first(parts.size());  // each part's first record, 0-based
  for (std::size_t i = 0; i < parts.size(); ++i) {
    PartRecords& r = parts[i]->records;
    first[i] = static_cast<int>(space.records.size());
    for (const std::size_t s : r.starts) space.records.push_back(r.placed + s);
    for (const auto& [k, s] : r.rearranged) space.rearranged.emplace_back(first[i] + k + 1, r.placed + s);
    for (const auto& [start, length] : r.spans) space.spans.emplace_back(parts[i]->offset + start, length);
    if (r.shortest > 0) space.shortest = space.shortest == 0 ? r.shortest : std::min(space.shortest, r.shortest);
    space.longest = std::max(space.longest, r.longest);
  }
  // Each part's labels in the space's numbers, and each record's hash in the
  // arrangement labelling gives it, part by part on the threads.
  const int n = space.size();
  std::vector<std::uint64_t> hashes(n);
  const int workers = std::clamp(threads, 1, std::max(1, static_cast<int>(parts.size())));
  run_parts(workers, [&](int worker) {
    for (std::size_t i = static_cast<std::size_t>(worker); i < parts.size(); i += static_cast<std::size_t>(workers)) {
      PartRecords& r = parts[i]->records;
      auto numbers = [](const std::vector<std::string>& local, const std::vector<std::string>& all) {
        std::vector<int> number(local.size());
        for (std::size_t k = 0; k < local.size(); ++k)
          number[k] = static_cast<int>(std::lower_bound(all.begin(), all.end(), local[k]) - all.begin());
        return number;
      };
      const std::vector<int> atom_number = numbers(r.atom_labels, space.atom_labels);
      const std::vector<int> bond_number = numbers(r.bond_labels, space.bond_labels);
      for (const std::size_t s : r.starts) renumber_labels(r.placed + s, atom_number, bond_number);
      for (const auto& [k, s] : r.rearranged) renumber_labels(r.placed + s, atom_number, bond_number);
      std::size_t next = 0;
      for (int k = 0; k < static_cast<int>(r.starts.size()); ++k) {
        const bool moved = next < r.rearranged.size() && r.rearranged[next].first == k;
        hashes[first[i] + k] = own_hash(r.placed + (moved ? r.rearranged[next++].second : r.starts[k]));
      }
    }
  });
  parts.clear();

  // The index, filled in record order with the arrangement labelling gives
  // each record: the first record that repeats an earlier one is named, with
  // the one it repeats.
  const std::size_t entries = space.records.size() + space.rearranged.size();
  // At most two thirds full: with the tags, a probe rarely leaves a cache line.
  std::size_t size = 16;
  while (2 * size < 3 * entries) size *= 2;
  space.slot_memory = SpaceMemory(size * sizeof(SpaceSlot));
  space.slot_count = size;
  SpaceSlot* slots = static_cast<SpaceSlot*>(space.slot_memory.data());
  const std::size_t mask = size - 1;
  auto form_of = [&space, n](std::uint32_t entry) {
    return entry < static_cast<std::uint32_t>(n) ? space.records[entry] : space.rearranged[entry - n].second;
  };
  auto descriptor_of = [&space, n](std::uint32_t entry) {
    return entry < static_cast<std::uint32_t>(n) ? static_cast<int>(entry) + 1 : space.rearranged[entry - n].first;
  };
  auto insert = [&](std::uint32_t entry, std::uint64_t h, bool check) {
    const SpaceValue* form = form_of(entry);
    const std::uint32_t tag = static_cast<std::uint32_t>(h >> 32);
    std::size_t b = h & mask;
    for (; slots[b].entry != 0; b = (b + 1) & mask)
      if (check && slots[b].tag == tag && same_arrays(form_of(slots[b].entry - 1), form))
        fatal_error(format_text("%s: record %d: the same fragment as record %d\n", space.name.c_str(),
                                descriptor_of(entry), descriptor_of(slots[b].entry - 1)));
    slots[b] = SpaceSlot{tag, entry + 1};
  };
  // Each record in the arrangement labelling gives it, in record order; each
  // placing waits on a slot far away, so the slots a few records ahead are
  // fetched meanwhile.
  std::vector<std::uint32_t> entry(n);
  std::iota(entry.begin(), entry.end(), 0u);
  for (std::size_t k = 0; k < space.rearranged.size(); ++k)
    entry[space.rearranged[k].first - 1] = static_cast<std::uint32_t>(n + k);
  constexpr int AHEAD = 8;
  for (int k = 0; k < n; ++k) {
    if (k + AHEAD < n) __builtin_prefetch(&slots[hashes[k + AHEAD] & mask]);
    insert(entry[k], hashes[k], true);
  }
  // Records as written too, which lookups prefer.
  for (const auto& [d, form] : space.rearranged) insert(d - 1, own_hash(space.records[d - 1]), false);
}

}  // namespace

SpaceFragment fragment_at(const SpaceValue* values) { return view_at(values); }

SpaceFragment DescriptorSpace::fragment(int d) const { return view_at(records[d - 1]); }

DescriptorSpace read_space(const std::string& name, std::string text, bool keep_text, int threads,
                           std::size_t chunk_bytes) {
  DescriptorSpace space;
  space.name = name;
  {
    PartSource source(std::string_view(text), chunk_bytes > 0 ? chunk_bytes : PART_BYTES);
    std::vector<std::unique_ptr<Part>> parts =
        read_parts(name, source, nullptr, text, text.size(), keep_text, threads, space);
    gather(parts, space, threads);
  }
  if (keep_text) space.text = std::move(text);
  return space;
}

DescriptorSpace read_space_file(const std::string& path, bool keep_text, int threads, std::size_t chunk_bytes) {
  FilePtr f = open_file(path, "r");
  if (keep_text) {
    std::string text;
    char buffer[1 << 16];
    for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, f.get())) > 0;) text.append(buffer, got);
    if (std::ferror(f.get())) fatal_error(format_text("can't read a file '%s'\n", path.c_str()));
    return read_space(path, std::move(text), true, threads, chunk_bytes);
  }
  DescriptorSpace space;
  space.name = path;
  PartSource source(f.get(), chunk_bytes > 0 ? chunk_bytes : PART_BYTES);
  struct stat st;
  const std::size_t bytes = fstat(fileno(f.get()), &st) == 0 && S_ISREG(st.st_mode) ? st.st_size : 0;
  std::vector<std::unique_ptr<Part>> parts = read_parts(path, source, f.get(), {}, bytes, false, threads, space);
  gather(parts, space, threads);
  return space;
}

std::string_view record_text(const DescriptorSpace& space, int d) {
  if (space.text.empty() || d < 1 || d > static_cast<int>(space.spans.size())) return {};
  const auto [start, length] = space.spans[d - 1];
  return std::string_view(space.text).substr(start, length);
}

// ---- Matching ----

SpaceLookups::SpaceLookups(int descriptors)
    : found_(new std::atomic<std::uint8_t>[static_cast<std::size_t>(descriptors) + 1]) {
  for (int d = 0; d <= descriptors; ++d) found_[d].store(0, std::memory_order_relaxed);
}

bool SpaceLookups::set(int f, int d) {
  int expected = UNKNOWN;
  return forms_.make(f)->compare_exchange_strong(expected, d, std::memory_order_relaxed);
}

bool SpaceLookups::find(int d) {
  return found_[d].load(std::memory_order_relaxed) == 0 && found_[d].exchange(1, std::memory_order_relaxed) == 0;
}

SpaceMatcher::SpaceMatcher(const DescriptorSpace& space, const LabelDictionary& dict, FormStore& store,
                           SpaceLookups& lookups, std::size_t memo_limit, StepTables* steps)
    : space_(space), store_(store), lookups_(lookups), memo_limit_(memo_limit), steps_(steps) {
  // The input's label numbers in the space's: a label the space lacks leaves
  // every fragment that holds it outside.
  atom_index_.assign(dict.vertex_labels.count, -1);
  bond_index_.assign(dict.edge_labels.count, -1);
  for (int l = 0; l < static_cast<int>(space.atom_labels.size()); ++l)
    if (const auto i = array_find(std::string_view(space.atom_labels[l]), dict.vertex_labels, compare_labels); i >= 0)
      atom_index_[i] = l;
  for (int l = 0; l < static_cast<int>(space.bond_labels.size()); ++l)
    if (const auto i = array_find(std::string_view(space.bond_labels[l]), dict.edge_labels, compare_labels); i >= 0)
      bond_index_[i] = l;
}

std::uint64_t SpaceMatcher::input_hash(int form, bool& outside) {
  const GraphView g = store_.view(form);
  labels_.resize(g.vs);
  outside = true;
  for (int i = 0; i < g.vs; ++i)
    if ((labels_[i] = atom_index_[g.vl[i]]) < 0) return 0;
  FormHash h(g.vs, g.es / 2);
  for (int i = 0; i < g.vs; ++i) h.mix(labels_[i]);
  // Each bond once, from its lower end: the order the space lists them in.
  for (int i = 0; i < g.vs; ++i)
    for (int j = g.v[i]; j < g.v[i + 1]; ++j) {
      if (g.e[j] < i) continue;
      const int label = bond_index_[g.el[j]];
      if (label < 0) return 0;
      h.mix(i);
      h.mix(g.e[j]);
      h.mix(label);
    }
  outside = false;
  return h.value();
}

const SpaceValue* SpaceMatcher::form_of(std::uint32_t entry) const {
  const std::uint32_t n = static_cast<std::uint32_t>(space_.records.size());
  return entry < n ? space_.records[entry] : space_.rearranged[entry - n].second;
}

int SpaceMatcher::lookup(int form, std::uint64_t h) {
  const GraphView g = store_.view(form);
  const std::uint32_t tag = static_cast<std::uint32_t>(h >> 32);
  auto equal = [&](const SpaceValue* p) {
    const SpaceFragment f = view_at(p);
    if (f.vs != g.vs || 2 * f.bonds != g.es) return false;
    for (int i = 0; i < g.vs; ++i)
      if (atom_index_[g.vl[i]] != f.vl[i]) return false;
    const SpaceValue* bond = f.bond;
    for (int i = 0; i < g.vs; ++i)
      for (int j = g.v[i]; j < g.v[i + 1]; ++j) {
        if (g.e[j] < i) continue;
        if (bond[0] != i || bond[1] != g.e[j] || bond[2] != bond_index_[g.el[j]]) return false;
        bond += 3;
      }
    return true;
  };
  // Records as written come first, so a run's own records keep their own
  // occurrences whatever a rearranged record could claim.
  const SpaceSlot* slots = space_.slots();
  const std::size_t mask = space_.slot_count - 1;
  const std::uint32_t records = static_cast<std::uint32_t>(space_.records.size());
  int rearranged = 0;
  for (std::size_t b = h & mask; slots[b].entry != 0; b = (b + 1) & mask) {
    const SpaceSlot& s = slots[b];
    const std::uint32_t entry = s.entry - 1;
    if (s.tag != tag || !equal(form_of(entry))) continue;
    if (entry < records) return static_cast<int>(entry) + 1;
    if (rearranged == 0) rearranged = space_.rearranged[entry - records].first;
  }
  return rearranged;
}

void SpaceMatcher::match(const Graph* compounds, int n, int first, DescriptorPairs* pairs) {
  summary_.compounds += n;
  for (int k = 0; k < n; ++k) pairs[k].clear();
  if (space_.records.empty()) return;
  // Every compound counted first, then the forms none has met before looked
  // up together: each lookup waits on memory far away (the index, then the
  // records), so the index entries of all of them are fetched at once, then
  // their records, then compared.
  entries_.clear();
  ends_.clear();
  for (int k = 0; k < n; ++k) {
    // At its bound the counter forgets what it remembered and starts afresh
    // in the same memory: the forms it made stay in the store under their
    // numbers, and so do the lookups made for them.
    if (!counter_)
      counter_ = std::make_unique<FragmentCounter>(space_.shortest, space_.longest, 1, &store_, memo_limit_, steps_);
    else if (counter_->memo_full())
      counter_->forget();
    counter_->count_compound(compounds[k], first + k, entries_);
    ends_.push_back(entries_.size());
  }
  const SpaceSlot* slots = space_.slots();
  const std::size_t mask = space_.slot_count - 1;
  pending_.clear();
  if (known_.size() < static_cast<std::size_t>(store_.size())) known_.resize(store_.size(), UNKNOWN);
  for (const FormCount& entry : entries_) {
    const int f = entry.form;
    if (known_[f] != UNKNOWN) continue;
    // Another matcher may have looked it up already.
    if ((known_[f] = lookups_.get(f)) != UNKNOWN) continue;
    bool outside = false;
    const std::uint64_t h = input_hash(f, outside);
    if (outside) {
      known_[f] = 0;
      if (lookups_.set(f, 0)) {
        ++summary_.distinct_found;
        ++summary_.distinct_outside;
      }
      continue;
    }
    known_[f] = QUEUED;
    pending_.emplace_back(f, h);
    __builtin_prefetch(&slots[h & mask]);
  }
  const std::uint32_t records = static_cast<std::uint32_t>(space_.records.size());
  for (const auto& [f, h] : pending_)
    if (const std::uint32_t entry = slots[h & mask].entry; entry != 0 && entry <= records)
      __builtin_prefetch(&space_.records[entry - 1]);
  for (const auto& [f, h] : pending_)
    if (const std::uint32_t entry = slots[h & mask].entry; entry != 0) __builtin_prefetch(form_of(entry - 1));
  for (const auto& [f, h] : pending_) {
    const int d = lookup(f, h);
    known_[f] = d;
    // Another matcher may have looked the form up meanwhile, to the same end.
    if (lookups_.set(f, d)) {
      ++summary_.distinct_found;
      if (d == 0) ++summary_.distinct_outside;
    }
  }
  std::size_t begin = 0;
  for (int k = 0; k < n; ++k) {
    for (std::size_t e = begin; e < ends_[k]; ++e) {
      const int d = known_[entries_[e].form];
      if (d == 0) continue;
      pairs[k].emplace_back(d, entries_[e].count);
      summary_.occurrences_matched += entries_[e].count;
      if (lookups_.find(d)) ++summary_.descriptors_found;
    }
    begin = ends_[k];
  }
}

// ---- Applying ----

namespace {

// Compounds a worker matches at a time: the hand-over is cheap next to them,
// and the workers stay evenly busy to the end.
constexpr int APPLY_BATCH = 32;
// The memory of the matchers' counters, as a run has it for its counters: a
// share of the budget each, at least the floor, besides the growth steps
// they share.
constexpr std::size_t MEMO_BUDGET = std::size_t{96} << 20;
constexpr std::size_t MEMO_FLOOR = std::size_t{32} << 20;
constexpr std::size_t STEP_TABLES_BUDGET = std::size_t{64} << 20;

struct ApplyBatch : BatchTask {
  std::vector<std::unique_ptr<SpaceMatcher>>* matchers = nullptr;
  int first = 0;  // input index of its first compound
  int size = 0;
  std::vector<Graph> graphs = std::vector<Graph>(APPLY_BATCH);
  std::vector<std::string> names = std::vector<std::string>(APPLY_BATCH);
  std::vector<DescriptorPairs> rows = std::vector<DescriptorPairs>(APPLY_BATCH);
  PartOutcome outcome;
  // Per worker: its matcher failed part way, and is not to be trusted with
  // more. Its later batches are left unmatched: they come after the one
  // that failed, whose failure the caller meets first.
  std::vector<char>* broken = nullptr;

  bool empty() const { return size == 0; }
  void run(int worker) override {
    outcome = PartOutcome{};
    if ((*broken)[worker]) {
      outcome.failed = true;
      return;
    }
    run_guarded(outcome, [&] { (*matchers)[worker]->match(graphs.data(), size, first, rows.data()); });
    if (outcome.failed || outcome.out_of_memory) (*broken)[worker] = 1;
  }
};

}  // namespace

void apply_space(const DescriptorSpace& space, const LabelDictionary& dict, const CompoundSource& next, int compounds,
                 int threads, const std::function<void(int, const std::string&, const DescriptorPairs&)>& row,
                 ApplySummary& summary) {
  // No more threads than batches, where the compounds are known.
  threads = std::max(threads, 1);
  if (compounds > 0) threads = std::min(threads, (compounds + APPLY_BATCH - 1) / APPLY_BATCH);
  // One store of forms and one memory of growth steps for every matcher,
  // as in a run. Each counter's own memory is bounded as a run bounds its
  // counters'.
  FormStore store;
  StepTables steps(STEP_TABLES_BUDGET);
  SpaceLookups lookups(space.size());
  std::vector<std::unique_ptr<SpaceMatcher>> matchers;
  std::vector<char> broken;
  {
    OrderedBatches<ApplyBatch> batches(threads);
    threads = batches.threads();
    const std::size_t memo_limit = std::max(MEMO_FLOOR, MEMO_BUDGET / static_cast<std::size_t>(threads));
    for (int t = 0; t < threads; ++t)
      matchers.push_back(std::make_unique<SpaceMatcher>(space, dict, store, lookups, memo_limit, &steps));
    broken.assign(threads, 0);
    int next_index = 0;
    batches.run(
        [&](bool idle) { return steps.room_for_more(idle); },
        [&](ApplyBatch& b) {
          b.matchers = &matchers;
          b.broken = &broken;
          b.first = next_index;
          b.size = 0;
          // A failure part way leaves the compounds read before it in the
          // batch; nothing is read after it.
          while (b.size < APPLY_BATCH && next(b.graphs[b.size], b.names[b.size])) ++b.size;
          next_index += b.size;
          return b.size == APPLY_BATCH;
        },
        [&](ApplyBatch& b) {
          if (b.outcome.failed) throw b.outcome.failure;
          if (b.outcome.out_of_memory) throw std::bad_alloc();
          for (int k = 0; k < b.size; ++k) row(b.first + k, b.names[k], b.rows[k]);
        });
  }
  summary = ApplySummary{};
  for (const auto& m : matchers) {
    const ApplySummary& s = m->summary();
    summary.compounds += s.compounds;
    summary.occurrences_matched += s.occurrences_matched;
    summary.distinct_found += s.distinct_found;
    summary.distinct_outside += s.distinct_outside;
    summary.descriptors_found += s.descriptors_found;
  }
}

void apply_space(const DescriptorSpace& space, const CompoundInput& input, int threads,
                 const std::function<void(int, const DescriptorPairs&)>& row, ApplySummary& summary) {
  std::size_t c = 0;
  apply_space(
      space, input.dictionary,
      [&](Graph& g, std::string& name) {
        if (c == input.compounds.size()) return false;
        g = input.compounds[c];
        name = input.compound_names[c];
        ++c;
        return true;
      },
      static_cast<int>(input.compounds.size()), threads,
      [&](int k, const std::string&, const DescriptorPairs& pairs) { row(k, pairs); }, summary);
}
