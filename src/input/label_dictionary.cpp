// What both readers share: the line source, the tokeniser, the atom label
// list of the dictionary pass, the dictionary file and its loader.
#include "input/input_internal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <unistd.h>

InputLines::InputLines(std::FILE* stream, std::size_t chunk_size, std::size_t line_buffer_size)
    : stream_(stream), chunk_size_(chunk_size), line_limit_(line_buffer_size - 1), chunk_(new char[chunk_size]) {
  TAVRIX_CHECK(chunk_size >= 1 && line_buffer_size >= 2);
}

bool InputLines::refill() {
  if (at_eof_) return false;
  pos_ = 0;
  end_ = std::fread(chunk_.get(), 1, chunk_size_, stream_);
  // fread only comes back short at the end of the file (or on an error,
  // which reads as its end), so the next refill need not ask again.
  at_eof_ = end_ < chunk_size_;
  return end_ > 0;
}

int InputLines::get() {
  if (pos_ == end_ && !refill()) return EOF;
  return static_cast<unsigned char>(chunk_[pos_++]);
}

// The byte-at-a-time reading that defines a line; every shortcut in
// next_line must agree with it.
bool InputLines::gather_line() {
  if (!gathered_) gathered_.reset(new char[line_limit_]);
  char* buf = gathered_.get();
  std::size_t n = 0;
  while (n < line_limit_) {
    int c = get();
    if (c == EOF) break;
    if (c == '\r') {
      // Drop it when it ends the line, so "\r\n" takes the place of "\n" and
      // the line fills the buffer exactly as its LF twin would.
      int after = get();
      if (after == EOF) break;
      if (after == '\n') {
        buf[n++] = '\n';
        break;
      }
      --pos_;  // get() just read it from the chunk, so it is still there
    }
    buf[n++] = static_cast<char>(c);
    if (c == '\n') break;
  }
  line = std::string_view(buf, n);
  return n > 0;
}

bool next_line(InputLines& in) {
  if (in.pos_ == in.end_) in.refill();
  // A line that ends within the chunk, or that reaches the length limit
  // within it, is taken where it lies. The limit counts a "\r\n" pair as one
  // byte, so up to line_limit_ + 1 bytes are looked at.
  char* start = in.chunk_.get() + in.pos_;
  const std::size_t limit = in.line_limit_;
  const std::size_t look = std::min(in.end_ - in.pos_, limit + 1);
  char* feed = static_cast<char*>(std::memchr(start, '\n', look));
  std::size_t take = 0, length = 0;  // bytes consumed, bytes of the line
  if (feed != nullptr) {
    take = feed - start + 1;
    if (take >= 2 && feed[-1] == '\r') {
      feed[-1] = '\n';
      length = take - 1;
    } else {
      // Without the pair, a feed just past the limit starts the next line.
      take = length = std::min(take, limit);
    }
  } else if (look > limit) {
    // No feed among limit + 1 bytes: the line is cut at the limit, and a
    // carriage return in its last place is not followed by a feed.
    take = length = limit;
  }
  if (length > 0) {
    in.pos_ += take;
    in.line = std::string_view(start, length);
  } else if (!in.gather_line()) {  // the line runs to the end of the chunk
    in.line = {};
    return false;
  }
  const void* nul = std::memchr(in.line.data(), '\0', in.line.size());
  if (nul != nullptr) in.line = in.line.substr(0, static_cast<const char*>(nul) - in.line.data());
  return true;
}

void refuse_record(const RecordRef& record, const std::string& what) {
  fatal_error(format_text("compound %d (%s): %s\n", record.number, record.name.c_str(), what.c_str()));
}

std::string_view without_line_feed(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  return line;
}

int leading_number(std::string_view text) {
  int value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') break;
    if (value < 100000000) value = value * 10 + (c - '0');
  }
  return value;
}

