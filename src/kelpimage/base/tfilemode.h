// The permissions a new file gets, for the files the library writes under
// a temporary name and renames into place (internal to the library).
#pragma once

#include <sys/types.h>

// 0666 less the process's file creation mask, read without changing it
// (changing it would race with other threads creating files).
mode_t newFileMode();
