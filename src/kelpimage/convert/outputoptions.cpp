// The options a host gives the writing plug-ins, kept by format key and
// capability code until it clears them.
#include <strings.h>

#include <cstdio>

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kelpimage/convert/conversion.h"
#include "kelpimage/convert/conversions.h"
#include "kelpimage/plugin/plugins.h"
#include "kelpimage/plugin/pxf.h"

namespace {

struct Options {
  std::mutex lock;
  std::map<std::pair<std::string, int16_t>, float> values;
};
Options& options() {
  static Options all;
  return all;
}

// The names of the settable capabilities of `format`, for a message.
std::string settableNames(const PxfFormat* format) {
  std::string names;
  for (int32_t i = 0; i < format->ops->capabilityCount; ++i) {
    const PxfCapability& c = format->ops->capabilities[i];
    if (!(c.flags & 2) || !c.name) continue;
    names += (names.empty() ? "" : ", ") + std::string(c.name);
  }
  return names.empty() ? "none" : names;
}

}  // namespace

int ifftoanySetOption(const char* key, const char* capability, float value) {
  if (!key || !capability) return -1;
  loadAllPXFPlugins();
  const PxfFormat* format = PXF_find(key);
  if (!format) {
    kelpconvert::report(std::string("Unknown image type: ") + key);
    return -1;
  }
  for (int32_t i = 0; i < format->ops->capabilityCount; ++i) {
    const PxfCapability& c = format->ops->capabilities[i];
    if ((c.flags & 2) && c.name && strcasecmp(c.name, capability) == 0) {
      if (c.minimum < c.maximum && !(value >= c.minimum && value <= c.maximum)) {
        char range[96], given[32];
        std::snprintf(range, sizeof range, "%g to %g", double(c.minimum), double(c.maximum));
        std::snprintf(given, sizeof given, "%g", double(value));
        kelpconvert::report(std::string("The ") + key + " option \"" + c.name + "\" takes " + range +
                            (c.help ? std::string(" (") + c.help + ")" : std::string()) + ", not " + given);
        return -1;
      }
      std::lock_guard<std::mutex> hold(options().lock);
      options().values[{key, c.code}] = value;
      return 0;
    }
  }
  kelpconvert::report(std::string("The ") + key + " format has no option \"" + capability +
                      "\"; its options are: " + settableNames(format));
  return -1;
}

void ifftoanyClearOptions() {
  std::lock_guard<std::mutex> hold(options().lock);
  options().values.clear();
}

std::vector<PxfCapSetting*> kelpconvert::outputSettings(const PxfFormat* format, float dpi) {
  std::vector<PxfCapSetting*> settings;
  auto add = [&](int16_t code, float value) {
    if (PxfCapSetting* s = PXF_cap_setting_alloc(1)) {
      s->code = code;
      s->value = value;
      settings.push_back(s);
    }
  };
  bool dpiGiven = false;
  {
    std::lock_guard<std::mutex> hold(options().lock);
    for (const auto& [which, value] : options().values) {
      if (which.first != format->key) continue;
      add(which.second, value);
      for (int32_t i = 0; i < format->ops->capabilityCount; ++i) {
        const PxfCapability& c = format->ops->capabilities[i];
        if (c.code == which.second && c.name && strcasecmp(c.name, "DPI Resolution") == 0) dpiGiven = true;
      }
    }
  }
  // The picture's own resolution, unless the host set one.
  if (!dpiGiven && dpi >= 1.0f && dpi != 72.0f) {
    for (int32_t i = 0; i < format->ops->capabilityCount; ++i) {
      const PxfCapability& c = format->ops->capabilities[i];
      if ((c.flags & 2) && c.kind == 1 && c.name && std::string(c.name) == "DPI Resolution") {
        add(c.code, dpi);
        break;
      }
    }
  }
  settings.push_back(nullptr);
  return settings;
}
