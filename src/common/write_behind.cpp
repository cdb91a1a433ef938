// Writing on a thread of its own; see write_behind.h.
#include "common/write_behind.h"

#include <cerrno>
#include <exception>

void WriteBehind::write_now() {
  for (std::string_view piece : pieces_) std::fwrite(piece.data(), 1, piece.size(), file_);
  if (std::ferror(file_) && error_ == 0) error_ = errno;
}

void WriteBehind::write(std::vector<std::string_view> pieces) {
  wait();
  pieces_ = std::move(pieces);
  if (!behind_) {
    write_now();
    return;
  }
  try {
    thread_ = std::thread([this] { write_now(); });
  } catch (const std::exception&) {
    // No thread to be had (an address-space limit may refuse its stack):
    // write here.
    write_now();
  }
}

void WriteBehind::wait() {
  if (thread_.joinable()) thread_.join();
  if (error_ != 0) errno = error_;
}
