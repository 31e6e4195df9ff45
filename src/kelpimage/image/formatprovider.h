// Inside the library: where its own plug-in framework enters itself as the
// provider of formats when the library loads.
#pragma once

#include "kelpimage/image/formatgateway.h"

void setBuiltInFormatProvider(const TformatProvider* provider);
