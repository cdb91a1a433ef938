// The memo of fragment graphs of the current length and their table slots.
#include "enumerate/fragment_cache.h"

#include <algorithm>
#include <cstdio>

#include "table/table.h"

namespace {

constexpr int INITIAL_BUCKETS = 1 << 16;
// Past this many entries in one length the memo stops growing (lookups go on),
// which bounds its memory whatever the input.
constexpr int MAX_ENTRIES = 1 << 24;

std::uint64_t hash_words(const std::uint32_t* w, int n) {
  std::uint64_t h = 0x243f6a8885a308d3ull ^ static_cast<std::uint64_t>(n);
  for (int i = 0; i < n; ++i) {
    h = (h ^ w[i]) * 0x9e3779b97f4a7c15ull;
    h ^= h >> 29;
  }
  h *= 0xbf58476d1ce4e5b9ull;
  return h ^ (h >> 31);
}

void clear_buckets(FragmentCache& cache, std::size_t size) {
  cache.check.assign(size, 0);
  cache.bucket.assign(size, -1);
  cache.mask = size - 1;
}

void place(FragmentCache& cache, std::uint64_t hash, int entry) {
  std::uint64_t b = hash & cache.mask;
  while (cache.bucket[b] != -1) b = (b + 1) & cache.mask;
  cache.bucket[b] = entry;
  cache.check[b] = static_cast<std::uint32_t>(hash >> 32);
}

// Small arrays (a fragment has a handful of atoms): insertion sort beats std::sort.
template <class T>
void small_sort(T* a, int n) {
  for (int i = 1; i < n; ++i) {
    const T x = a[i];
    int j = i;
    for (; j > 0 && x < a[j - 1]; --j) a[j] = a[j - 1];
    a[j] = x;
  }
}

}  // namespace

void prepare_cache(FragmentCache& cache, const FragmentTable& table, int threshold, int opt) {
  if (cache.table == &table && cache.generation == table.generation && cache.threshold == threshold &&
      cache.opt == opt && !cache.bucket.empty())
    return;
  cache.table = &table;
  cache.generation = table.generation;
  cache.threshold = threshold;
  cache.opt = opt;
  cache.words.clear();
  cache.start.assign(1, 0);
  cache.slot.clear();
  cache.stored.clear();
  clear_buckets(cache, std::max<std::size_t>(INITIAL_BUCKETS, cache.bucket.size()));
}

bool make_fragment_key(FragmentCache& cache, const EdgeSet& s, const Graph& compound) {
  const int t = s.size;
  if (t < 1) return false;
  std::vector<int>& vs = cache.vertices;
  vs.resize(2 * static_cast<std::size_t>(t));
  for (int i = 0; i < t; ++i) {
    const int a = s.edge[i].first - 1, b = s.edge[i].second - 1;
    if (a < 0 || b < 0 || a >= compound.vs || b >= compound.vs) return false;
    vs[2 * i] = a;
    vs[2 * i + 1] = b;
  }
  small_sort(vs.data(), 2 * t);
  const int nv = static_cast<int>(std::unique(vs.begin(), vs.end()) - vs.begin());
  if (nv > 255) return false;
  if (cache.vmap.size() < static_cast<std::size_t>(compound.vs)) cache.vmap.resize(compound.vs);
  const int vlwords = (nv + 1) / 2;
  cache.key.assign(1 + vlwords + t, 0);
  std::uint32_t* key = cache.key.data();
  key[0] = static_cast<std::uint32_t>(nv) | static_cast<std::uint32_t>(t) << 8;
  for (int k = 0; k < nv; ++k) {
    const int x = vs[k];
    cache.vmap[x] = k;
    const int l = compound.vl[x];
    if (l < 0 || l > 0xffff) return false;
    key[1 + k / 2] |= static_cast<std::uint32_t>(l) << (k % 2 * 16);
  }
  std::uint32_t* bonds = key + 1 + vlwords;
  for (int i = 0; i < t; ++i) {
    const int a = s.edge[i].first - 1, b = s.edge[i].second - 1;
    const int low = std::min(a, b), high = std::max(a, b);
    // The bond's label as the compound stores it from its lower end.
    int l = -1;
    for (int j = compound.v[low]; j < compound.v[low + 1]; ++j)
      if (compound.e[j] == high) {
        l = compound.el[j];
        break;
      }
    if (l < 0 || l > 0xffff || compound.vid[low] != low) return false;
    // Renumbering keeps the order of atoms, so the lower end stays lower.
    bonds[i] = static_cast<std::uint32_t>(cache.vmap[low]) << 24 | static_cast<std::uint32_t>(cache.vmap[high]) << 16 |
               static_cast<std::uint32_t>(l);
  }
  small_sort(bonds, t);
  return true;
}

int find_cached(const FragmentCache& cache, std::uint64_t& hash) {
  const int n = static_cast<int>(cache.key.size());
  hash = hash_words(cache.key.data(), n);
  const std::uint32_t high = static_cast<std::uint32_t>(hash >> 32);
  for (std::uint64_t b = hash & cache.mask;; b = (b + 1) & cache.mask) {
    const int entry = cache.bucket[b];
    if (entry == -1) return -1;
    if (cache.check[b] != high) continue;
    const int from = cache.start[entry];
    if (cache.start[entry + 1] - from == n && std::equal(cache.key.begin(), cache.key.end(), cache.words.begin() + from))
      return entry;
  }
}

int add_cached(FragmentCache& cache, std::uint64_t hash, int slot, int stored) {
  const int entry = static_cast<int>(cache.slot.size());
  if (entry >= MAX_ENTRIES || cache.words.size() + cache.key.size() > static_cast<std::size_t>(1) << 30) return -1;
  cache.words.insert(cache.words.end(), cache.key.begin(), cache.key.end());
  cache.start.push_back(static_cast<int>(cache.words.size()));
  cache.slot.push_back(slot);
  cache.stored.push_back(stored);
  // Keep the load under one half.
  if (2 * (cache.slot.size()) > cache.bucket.size()) {
    clear_buckets(cache, 2 * cache.bucket.size());
    for (int k = 0; k < entry; ++k) {
      const int from = cache.start[k];
      place(cache, hash_words(cache.words.data() + from, cache.start[k + 1] - from), k);
    }
  }
  place(cache, hash, entry);
  return entry;
}
