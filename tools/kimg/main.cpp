// kimg: look into and make image files with the kelp-image library.
#include <CLI/CLI.hpp>

#include "commands.h"

int main(int argc, char** argv) {
  CLI::App app{"kimg: read, write and inspect images with kelp-image"};
  app.require_subcommand(1);

  std::vector<std::string> infoFiles;
  CLI::App* info = app.add_subcommand("info", "Print what an image file's header says");
  info->add_option("files", infoFiles, "Image files")->required();

  std::string chunkFile;
  CLI::App* chunks = app.add_subcommand("chunks", "Print the chunk tree of a file with offsets and sizes");
  chunks->add_option("file", chunkFile, "A chunked file")->required();

  kimg::CreateOptions opt;
  CLI::App* create = app.add_subcommand("create", "Write an IFF file holding image headers only");
  create->add_option("out", opt.out, "Output file (\"pipe:command\" writes to a command)")->required();
  create->add_option("--size", opt.size, "Width and height, WxH")->capture_default_str();
  create->add_option("--type", opt.type, "Channels: rgb, rgba, grey, greya, each with an optional z for depth")
      ->capture_default_str();
  create->add_option("--bytes", opt.bytes, "Bytes per channel")->check(CLI::IsMember({1, 2}))->capture_default_str();
  create->add_option("--compression", opt.compression, "none, rle, qrl or qr4")
      ->check(CLI::IsMember({"none", "rle", "qrl", "qr4"}))
      ->capture_default_str();
  create->add_option("--dpi", opt.dpi, "Resolution")->capture_default_str();
  create->add_option("--origin", opt.origin, "Image origin, X,Y")->capture_default_str();
  create->add_option("--ratio", opt.ratio, "Pixel ratio, N:D")->capture_default_str();
  create->add_option("--field", opt.fields, "A text field, TAG=TEXT (TAG of four characters)");
  create->add_option("--images", opt.images, "Images in the file")->check(CLI::Range(1, 1000))->capture_default_str();

  CLI11_PARSE(app, argc, argv);
  if (*info) return kimg::info(infoFiles);
  if (*chunks) return kimg::chunks(chunkFile);
  return kimg::create(opt);
}
