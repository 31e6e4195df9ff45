// Zoom filter kernels: built in, or small programs of expressions in the
// "filters" directory of the work area, evaluated with muparser.
#include "kelpimage/il/ilfilter.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>

#include <muParser.h>

namespace {
// Why the last filter this thread asked for became a box. The image library
// has no messages of its own: the caller fetches this and reports it.
thread_local std::string tLastFilterError;

constexpr double kPi = 3.14159265358979323846;

double sinc(double x) { return x == 0.0 ? 1.0 : std::sin(kPi * x) / (kPi * x); }

// Keys's cubic with parameters b and c, support 2.
double cubic(double x, double b, double c) {
  x = std::fabs(x);
  if (x < 1) return ((12 - 9 * b - 6 * c) * x * x * x + (-18 + 12 * b + 6 * c) * x * x + (6 - 2 * b)) / 6;
  if (x < 2)
    return ((-b - 6 * c) * x * x * x + (6 * b + 30 * c) * x * x + (-12 * b - 48 * c) * x + (8 * b + 24 * c)) / 6;
  return 0;
}

struct Builtin {
  const char* name;
  float radius;
  bool noclip;
  double (*kernel)(double);
};

const Builtin kBuiltins[] = {
    {"box", 0.5f, true, [](double) { return 1.0; }},
    {"triangle", 1.0f, false, [](double x) { return 1.0 - std::fabs(x); }},
    {"gauss", 1.5f, false, [](double x) { return std::exp(-2.0 * x * x); }},
    {"sinc", 4.0f, false,
     [](double x) { return sinc(x) * (0.42 + 0.5 * std::cos(kPi * x / 4) + 0.08 * std::cos(2 * kPi * x / 4)); }},
    {"mitchell", 2.0f, false, [](double x) { return cubic(x, 1.0 / 3, 1.0 / 3); }},
    {"catrom", 2.0f, false, [](double x) { return cubic(x, 0.0, 0.5); }},
    {"lanczos", 3.0f, false, [](double x) { return sinc(x) * sinc(x / 3); }},
};

const Builtin* findBuiltin(const std::string& name) {
  for (const Builtin& b : kBuiltins)
    if (name == b.name) return &b;
  return nullptr;
}

// A filter program: one expression a line over radius, noclip, blur,
// xshape, yshape and x; it sets y. Lines starting with '#' are comments.
class Program {
 public:
  bool load(const std::string& path, std::string& error) {
    std::ifstream in(path);
    if (!in) return false;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
      size_t start = line.find_first_not_of(" \t\r");
      if (start == std::string::npos || line[start] == '#') continue;
      auto parser = std::make_unique<mu::Parser>();
      try {
        for (auto& [name, value] : variables()) parser->DefineVar(name, value);
        parser->SetExpr(line.substr(start));
        parser->Eval();  // finds syntax errors and unknown names now
      } catch (const mu::Parser::exception_type& e) {
        error = path + " line " + std::to_string(number) + ": " + e.GetMsg();
        return false;
      }
      fLines.push_back(std::move(parser));
    }
    if (fLines.empty()) {
      error = path + ": no expressions";
      return false;
    }
    return true;
  }

  bool run(std::string& error) {
    try {
      for (auto& p : fLines) p->Eval();
    } catch (const mu::Parser::exception_type& e) {
      error = e.GetMsg();
      return false;
    }
    return true;
  }

  double radius = 0.5, noclip = 0, blur = 0, xshape = 0, yshape = 0, x = 0, y = 0;

 private:
  std::vector<std::pair<const char*, double*>> variables() {
    return {{"radius", &radius}, {"noclip", &noclip}, {"blur", &blur}, {"xshape", &xshape},
            {"yshape", &yshape}, {"x", &x},           {"y", &y}};
  }
  std::vector<std::unique_ptr<mu::Parser>> fLines;
};

struct FilterList {
  std::mutex lock;
  std::vector<ILfilterdef*> filters;  // most recent first
};
// The list lives as long as the process: zoom records held in other statics
// may drop their filters while the process exits.
FilterList& filterList() {
  static FilterList* list = new FilterList;
  return *list;
}

// Samples `kernel` over the filter's support into the running-sum table.
void fillTable(ILfilterdef* f, const std::function<double(double)>& kernel) {
  f->minusRadius = -f->radius;
  float step = f->radius * 0.0039138943f;
  double sum = 0;
  for (int i = 0; i < 512; ++i) {
    float x = float(i) * step + f->minusRadius;
    sum += kernel(double(x));
    f->table[i] = float(sum);
  }
}

