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

// Every command's options, filled by the parse.
struct Commands {
  uint64_t limit = 0;
  std::vector<std::string> infoFiles;
  bool stats = false;
  std::string infoFrames, chunkFile, depthIn, depthOut;
  kimg::PatternOptions pattern;
  kimg::ConvertOptions convert;
  kimg::SequenceOptions sequence;
  kimg::FindOptions find;
  kimg::PsdOptions psd;
  kimg::CreateOptions create;
  kimg::MovieOptions movie;
  CLI::App *info = nullptr, *chunks = nullptr, *patternApp = nullptr, *convertApp = nullptr, *findApp = nullptr,
           *psdApp = nullptr, *depth = nullptr, *filters = nullptr, *formats = nullptr, *createApp = nullptr,
           *movieApp = nullptr;
};

void addInfo(CLI::App& app, Commands& c) {
  c.info = app.add_subcommand("info", "Print what pictures are (every format alike) and what AVI movies hold");
  c.info->add_option("files", c.infoFiles, "Picture files")->required();
  c.info->add_flag("--stats", c.stats, "Also read the pixels: minimum, maximum and mean of each channel");
  c.info->add_option("--frames", c.infoFrames,
                     "For a frame pattern (name.####.ext): FIRST-LAST[xSTEP] (default: those on disk)");
  c.chunks = app.add_subcommand("chunks", "Print the chunk tree of a file with offsets and sizes");
  c.chunks->add_option("file", c.chunkFile, "A chunked file")->required();
}

void addPattern(CLI::App& app, Commands& c) {
  kimg::PatternOptions& pat = c.pattern;
  c.patternApp = app.add_subcommand("pattern", "Write a synthetic IFF picture");
  c.patternApp->add_option("out", pat.out, "Output IFF file")->required();
  c.patternApp->add_option("--size", pat.size, "Width and height, WxH")->capture_default_str();
  c.patternApp->add_flag("--alpha", pat.alpha, "With a soft alpha edge");
  c.patternApp->add_flag("--depth", pat.depth, "With a depth ramp");
  c.patternApp->add_option("--bytes", pat.bytes, "Bytes per channel")
      ->check(CLI::IsMember({1, 2}))
      ->capture_default_str();
  c.patternApp->add_option("--compression", pat.compression, kCompressionHelp)
      ->check(CLI::IsMember(kCompressions))
      ->capture_default_str();
}

void addConvert(CLI::App& app, Commands& c) {
  kimg::ConvertOptions& conv = c.convert;
  CLI::App* convert = c.convertApp =
      app.add_subcommand("convert", "Convert pictures between every format the library reads and writes");
  convert->add_option("in", conv.in, "Input picture")->required();
  convert->add_option("out", conv.out, "Output file; may be the input itself")->required();
  convert
      ->add_option("--compression", conv.compression,
                   std::string(kCompressionHelp) + " (IFF and SGI; default: as the input)")
      ->check(CLI::IsMember(kCompressions));
  convert->add_flag("--topdown", conv.topdown, "Write IFF lines from the top of the image down");
  convert->add_option("--tile", conv.tile, "IFF tile size, WxH (default: chosen by image size)");
  convert->add_option("--resize", conv.resize, "Resample to WxH through a zoom filter");
  convert->add_option("--filter", conv.filter, "Zoom filter for --resize (see kimg filters; default auto)");
  convert->add_option("--blur", conv.blur, "Blur for --resize, X,Y in percent of the image");
  convert->add_option("--format", conv.format,
                      "Output format: iff or a key kimg formats lists (default: by the extension)");
  convert->add_option("--frame", conv.frame, "Only this frame of the input (from 0): an IFF image or a format's frame")
      ->check(CLI::NonNegativeNumber);
  convert->add_option("--option", conv.options,
                      "NAME=VALUE for the output format, such as Quality=90 (kimg formats lists them)");
  convert->add_option("--layer", conv.layer,
                      "Of a Photoshop document: this layer's pixels at the size of its rectangle; "
                      "#N for the N-th ordinary layer in file order, from 0");
  convert->add_option("--alpha", conv.alpha, "Of a Photoshop document: this alpha channel (from 0), grey")
      ->check(CLI::NonNegativeNumber);
  convert->add_option("--set", conv.set, "Of a Photoshop document: this layer set's composite");
  convert->add_flag("--lenient", conv.lenient,
                    "Read past damage a decoder can step over (a file cut short), with a warning, instead of failing");
  kimg::SequenceOptions& seq = c.sequence;
  convert->add_option("--frames", seq.frames,
                      "Frames of a sequence (IN and OUT as name.####.ext, name.#.ext or name.%04d.ext): "
                      "FIRST-LAST[xSTEP] (default: those on disk)");
  convert->add_option("--threads", seq.threads, "Frames converted at once (default: one a core)")
      ->check(CLI::Range(1, 256));
  convert->add_flag("--skip-bad", seq.skipBad, "Go on past frames that fail, and list them at the end");
  convert->add_flag("-q,--quiet", seq.quiet, "No progress line, and no warnings of what an output cannot hold");
  convert->add_flag("-v,--verbose", seq.verbose, "Print each frame's files");
}

