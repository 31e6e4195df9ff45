#include "kelpimage/base/tstringtable.h"

#include <mutex>
#include <vector>

namespace {
struct Tables {
  std::mutex lock;
  std::vector<std::pair<const TstringMessage*, size_t>> list;
};

// Made on first use, so tables added by static initialisers of any file find it.
Tables& tables() {
  static Tables* t = new Tables;
  return *t;
}
}  // namespace

void TstringAddMessages(const TstringMessage* table, size_t count) {
  Tables& t = tables();
  std::lock_guard<std::mutex> guard(t.lock);
  t.list.emplace_back(table, count);
}

const char* TstringFindMessage(int id) {
  Tables& t = tables();
  std::lock_guard<std::mutex> guard(t.lock);
  for (auto [table, count] : t.list)
    for (size_t i = 0; i < count; ++i)
      if (table[i].id == id) return table[i].text;
  return nullptr;
}