void tokenize_line(std::string_view line, TokenArray& tokens) {
  // Only the part before the first line feed is split, as the copy with its
  // line feeds cut would be. Tokens are short, so they are walked byte by
  // byte rather than searched for.
  std::string_view text = line.substr(0, line.find('\n'));
  const char* const start = text.data();
  const char* const end = start + text.size();
  const char* p = start;
  while (p != end && *p == ' ') ++p;
  if (line.size() < 2 || p == end) {
    tokens.count = 0;
    tokens.slot[0] = "nil";
    return;
  }
  const std::size_t first = p - start;
  int count = 0;
  while (p != end) {
    const char* token = p;
    while (p != end && *p != ' ') ++p;
    tokens.slot[count++] = std::string_view(token, p - token);
    // Checked before the next token is looked for, so a line of exactly
    // MAX_TOKENS tokens is refused as well.
    if (count == MAX_TOKENS) {
      // The split copy of the line reads, from its start, as its leading
      // spaces and the first token.
      fatal_error(format_text("total items in this transaction = %d,id = %s,str = %s\n", MAX_TOKENS,
                              std::string(tokens.slot[MAX_TOKENS - 1]).c_str(),
                              std::string(text.substr(0, first + tokens.slot[0].size())).c_str()) +
                  "memory for array not sufficient\n");
    }
    while (p != end && *p == ' ') ++p;
  }
  tokens.count = count;
}

void check_token_limit(std::string_view line, TokenArray& tokens) {
  // MAX_TOKENS tokens and the spaces between them take 2 * MAX_TOKENS - 1
  // bytes; shorter lines cannot reach the limit and need no splitting.
  if (line.size() >= 2 * static_cast<std::size_t>(MAX_TOKENS) - 1) tokenize_line(line, tokens);
}

void check_token_limit_later(std::string_view line, TokenArray& tokens, Failure& refusal) {
  if (!refusal.message.empty() || line.size() < 2 * static_cast<std::size_t>(MAX_TOKENS) - 1) return;
  try {
    RaiseFailures raise;
    tokenize_line(line, tokens);
  } catch (const Failure& f) {
    refusal = f;
  }
}

bool first_token_is_record_end(std::string_view line) {
  std::size_t first = 0;
  while (first < line.size() && line[first] == ' ') ++first;
  // The token ends at a space, the line feed (which ends what is split) or
  // the end of the line.
  if (line.substr(first, 4) != "$$$$") return false;
  std::size_t after = first + 4;
  return after == line.size() || line[after] == ' ' || line[after] == '\n';
}

int note_atom_label(std::string_view label, int known, std::vector<std::string>& atom_label_list) {
  for (int i = 0; i < known; ++i)
    if (atom_label_list[i] == label) return 1;
  if (known >= static_cast<int>(atom_label_list.size())) return -1;
  atom_label_list[known].assign(label);
  return 0;
}

void collect_atom_label(LabelCollector& labels, std::string_view label, int record) {
  if (labels.overflow_record >= 0) return;
  int found = note_atom_label(label, labels.known, labels.atom_label_list);
  if (found == -1) {
    labels.overflow_record = record;
  } else if (found == 0) {
    if (labels.dict != nullptr) std::fprintf(labels.dict, "V %.*s\n", static_cast<int>(label.size()), label.data());
    ++labels.known;
  }
}

DictionaryScan finish_scan(LabelCollector& labels, int compounds) {
  DictionaryScan scan;
  scan.compounds = compounds;
  scan.label_overflow_record = labels.overflow_record;
  labels.atom_label_list.resize(labels.known);
  scan.labels = std::move(labels.atom_label_list);
  return scan;
}

void refuse_label_overflow(const RecordRef& record) {
  refuse_record(record, format_text("the file holds more than %d distinct atom labels", MAX_ATOM_LABELS));
}