// A box: what a missing or broken filter becomes.
void fillBox(ILfilterdef* f) {
  f->radius = 0.5f;
  f->minusRadius = -0.5f;
  f->noclip = true;
  for (int i = 0; i < 512; ++i) f->table[i] = float(i + 1);
}

ILfilterdef* newFilter(FilterList& list, const std::string& listName) {
  auto* f = new ILfilterdef;
  // With ilconfig bit 8 filters are private to the record that made them.
  if (!(ilconfig & ILCONF_ZOOM)) f->name = listName;
  list.filters.insert(list.filters.begin(), f);
  return f;
}

ILfilterdef* findFilter(FilterList& list, const std::string& listName) {
  for (ILfilterdef* f : list.filters)
    if (!f->name.empty() && f->name == listName) return f;
  return nullptr;
}

// Builds one filter of a pair. `program` is loaded on first need; `found`
// tells whether the name named anything.
ILfilterdef* buildFilter(FilterList& list, const std::string& name, char axis, float& blur,
                         std::unique_ptr<Program>& program, bool& programTried, bool& broken, bool& found) {
  std::string listName = std::string(1, axis) + "@" + name;
  if (ILfilterdef* f = findFilter(list, listName)) return f;
  ILfilterdef* f = newFilter(list, listName);
  if (!programTried) {
    programTried = true;
    std::string error;
    auto p = std::make_unique<Program>();
    std::string path = ILfilterdir() + "/" + name;
    if (p->load(path, error)) {
      program = std::move(p);
    } else if (!error.empty()) {
      tLastFilterError = "Zoom filter program " + error;
      broken = true;
    }
  }
  if (broken) {
    // A program that is there but does not work is not covered up by a built-in kernel.
  } else if (program) {
    Program& p = *program;
    p.blur = blur;
    p.xshape = axis == 'x' ? 1.0 : 0.0;
    p.yshape = axis == 'y' ? 1.0 : 0.0;
    p.radius = 0.5;
    p.noclip = 0.0;
    std::string error;
    bool ok = p.run(error);
    f->radius = float(p.radius);
    f->noclip = p.noclip != 0.0;
    if (ok && f->radius > 0.0f && std::isfinite(f->radius)) {
      fillTable(f, [&](double x) {
        p.x = x;
        p.run(error);
        return std::isfinite(p.y) ? p.y : 0.0;
      });
      blur = float(p.blur);
      return f;
    }
    tLastFilterError = "Zoom filter program " + ILfilterdir() + "/" + name + ": " + error;
  } else if (const Builtin* b = findBuiltin(name); b) {
    f->radius = b->radius;
    f->noclip = b->noclip;
    fillTable(f, b->kernel);
    return f;
  }
  fillBox(f);
  found = false;
  return f;
}
}  // namespace

std::string ILfilterdir() { return std::string(FLgetwork(nullptr)) + "/filters"; }

bool ILloadfilterpair(const std::string& name, float& blurX, float& blurY, ILfilterdef*& x, ILfilterdef*& y) {
  FilterList& list = filterList();
  std::lock_guard<std::mutex> guard(list.lock);
  std::unique_ptr<Program> program;
  bool tried = false, broken = false, found = true;
  tLastFilterError.clear();
  x = buildFilter(list, name, 'x', blurX, program, tried, broken, found);
  y = buildFilter(list, name, 'y', blurY, program, tried, broken, found);
  x->refs++;
  y->refs++;
  if (!found) flerrno = IL_ENOFILTER;
  return found;
}

void ILdropfilter(ILfilterdef* filter) {
  if (!filter) return;
  FilterList& list = filterList();
  std::lock_guard<std::mutex> guard(list.lock);
  if (--filter->refs > 0 || !filter->name.empty()) return;
  std::erase(list.filters, filter);
  delete filter;
}

const char* ILfiltererror() { return tLastFilterError.c_str(); }

const char* ILbuiltinfilter(int index) {
  static const char* const words[] = {"impulse", "dirac", "auto"};
  int builtins = int(sizeof kBuiltins / sizeof kBuiltins[0]);
  if (index < 0) return nullptr;
  if (index < builtins) return kBuiltins[index].name;
  index -= builtins;
  return index < 3 ? words[index] : nullptr;
}
