// Numbered message texts, as Tstring(TstringIdNumber) finds them. Each layer
// that reports numbered messages adds its own table when the library loads.
#pragma once

#include <cstddef>

struct TstringMessage {
  int id;
  const char* text;
};

// Adds `count` messages; the table must live as long as the process.
void TstringAddMessages(const TstringMessage* table, size_t count);
// The text of message `id`, or null when no table has it.
const char* TstringFindMessage(int id);