void addFind(CLI::App& app, Commands& c) {
  kimg::FindOptions& fnd = c.find;
  c.findApp = app.add_subcommand("find", "Print the file a loose image name resolves to, as a renderer finds it");
  c.findApp->add_option("name", fnd.name, "Image name, perhaps without frame padding, field marker or .Z")->required();
  c.findApp->add_option("--field", fnd.field, "The field rendered: odd or even")->check(CLI::IsMember({"odd", "even"}));
  c.findApp->add_option("--frame", fnd.frame, "The frame, tried with 0 to 4 leading zeros")
      ->check(CLI::NonNegativeNumber);
  c.findApp->add_flag("-v,--verbose", fnd.verbose, "List the names tried");
}

void addPsd(CLI::App& app, Commands& c) {
  kimg::PsdOptions& psdo = c.psd;
  CLI::App* psd = c.psdApp =
      app.add_subcommand("psd", "Print what a Photoshop document holds: header, resources, layer tree");
  psd->add_option("file", psdo.file, "Photoshop document (not with --new)");
  psd->add_option("--new", psdo.newSize, "Start a new document of W H pixels, with a background")->expected(2);
  psd->add_option("--depth", psdo.depth, "Bits a channel of a new document")->check(CLI::IsMember({8, 16}));
  psd->add_option("--add-set", psdo.addSets, "Add a layer set NAME on top");
  psd->add_option("--add-layer", psdo.addLayers, "NAME=PICTURE: add a layer of a picture (or put it into NAME)");
  psd->add_option("--add-to-set", psdo.addToSets,
                  "SET=LAYER: add an empty layer LAYER into SET (--add-layer fills it)");
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
}

void addCreate(CLI::App& app, Commands& c) {
  kimg::CreateOptions& opt = c.create;
  CLI::App* create = c.createApp = app.add_subcommand("create", "Write an IFF file holding image headers only");
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
}

void addOthers(CLI::App& app, Commands& c) {
  c.depth = app.add_subcommand("depth", "Write the depth channel of an IFF picture as a grey IFF picture");
  c.depth->add_option("in", c.depthIn, "IFF picture with depth")->required();
  c.depth->add_option("out", c.depthOut, "Output IFF file")->required();
  c.filters = app.add_subcommand("filters", "List the zoom filters: built in and in the work area");
  c.formats = app.add_subcommand("formats", "List every format the library knows, with what it holds and its options");
  kimg::MovieOptions& mov = c.movie;
  CLI::App* movie = c.movieApp =
      app.add_subcommand("movie", "Make an AVI movie of pictures, or write a movie's frames out");
  movie->add_option("movie", mov.movie, "The AVI movie made (\".AVI\" is added to another extension), or read")
      ->required();
  movie->add_option("frames", mov.frames, "Pictures of any format kimg reads, or frame patterns (name.####.ext)");
  movie->add_option("--rate", mov.rate, "Frames a second (a whole number)")->capture_default_str();
  movie->add_option("--codec", mov.codec, "DIB (uncompressed), MJPG, msvc, cvid or FFV1 (lossless, the default)");
  movie->add_option("--extract", mov.extract, "Write the movie's frames to this pattern (frame.####.iff), from 1");
}

// Runs the command the parse chose.
int dispatch(Commands& c) {
  if (*c.info) {
    std::vector<std::string> files;
    for (const std::string& f : c.infoFiles)
      if (int status = kimg::sequenceFiles(f, c.infoFrames, files)) return status;
    return kimg::info(files, c.stats);
  }
  if (*c.findApp) return kimg::find(c.find);
  if (*c.chunks) return kimg::chunks(c.chunkFile);
  if (*c.patternApp) return kimg::pattern(c.pattern);
  if (*c.convertApp) {
    TframePattern p;
    c.convert.quiet = c.sequence.quiet;
    if (TframePattern::parse(c.convert.in, p)) return kimg::convertSequence(c.convert, c.sequence);
    if (!c.sequence.frames.empty()) return kimg::usage("--frames goes with a frame pattern such as name.####.iff");
    return kimg::convert(c.convert);
  }
  if (*c.filters) return kimg::filters();
  if (*c.formats) return kimg::formats();
  if (*c.depth) return kimg::depth(c.depthIn, c.depthOut);
  if (*c.movieApp) return kimg::movie(c.movie);
  if (*c.psdApp) {
    if (c.psd.file.empty() && c.psd.newSize.empty()) return kimg::usage("kimg psd needs FILE or --new W H");
    return kimg::psd(c.psd);
  }
  return kimg::create(c.create);
}

int run(int argc, char** argv) {
  CLI::App app{std::string("kimg: make, convert and inspect pictures with kelp-image.\n") + kNames, "kimg"};
  app.set_version_flag("--version", "kimg " KELP_VERSION);
  app.require_subcommand(1);
  Commands c;
  app.add_option("--limit", c.limit,
                 "The most pixels a picture read may have (default " + std::to_string(TpixelLimit::kDefault) +
                     ", or KELP_MAX_PIXELS): pictures beyond it are refused before anything is allocated for them")
      ->check(CLI::PositiveNumber);
  addInfo(app, c);
  addPattern(app, c);
  addConvert(app, c);
  addFind(app, c);
  addPsd(app, c);
  addOthers(app, c);
  addCreate(app, c);
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
  if (c.limit > 0) TpixelLimit::set(c.limit);
  return dispatch(c);
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
