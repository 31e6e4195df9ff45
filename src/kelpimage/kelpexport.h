// Marks the symbols that form the library's external interface. Everything
// else is built with hidden visibility.
#pragma once

#define KELP_API __attribute__((visibility("default")))
