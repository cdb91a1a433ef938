// One atomic value per form of a run, for threads that read and fill them
// at once: the values lie in chunks made on first use that never move, so a
// reader needs no lock, and the table of chunks has room for more forms
// than an int can number, so it never grows either.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

template <class T>
class FormSlots {
 public:
  // Every slot starts as `empty`.
  explicit FormSlots(T empty) : empty_(empty), chunks_(std::make_unique<std::atomic<std::atomic<T>*>[]>(CHUNKS)) {}
  ~FormSlots() {
    for (std::size_t c = 0; c < CHUNKS; ++c) delete[] chunks_[c].load(std::memory_order_relaxed);
  }
  FormSlots(const FormSlots&) = delete;
  FormSlots& operator=(const FormSlots&) = delete;

  // Form f's slot, or null while its chunk is not made (every slot empty).
  std::atomic<T>* find(int f) const {
    std::atomic<T>* chunk = chunks_[static_cast<std::size_t>(f) >> CHUNK_BITS].load(std::memory_order_acquire);
    return chunk == nullptr ? nullptr : &chunk[static_cast<std::size_t>(f) & (CHUNK - 1)];
  }
  // Form f's slot, its chunk made when missing (std::bad_alloc when there
  // is no room for it).
  std::atomic<T>* make(int f) {
    std::atomic<std::atomic<T>*>& at = chunks_[static_cast<std::size_t>(f) >> CHUNK_BITS];
    std::atomic<T>* chunk = at.load(std::memory_order_acquire);
    if (chunk == nullptr) {
      auto made = std::make_unique<std::atomic<T>[]>(CHUNK);
      for (std::size_t k = 0; k < CHUNK; ++k) made[k].store(empty_, std::memory_order_relaxed);
      // Another thread may have made the chunk meanwhile: its chunk stays.
      if (at.compare_exchange_strong(chunk, made.get(), std::memory_order_acq_rel, std::memory_order_acquire))
        chunk = made.release();
    }
    return &chunk[static_cast<std::size_t>(f) & (CHUNK - 1)];
  }
  // Every slot empty again. No other thread may use the slots meanwhile.
  void reset() {
    for (std::size_t c = 0; c < CHUNKS; ++c)
      if (std::atomic<T>* chunk = chunks_[c].load(std::memory_order_relaxed))
        for (std::size_t k = 0; k < CHUNK; ++k) chunk[k].store(empty_, std::memory_order_relaxed);
  }

 private:
  static constexpr int CHUNK_BITS = 16;
  static constexpr std::size_t CHUNK = std::size_t{1} << CHUNK_BITS;
  static constexpr std::size_t CHUNKS = std::size_t{1} << (31 - CHUNK_BITS);
  T empty_;
  std::unique_ptr<std::atomic<std::atomic<T>*>[]> chunks_;
};
