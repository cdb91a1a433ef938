// Descriptor file to Matrix Market: line parsing and the two-pass export.
#include "matrix_export.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/stat.h>

namespace {

constexpr long long NUMBER_LIMIT = 2147483647;  // what R's and SciPy's int32 indices hold

// Reads the unsigned decimal number at text[pos...], moving pos past it.
// False when no digit is there or the value exceeds NUMBER_LIMIT.
bool read_number(std::string_view text, std::size_t& pos, long long& value, bool& too_large) {
  too_large = false;
  std::size_t start = pos;
  value = 0;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
    value = value * 10 + (text[pos] - '0');
    if (value > NUMBER_LIMIT) too_large = true, value = NUMBER_LIMIT;  // keep scanning, no overflow
    ++pos;
  }
  return pos > start && !too_large;
}

std::string number_fault(const std::string& what, bool too_large) {
  return too_large ? what + " is larger than 2147483647" : "expected " + what;
}

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Lines of a file, one at a time, with their line ends cut; memory is that
// of the longest line.
struct LineReader {
  std::FILE* file = nullptr;
  char* buffer = nullptr;
  std::size_t capacity = 0;
  ~LineReader() { std::free(buffer); }
  bool next(std::string_view& line) {
    ssize_t n = getline(&buffer, &capacity, file);
    if (n < 0) return false;
    std::size_t len = static_cast<std::size_t>(n);
    if (len > 0 && buffer[len - 1] == '\n') --len;
    line = std::string_view(buffer, len);
    return true;
  }
};

std::string located(const std::string& path, long long line_number, const std::string& fault) {
  return path + ":" + std::to_string(line_number) + ": " + fault;
}

bool write_all(std::FILE* f, const char* data, std::size_t size) { return std::fwrite(data, 1, size, f) == size; }

// The message of a failed write, taken while errno still holds its reason.
std::string write_fault(const std::string& path) {
  return path + ": can't write: " + std::strerror(errno != 0 ? errno : EIO);
}

// True when path names the already open file (a link or another spelling
// of it included): opening it for writing would empty it.
bool is_same_file(const std::string& path, std::FILE* input) {
  struct stat a, b;
  return stat(path.c_str(), &a) == 0 && fstat(fileno(input), &b) == 0 && a.st_dev == b.st_dev &&
         a.st_ino == b.st_ino;
}

}  // namespace

std::string parse_descriptor_line(std::string_view text, DescriptorLine& line) {
  line.name = {};
  line.entries.clear();
  if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
  if (text.empty() || text[0] != '"') return "expected a line starting with '\"'";
  const std::size_t close = text.rfind('"');
  if (close == 0 || close + 1 >= text.size() || text[close + 1] != ',')
    return "expected '\",' after the name";
  line.name = text.substr(1, close - 1);
  std::size_t pos = close + 2;
  long long m = 0;
  bool too_large = false;
  if (!read_number(text, pos, m, too_large)) return number_fault("the number of descriptors after the name", too_large);
  // Each pair takes at least four characters: a huge announced count on a
  // short line must not reserve memory it will never use.
  line.entries.reserve(std::min(static_cast<std::size_t>(m), (text.size() - pos) / 4));
  for (long long i = 0; i < m; ++i) {
    long long descriptor = 0, count = 0;
    const std::string previous =
        i == 0 ? "the number of descriptors" : "the count of descriptor " + std::to_string(line.entries.back().descriptor);
    if (pos >= text.size() || text[pos] != ',') return "expected ',' after " + previous;
    ++pos;
    if (!read_number(text, pos, descriptor, too_large))
      return number_fault("descriptor number " + std::to_string(i + 1) + " of " + std::to_string(m), too_large);
    if (descriptor == 0) return "descriptor number 0 (they start at 1)";
    if (pos >= text.size() || text[pos] != ',') return "expected a count after descriptor " + std::to_string(descriptor);
    ++pos;
    if (!read_number(text, pos, count, too_large))
      return number_fault("a count after descriptor " + std::to_string(descriptor), too_large);
    if (count == 0) return "count 0 for descriptor " + std::to_string(descriptor);
    line.entries.push_back({static_cast<int>(descriptor), static_cast<int>(count)});
  }
  if (pos != text.size()) {
    if (text[pos] == ',')
      return "more pairs than the " + std::to_string(m) + " announced";
    return "unexpected '" + std::string(1, text[pos]) + "' at column " + std::to_string(pos + 1);
  }
  // Ties cannot reach the output: equal descriptors are refused just below.
  std::sort(line.entries.begin(), line.entries.end(),
            [](const MatrixEntry& a, const MatrixEntry& b) { return a.descriptor < b.descriptor; });
  for (std::size_t i = 1; i < line.entries.size(); ++i)
    if (line.entries[i].descriptor == line.entries[i - 1].descriptor)
      return "descriptor " + std::to_string(line.entries[i].descriptor) + " appears twice";
  return "";
}

