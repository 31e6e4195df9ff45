// kimg: make, convert and look into image files with the kelp-image library.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
#include <new>

#include "commands.h"
#include "files.h"
#include "kelpimage/base/tlimits.h"
#include "kelpimage/base/ttemporaryfiles.h"
#include "movie.h"
#include "sequence.h"
#include "util.h"

namespace {

const std::vector<std::string> kCompressions = {"none", "rle", "qrl", "qr4"};
const char* const kCompressionHelp =
    "none, rle, qrl or qr4. none and rle are exact; qrl does not keep the red channel of pixels with alpha, "
    "and qr4 crosses the channels of pixels it stores literally";
const char* const kNames =
    "Files: a name, \"-\" for standard input or output, or \"pipe:COMMAND\" to read a command's output "
    "or write to its input.";

int run(int argc, char** argv) {
  CLI::App app{std::string("kimg: make, convert and inspect pictures with kelp-image.\n") + kNames, "kimg"};
  app.set_version_flag("--version", "kimg " KELP_VERSION);
  app.require_subcommand(1);
  uint64_t limit = 0;
  app.add_option("--limit", limit,
                 "The most pixels a picture read may have (default " + std::to_string(TpixelLimit::kDefault) +
                     ", or KELP_MAX_PIXELS): pictures beyond it are refused before anything is allocated for them")
      ->check(CLI::PositiveNumber);

  std::vector<std::string> infoFiles;
  bool stats = false;
  CLI::App* info = app.add_subcommand("info", "Print what the headers of pictures say (IFF, SGI, plug-in formats) and what AVI movies hold");
  info->add_option("files", infoFiles, "Picture files")->required();
  info->add_flag("--stats", stats, "Also read the pixels: minimum, maximum and mean of each channel");
  std::string infoFrames;
  info->add_option("--frames", infoFrames, "For a frame pattern (name.####.ext): FIRST-LAST[xSTEP] (default: those on disk)");

  std::string chunkFile;
  CLI::App* chunks = app.add_subcommand("chunks", "Print the chunk tree of a file with offsets and sizes");
  chunks->add_option("file", chunkFile, "A chunked file")->required();

  kimg::PatternOptions pat;
  CLI::App* pattern = app.add_subcommand("pattern", "Write a synthetic IFF picture");
  pattern->add_option("out", pat.out, "Output IFF file")->required();
  pattern->add_option("--size", pat.size, "Width and height, WxH")->capture_default_str();
  pattern->add_flag("--alpha", pat.alpha, "With a soft alpha edge");
  pattern->add_flag("--depth", pat.depth, "With a depth ramp");
  pattern->add_option("--bytes", pat.bytes, "Bytes per channel")->check(CLI::IsMember({1, 2}))->capture_default_str();
  pattern->add_option("--compression", pat.compression, kCompressionHelp)
      ->check(CLI::IsMember(kCompressions))
      ->capture_default_str();

  kimg::ConvertOptions conv;
  CLI::App* convert = app.add_subcommand("convert", "Convert pictures between IFF, SGI and every plug-in format");
  convert->add_option("in", conv.in, "Input picture")->required();
  convert->add_option("out", conv.out, "Output file; may be the input itself")->required();
  convert->add_option("--compression", conv.compression, std::string(kCompressionHelp) + " (default: as the input)")
      ->check(CLI::IsMember(kCompressions));
  convert->add_flag("--topdown", conv.topdown, "Write IFF lines from the top of the image down");
  convert->add_option("--tile", conv.tile, "IFF tile size, WxH (default: chosen by image size)");
  convert->add_option("--resize", conv.resize, "Resample to WxH through a zoom filter");
  convert->add_option("--filter", conv.filter, "Zoom filter for --resize (see kimg filters; default auto)");
  convert->add_option("--blur", conv.blur, "Blur for --resize, X,Y in percent of the image");
  convert->add_option("--format", conv.format, "Output format: iff, sgi or a plug-in's key (default: by the extension)");
  convert->add_option("--frame", conv.frame, "Only this frame of the input (from 0): an IFF image or a plug-in's frame")
      ->check(CLI::NonNegativeNumber);
  convert->add_option("--option", conv.options,
                      "NAME=VALUE for the output format's plug-in, such as Quality=90 (kimg formats lists them)");
  convert->add_option("--layer", conv.layer,
                      "Of a Photoshop document: this layer's pixels at the size of its rectangle; "
                      "#N for the N-th ordinary layer in file order, from 0");
  convert->add_option("--alpha", conv.alpha, "Of a Photoshop document: this alpha channel (from 0), grey")
      ->check(CLI::NonNegativeNumber);
  convert->add_option("--set", conv.set, "Of a Photoshop document: this layer set's composite");
  convert->add_flag("--lenient", conv.lenient,
                    "Read past damage a decoder can step over (a file cut short), with a warning, instead of failing");
  kimg::SequenceOptions seq;
  convert->add_option("--frames", seq.frames,
                      "Frames of a sequence (IN and OUT as name.####.ext, name.#.ext or name.%04d.ext): "
                      "FIRST-LAST[xSTEP] (default: those on disk)");
  convert->add_option("--threads", seq.threads, "Frames converted at once (default: one a core)")
      ->check(CLI::Range(1, 256));
  convert->add_flag("--skip-bad", seq.skipBad, "Go on past frames that fail, and list them at the end");
  convert->add_flag("-q,--quiet", seq.quiet, "No progress line");
  convert->add_flag("-v,--verbose", seq.verbose, "Print each frame's files");

  kimg::FindOptions fnd;
  CLI::App* find = app.add_subcommand("find", "Print the file a loose image name resolves to, as a renderer finds it");
  find->add_option("name", fnd.name, "Image name, perhaps without frame padding, field marker or .Z")->required();
  find->add_option("--field", fnd.field, "The field rendered: odd or even")->check(CLI::IsMember({"odd", "even"}));
  find->add_option("--frame", fnd.frame, "The frame, tried with 0 to 4 leading zeros")->check(CLI::NonNegativeNumber);
  find->add_flag("-v,--verbose", fnd.verbose, "List the names tried");

  kimg::PsdOptions psdo;
  CLI::App* psd = app.add_subcommand("psd", "Print what a Photoshop document holds: header, resources, layer tree");
  psd->add_option("file", psdo.file, "Photoshop document (not with --new)");
  psd->add_option("--new", psdo.newSize, "Start a new document of W H pixels, with a background")->expected(2);
  psd->add_option("--depth", psdo.depth, "Bits a channel of a new document")->check(CLI::IsMember({8, 16}));
  psd->add_option("--add-set", psdo.addSets, "Add a layer set NAME on top");
  psd->add_option("--add-layer", psdo.addLayers, "NAME=PICTURE: add a layer of a picture (or put it into NAME)");
  psd->add_option("--add-to-set", psdo.addToSets, "SET=LAYER: add an empty layer LAYER into SET (--add-layer fills it)");
  psd->add_option("--add-alpha", psdo.addAlphas, "NAME=PICTURE: add an alpha channel of a grey picture");
  psd->add_option("--blend", psdo.blends, "NAME=KEY: a layer's blend key (mul is \"mul \")");
  psd->add_option("--opacity", psdo.opacities, "NAME=N: a layer's opacity, 0 to 255");
  psd->add_option("--delete-layer", psdo.deleteLayers, "Delete an ordinary layer");
  psd->add_option("--delete-set", psdo.deleteSets, "Delete a layer set with its layers");
  psd->add_flag("--sets", psdo.sets, "List the outermost layer sets");
  psd->add_option("--set", psdo.set, "Write this layer set's composite to -o OUT");
  psd->add_option("-o,--out", psdo.out,
                  "For --set: the output picture (any format kimg writes); for edits: the document written "
                  "(may be FILE itself). Edits apply in the order new, add-set, add-to-set, add-layer, add-alpha, "
                  "blend, opacity, delete-layer, delete-set");

  std::string depthIn, depthOut;
  CLI::App* depth = app.add_subcommand("depth", "Write the depth channel of an IFF picture as a grey IFF picture");
  depth->add_option("in", depthIn, "IFF picture with depth")->required();
  depth->add_option("out", depthOut, "Output IFF file")->required();

  CLI::App* filters = app.add_subcommand("filters", "List the zoom filters: built in and in the work area");
  CLI::App* formats = app.add_subcommand("formats", "List the formats: IFF, SGI and every plug-in found");

  kimg::CreateOptions opt;
  CLI::App* create = app.add_subcommand("create", "Write an IFF file holding image headers only");
  create->add_option("out", opt.out, "Output IFF file")->required();
  create->add_option("--size", opt.size, "Width and height, WxH")->capture_default_str();
  create->add_option("--type", opt.type, "Channels: rgb, rgba, grey, greya, each with an optional z for depth")
      ->capture_default_str();
  create->add_option("--bytes", opt.bytes, "Bytes per channel")->check(CLI::IsMember({1, 2}))->capture_default_str();
  create->add_option("--compression", opt.compression, kCompressionHelp)
      ->check(CLI::IsMember(kCompressions))
      ->capture_default_str();
  create->add_option("--dpi", opt.dpi, "Resolution")->capture_default_str();
  create->add_option("--origin", opt.origin, "Image origin, X,Y")->capture_default_str();
  create->add_option("--ratio", opt.ratio, "Pixel ratio, N:D")->capture_default_str();
  create->add_option("--field", opt.fields, "A text field, TAG=TEXT (TAG of four characters)");
  create->add_option("--images", opt.images, "Images in the file")->check(CLI::Range(1, 1000))->capture_default_str();

  kimg::MovieOptions mov;
  CLI::App* movie = app.add_subcommand("movie", "Make an AVI movie of pictures, or write a movie's frames out");
  movie->add_option("movie", mov.movie, "The AVI movie made (\".AVI\" is added to another extension), or read")->required();
  movie->add_option("frames", mov.frames, "Pictures of any format kimg reads, or frame patterns (name.####.ext)");
  movie->add_option("--rate", mov.rate, "Frames a second (a whole number)")->capture_default_str();
  movie->add_option("--codec", mov.codec, "DIB (uncompressed), MJPG, msvc, cvid or FFV1 (lossless, the default)");
  movie->add_option("--extract", mov.extract, "Write the movie's frames to this pattern (frame.####.iff), from 1");

  if (argc < 2) {
    std::cout << app.help();
    return kimg::kUsage;
  }
  std::string first = argv[1];
  if (first.empty() || first[0] != '-') {
    bool known = false;
    for (const CLI::App* sub : app.get_subcommands({})) known = known || sub->get_name() == first;
    if (!known) return kimg::usage("unknown command '" + first + "'");
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return kimg::usage(e.what());
  }

  kimg::installReporter();
  if (limit > 0) TpixelLimit::set(limit);
  if (*info) {
    std::vector<std::string> files;
    for (const std::string& f : infoFiles)
      if (int status = kimg::sequenceFiles(f, infoFrames, files)) return status;
    return kimg::info(files, stats);
  }
  if (*find) return kimg::find(fnd);
  if (*chunks) return kimg::chunks(chunkFile);
  if (*pattern) return kimg::pattern(pat);
  if (*convert) {
    TframePattern p;
    conv.quiet = seq.quiet;
    if (TframePattern::parse(conv.in, p)) return kimg::convertSequence(conv, seq);
    if (!seq.frames.empty()) return kimg::usage("--frames goes with a frame pattern such as name.####.iff");
    return kimg::convert(conv);
  }
  if (*filters) return kimg::filters();
  if (*formats) return kimg::formats();
  if (*depth) return kimg::depth(depthIn, depthOut);
  if (*movie) return kimg::movie(mov);
  if (*psd) {
    if (psdo.file.empty() && psdo.newSize.empty()) return kimg::usage("kimg psd needs FILE or --new W H");
    return kimg::psd(psdo);
  }
  return kimg::create(opt);
}

}  // namespace

int main(int argc, char** argv) {
  // Stopped by a signal, a run leaves no temporary file behind.
  TtemporaryFiles::removeOnSignals();
  try {
    int status = run(argc, argv);
    int written = kimg::finishStandardOutput(status != 0);
    return status ? status : written;
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "kimg: out of memory\n");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kimg: %s\n", e.what());
  }
  return kimg::kFailed;
}
