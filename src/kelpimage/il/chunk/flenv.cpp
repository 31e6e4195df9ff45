// The environment, as the library reads it.
#include <cstdlib>

#include "kelpimage/il/chunk/fl.h"

const char* KelpGetEnv(const char* name) { return name ? std::getenv(name) : nullptr; }
