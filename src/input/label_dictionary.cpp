// What both readers share: the line source, the tokeniser, the atom label
// list of the dictionary pass, the dictionary file and its loader.
#include "input/input_internal.h"

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
      std::printf("total items in this transaction = %d,id = %s,str = %s\n", MAX_TOKENS,
                  std::string(tokens.slot[MAX_TOKENS - 1]).c_str(),
                  std::string(text.substr(0, first + tokens.slot[0].size())).c_str());
      fatal_error("memory for array not sufficient\n");
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
    std::fprintf(labels.dict, "V %.*s\n", static_cast<int>(label.size()), label.data());
    ++labels.known;
  }
}

void refuse_label_overflow(const RecordRef& record) {
  refuse_record(record, format_text("the file holds more than %d distinct atom labels", MAX_ATOM_LABELS));
}

FilePtr create_dictionary_file(const std::string& dict_name, bool mol2) {
  FilePtr dict = open_file(dict_name, "w");
  std::fputs("# number of vertices, # of edges is 4\n", dict.get());
  std::fputs(mol2 ? "E -\nE =\nE #\nE ~\nE *\n" : "E -\nE =\nE #\nE ~\n", dict.get());
  return dict;
}

LabelDictionary load_label_dictionary(const std::string& file_name) {
  LabelDictionary dict = new_label_dictionary();
  std::vector<char> buffer(1024);
  std::size_t size = buffer.size();
  FilePtr in = open_file(file_name, "r");
  auto is_space = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
  while (read_line(buffer, size, in.get())) {
    const char* line = buffer.data();
    if (line[0] == '#') continue;
    if (line[0] != 'E' && line[0] != 'V') fatal_error("invalid line at");
    // One type letter, any whitespace, then the label up to the next whitespace.
    const char* p = line + 1;
    while (*p != '\0' && is_space(*p)) ++p;
    const char* end = p;
    while (*end != '\0' && !is_space(*end)) ++end;
    if (end == p) fatal_error("wrong formatted line at");
    std::string_view label(p, end - p);
    if (line[0] == 'E') add_edge_label(label, dict);
    else add_vertex_label(label, dict);
  }
  return dict;
}

void warn_if_compressed(std::FILE* file, const std::string& name) {
  unsigned char head[2];
  if (pread(fileno(file), head, 2, 0) != 2 || head[0] != 0x1f || head[1] != 0x8b) return;
  std::fprintf(stderr,
               "warning: '%s' is compressed with gzip, which Tavrix reads as it stands (no compounds or "
               "garbage); decompress it first (gzip -dc '%s' > FILE) and give Tavrix FILE\n",
               name.c_str(), name.c_str());
}
