// kimg: make, convert and look into image files with the kelp-image library.
#include <CLI/CLI.hpp>

#include "commands.h"

namespace {
const std::vector<std::string> kCompressions = {"none", "rle", "qrl", "qr4"};
}

int main(int argc, char** argv) {
  CLI::App app{"kimg: make, convert and inspect images with kelp-image"};
  app.require_subcommand(1);

  std::vector<std::string> infoFiles;
  bool stats = false;
  CLI::App* info = app.add_subcommand("info", "Print what an image file's header says");
  info->add_option("files", infoFiles, "Image files")->required();
  info->add_flag("--stats", stats, "Also read the pixels: minimum, maximum and mean of each channel");

  std::string chunkFile;
  CLI::App* chunks = app.add_subcommand("chunks", "Print the chunk tree of a file with offsets and sizes");
  chunks->add_option("file", chunkFile, "A chunked file")->required();

  kimg::PatternOptions pat;
  CLI::App* pattern = app.add_subcommand("pattern", "Write a synthetic picture");
  pattern->add_option("out", pat.out, "Output IFF file")->required();
  pattern->add_option("--size", pat.size, "Width and height, WxH")->capture_default_str();
  pattern->add_flag("--alpha", pat.alpha, "With a soft alpha edge");
  pattern->add_flag("--depth", pat.depth, "With a depth ramp");
  pattern->add_option("--bytes", pat.bytes, "Bytes per channel")->check(CLI::IsMember({1, 2}))->capture_default_str();
  pattern->add_option("--compression", pat.compression, "none, rle, qrl or qr4")
      ->check(CLI::IsMember(kCompressions))
      ->capture_default_str();

  kimg::ConvertOptions conv;
  CLI::App* convert = app.add_subcommand("convert", "Convert IFF and SGI pictures into IFF or SGI files");
  convert->add_option("in", conv.in, "Input file (IFF or SGI)")->required();
  convert->add_option("out", conv.out, "Output file")->required();
  convert->add_option("--compression", conv.compression, "none, rle, qrl or qr4 (default: as the input)")
      ->check(CLI::IsMember(kCompressions));
  convert->add_flag("--topdown", conv.topdown, "Write lines from the top of the image down");
  convert->add_option("--tile", conv.tile, "Tile size, WxH (default: chosen by image size)");
  convert->add_option("--resize", conv.resize, "Resample to WxH through a zoom filter");
  convert->add_option("--filter", conv.filter, "Zoom filter for --resize (see kimg filters; default auto)");
  convert->add_option("--blur", conv.blur, "Blur for --resize, X,Y in percent of the image");
  convert->add_option("--format", conv.format, "Output format: iff or sgi (default: by the extension, .sgi/.rgb for SGI)")
      ->check(CLI::IsMember({"iff", "sgi"}));

  std::string depthIn, depthOut;
  CLI::App* depth = app.add_subcommand("depth", "Write the depth channel of an image as a grey IFF picture");
  depth->add_option("in", depthIn, "IFF image with depth")->required();
  depth->add_option("out", depthOut, "Output IFF file")->required();

  CLI::App* filters = app.add_subcommand("filters", "List the zoom filters: built in and in the work area");

  kimg::CreateOptions opt;
  CLI::App* create = app.add_subcommand("create", "Write an IFF file holding image headers only");
  create->add_option("out", opt.out, "Output file (\"pipe:command\" writes to a command)")->required();
  create->add_option("--size", opt.size, "Width and height, WxH")->capture_default_str();
  create->add_option("--type", opt.type, "Channels: rgb, rgba, grey, greya, each with an optional z for depth")
      ->capture_default_str();
  create->add_option("--bytes", opt.bytes, "Bytes per channel")->check(CLI::IsMember({1, 2}))->capture_default_str();
  create->add_option("--compression", opt.compression, "none, rle, qrl or qr4")
      ->check(CLI::IsMember(kCompressions))
      ->capture_default_str();
  create->add_option("--dpi", opt.dpi, "Resolution")->capture_default_str();
  create->add_option("--origin", opt.origin, "Image origin, X,Y")->capture_default_str();
  create->add_option("--ratio", opt.ratio, "Pixel ratio, N:D")->capture_default_str();
  create->add_option("--field", opt.fields, "A text field, TAG=TEXT (TAG of four characters)");
  create->add_option("--images", opt.images, "Images in the file")->check(CLI::Range(1, 1000))->capture_default_str();

  CLI11_PARSE(app, argc, argv);
  if (*info) return kimg::info(infoFiles, stats);
  if (*chunks) return kimg::chunks(chunkFile);
  if (*pattern) return kimg::pattern(pat);
  if (*convert) return kimg::convert(conv);
  if (*filters) return kimg::filters();
  if (*depth) return kimg::depth(depthIn, depthOut);
  return kimg::create(opt);
}