std::string default_stem(const std::string& input) {
  const std::string suffix = ".out";
  if (input.size() > suffix.size() && input.compare(input.size() - suffix.size(), suffix.size(), suffix) == 0)
    return input.substr(0, input.size() - suffix.size());
  return input;
}

std::string export_matrix(const ExportRequest& request) {
  const std::string& path = request.input;
  File in(std::fopen(path.c_str(), "rb"));
  if (!in) return path + ": " + std::strerror(errno);
  const std::string mtx_path = request.stem + ".mtx", rows_path = request.stem + ".rows";
  for (const std::string& out : {mtx_path, rows_path})
    if (is_same_file(out, in.get())) return out + ": is the descriptor file being read; choose another -o STEM";

  // First pass: check every line and find the matrix size, before any
  // output exists, so a malformed file leaves nothing half written.
  LineReader reader{in.get()};
  DescriptorLine line;
  std::string_view text;
  long long rows = 0, nonzeros = 0, largest = 0;
  while (reader.next(text)) {
    ++rows;
    std::string fault = parse_descriptor_line(text, line);
    if (!fault.empty()) return located(path, rows, fault);
    if (!line.entries.empty()) {
      const long long last = line.entries.back().descriptor;
      if (request.columns >= 0 && last > request.columns)
        return located(path, rows,
                       "descriptor " + std::to_string(last) + " is beyond the " + std::to_string(request.columns) +
                           " columns asked for");
      largest = std::max(largest, last);
    }
    nonzeros += static_cast<long long>(line.entries.size());
  }
  if (std::ferror(in.get())) return path + ": read error";
  const long long columns = request.columns >= 0 ? request.columns : largest;

  File mtx(std::fopen(mtx_path.c_str(), "wb"));
  if (!mtx) return mtx_path + ": " + std::strerror(errno);
  File names(std::fopen(rows_path.c_str(), "wb"));
  if (!names) {
    const std::string message = rows_path + ": " + std::strerror(errno);
    mtx.reset();
    std::remove(mtx_path.c_str());
    return message;
  }
  auto fail = [&](const std::string& message) {
    mtx.reset();
    names.reset();
    std::remove(mtx_path.c_str());
    std::remove(rows_path.c_str());
    return message;
  };

  std::string out = "%%MatrixMarket matrix coordinate integer general\n";
  out += "% rows: compounds in the order of " + rows_path + "; columns: descriptor numbers\n";
  out += std::to_string(rows) + " " + std::to_string(columns) + " " + std::to_string(nonzeros) + "\n";
  if (!write_all(mtx.get(), out.data(), out.size())) return fail(write_fault(mtx_path));

  // Second pass: the same lines again, now written out.
  std::rewind(in.get());
  long long row = 0, written = 0;
  while (reader.next(text)) {
    ++row;
    std::string fault = parse_descriptor_line(text, line);
    if (!fault.empty() || row > rows) return fail(path + ": changed while being read");
    out.clear();
    const std::string prefix = std::to_string(row) + " ";
    for (const MatrixEntry& e : line.entries) {
      out += prefix;
      out += std::to_string(e.descriptor);
      out += ' ';
      out += std::to_string(e.count);
      out += '\n';
    }
    written += static_cast<long long>(line.entries.size());
    if (!write_all(mtx.get(), out.data(), out.size())) return fail(write_fault(mtx_path));
    if (!write_all(names.get(), line.name.data(), line.name.size()) || std::fputc('\n', names.get()) == EOF)
      return fail(write_fault(rows_path));
  }
  if (std::ferror(in.get()) || row != rows || written != nonzeros) return fail(path + ": changed while being read");
  // Closing flushes; a full disk shows up here at the latest.
  if (std::fclose(mtx.release()) != 0) return fail(write_fault(mtx_path));
  if (std::fclose(names.release()) != 0) return fail(write_fault(rows_path));
  return "";
}
