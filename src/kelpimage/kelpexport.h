// Marks the symbols that form the library's external interface. Everything
// else is built with hidden visibility.
#pragma once

#define KELP_API __attribute__((visibility("default")))
// Marks a member of an exported class that only the library calls: it
// stays inside.
#define KELP_LOCAL __attribute__((visibility("hidden")))