namespace {

const char DICTIONARY_HEAD[] = "# number of vertices, # of edges is 4\n";
const char SD_BOND_LABELS[] = "E -\nE =\nE #\nE ~\n";
const char MOL2_BOND_LABELS[] = "E -\nE =\nE #\nE ~\nE *\n";

// Opens a dictionary file without following a symbolic link left at its
// name (which could point anywhere) and without blocking on a FIFO there.
std::FILE* open_no_follow(const std::string& name, bool write) {
  const int flags = (write ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const int fd = open(name.c_str(), flags, 0666);
  if (fd < 0) return nullptr;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return nullptr;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  std::FILE* f = fdopen(fd, write ? "w" : "r");
  if (f == nullptr) close(fd);
  return f;
}

// One line of a dictionary file: a comment, or a type letter, whitespace and
// a label up to the next whitespace. `line` is what "%s" would see of it.
void add_dictionary_line(const char* line, LabelDictionary& dict) {
  auto is_space = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
  if (line[0] == '#') return;
  if (line[0] != 'E' && line[0] != 'V') fatal_error("invalid line at");
  const char* p = line + 1;
  while (*p != '\0' && is_space(*p)) ++p;
  const char* end = p;
  while (*end != '\0' && !is_space(*end)) ++end;
  if (end == p) fatal_error("wrong formatted line at");
  std::string_view label(p, end - p);
  if (line[0] == 'E') add_edge_label(label, dict);
  else add_vertex_label(label, dict);
}

}  // namespace

FilePtr create_dictionary_file(const std::string& dict_name, bool mol2) {
  FilePtr dict(open_no_follow(dict_name, true));
  if (!dict) refuse_open(dict_name);
  std::fputs(DICTIONARY_HEAD, dict.get());
  std::fputs(mol2 ? MOL2_BOND_LABELS : SD_BOND_LABELS, dict.get());
  return dict;
}

void finish_dictionary_file(FilePtr dict, const std::string& dict_name) { close_written(dict, dict_name); }

LabelDictionary load_label_dictionary(const std::string& file_name) {
  LabelDictionary dict = new_label_dictionary();
  std::vector<char> buffer(1024);
  std::size_t size = buffer.size();
  FilePtr in(open_no_follow(file_name, false));
  if (!in) refuse_open(file_name);
  while (read_line(buffer, size, in.get())) add_dictionary_line(buffer.data(), dict);
  return dict;
}

LabelDictionary dictionary_of_labels(bool mol2, const std::vector<std::string>& labels) {
  LabelDictionary dict = new_label_dictionary();
  std::string text = std::string(DICTIONARY_HEAD) + (mol2 ? MOL2_BOND_LABELS : SD_BOND_LABELS);
  for (const std::string& label : labels) text += "V " + label + "\n";
  // The file's lines as read_line hands them back: each up to its line feed.
  std::string line;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = text.find('\n', start);
    line.assign(text, start, end + 1 - start);
    add_dictionary_line(line.c_str(), dict);
    start = end + 1;
  }
  return dict;
}

// ---- The input file ------------------------------------------------------

namespace {

InputFile::FileState state_of(const struct stat& st) {
  return InputFile::FileState{static_cast<unsigned long long>(st.st_dev), static_cast<unsigned long long>(st.st_ino),
                              static_cast<long long>(st.st_size), static_cast<long long>(st.st_mtim.tv_sec),
                              static_cast<long long>(st.st_mtim.tv_nsec)};
}

}  // namespace

FilePtr open_pass(InputFile& input) {
  if (input.text != nullptr) {
    // fmemopen refuses an empty buffer; an empty input reads like /dev/null.
    if (input.text->empty()) return open_file("/dev/null", "r");
    std::FILE* f = fmemopen(const_cast<char*>(input.text->data()), input.text->size(), "r");
    if (f == nullptr) refuse_open(input.name);
    return FilePtr(f);
  }
  // Not blocking: a FIFO must be refused, not waited on.
  const int fd = open(input.name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    if (fd >= 0) close(fd);
    if (input.watched) refuse_changed_input(input);
    refuse_open(input.name);
  }
  if (!S_ISREG(st.st_mode)) {
    close(fd);
    fatal_error(format_text("input file '%s' is not a regular file: it is read several times, so it must be one\n",
                            input.name.c_str()));
  }
  if (!input.watched) {
    input.first = state_of(st);
    input.watched = true;
  } else if (!(state_of(st) == input.first)) {
    close(fd);
    refuse_changed_input(input);
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  std::FILE* f = fdopen(fd, "r");
  if (f == nullptr) {
    close(fd);
    refuse_open(input.name);
  }
  return FilePtr(f);
}

bool input_has_changed(const InputFile& input) {
  if (!input.watched) return false;
  struct stat st;
  return stat(input.name.c_str(), &st) != 0 || !(state_of(st) == input.first);
}

void refuse_changed_input(const InputFile& input) {
  fatal_error(format_text("input file changed while it was being read: '%s'\n", input.name.c_str()));
}

void warn_if_compressed(std::FILE* file, const std::string& name) {
  unsigned char head[2];
  if (pread(fileno(file), head, 2, 0) != 2 || head[0] != 0x1f || head[1] != 0x8b) return;
  std::fprintf(stderr,
               "warning: '%s' is compressed with gzip, which Tavrix reads as it stands (no compounds or "
               "garbage); decompress it first (gzip -dc '%s' > FILE) and give Tavrix FILE\n",
               name.c_str(), name.c_str());
}
