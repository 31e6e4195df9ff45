// The stb decoders and encoders, compiled into the plug-in that includes
// this file, with only the formats its STBI_ONLY_* definition names. Files
// are read and written through the plug-in's own callbacks.
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STBI_NO_STDIO
// (stb_image_write keeps its file variants: its Radiance writer sits among them.)
#define STBI_MAX_DIMENSIONS 65535

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wall"
#pragma GCC diagnostic ignored "-Wextra"
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wsign-compare"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wimplicit-fallthrough"
#pragma GCC diagnostic ignored "-Wunused-but-set-variable"
#include <stb/stb_image.h>
#include <stb/stb_image_write.h>
#pragma GCC diagnostic pop
