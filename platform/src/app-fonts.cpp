/* How the toolkit gets its fonts: the configuration that names them, read without what only tools ask for, and beside
   the toolkit's start. The framework calls it before anything loads a font. */
#include <dlfcn.h>
#include <fontconfig/fontconfig.h>
#include <locale.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "app-priv.h"
#include "platform-paths.h"

namespace {

/* The theme's fonts, as the toolkit asks the font library for them. */
constexpr char theme_family[] = "NotoSans";
const struct {
  const char *style; /* NULL: none is asked for */
  int weight;
} theme_fonts[] = {{"Bold", FC_WEIGHT_BOLD}, {nullptr, FC_WEIGHT_NORMAL}};

/* The thread's until it is done with them, the main loop's after. */
struct {
  char *language;
  FcConfig *config; /* NULL: could not be read */
  struct {
    FcPattern *asked;
    FcFontSet *order; /* NULL: none, or handed over */
  } sorted[std::size(theme_fonts)];
} found;

/* The library's own function, behind the one that stands here in its place. */
template <typename Function>
Function *library(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

decltype(FcFontSort) *library_sort(void) {
  static const auto real = library<decltype(FcFontSort)>("FcFontSort");
  return real;
}

/* A configuration of the system's that names no place for the font cache, or that cannot be read, is the font
   library's own business. */
FcConfig *load_configuration(void) {
  FcConfig *config = FcConfigCreate();
  if (!config) return nullptr;
  bool good = FcConfigParseAndLoad(config, nullptr, FcTrue);
  FcStrList *caches = good ? FcConfigGetCacheDirs(config) : nullptr;
  good = caches && FcStrListNext(caches);
  if (caches) FcStrListDone(caches);
  if (good && FcConfigBuildFonts(config)) return config;
  FcConfigDestroy(config);
  return nullptr;
}

/* The toolkit's question for a font of the theme. Where it words one otherwise, it is answered when it comes. */
FcPattern *pattern_of(const char *style, int weight) {
  FcPattern *pattern =
      FcPatternBuild(nullptr, FC_WEIGHT, FcTypeInteger, weight, FC_SLANT, FcTypeInteger, FC_SLANT_ROMAN, FC_WIDTH,
                     FcTypeInteger, FC_WIDTH_NORMAL, FC_SPACING, FcTypeInteger, FC_PROPORTIONAL, FC_FAMILY,
                     FcTypeString, theme_family, FC_LANG, FcTypeString, found.language, nullptr);
  if (!pattern) return nullptr;
  if (style) FcPatternAddString(pattern, FC_STYLE, reinterpret_cast<const FcChar8 *>(style));
  FcConfigSubstitute(found.config, pattern, FcMatchPattern);
  FcDefaultSubstitute(pattern);
  return pattern;
}

void read_cb(void *data) {
  found.config = load_configuration();
  for (size_t i = 0; found.config && i < std::size(theme_fonts); i++) {
    FcResult result;
    auto &one = found.sorted[i];
    one.asked = pattern_of(theme_fonts[i].style, theme_fonts[i].weight);
    if (one.asked) one.order = library_sort()(found.config, one.asked, FcTrue, nullptr, &result);
  }
}

}  // namespace

void app_fonts_start(void) {
  /* Colour emoji before the outline drawings of symbol fonts. */
  const char *fonts = platform_path("/usr/apps/com.vextora.brisel/res/fonts.conf");
  if (access(fonts, R_OK) == 0) setenv("FONTCONFIG_FILE", fonts, 0);
}

void app_fonts_read(void) {
  const char *locale = setlocale(LC_MESSAGES, nullptr);
  found.language = strndup(locale, strcspn(locale, ".@"));
  if (found.language && library_sort()) app_beside_add(APP_BESIDE_FONTS, read_cb, nullptr);
}

void app_fonts_stop(void) {
  for (auto &one : found.sorted) {
    if (one.asked) FcPatternDestroy(one.asked);
    if (one.order) FcFontSetDestroy(one.order);
  }
  if (found.config) FcConfigDestroy(found.config);
  free(found.language);
  found = {};
}

/* --- what the toolkit calls instead of the font library's own --- */

/* That one reads all configuration files once more that the system offers, also those that are not in use, only to name
   them to who asks for a list: a twentieth of a cold start. */
extern "C" FcConfig *FcInitLoadConfigAndFonts(void) {
  app_beside_wait(APP_BESIDE_FONTS);
  if (found.config) return FcConfigReference(found.config);
  if (FcConfig *config = load_configuration()) return config;
  const auto real = library<decltype(FcInitLoadConfigAndFonts)>("FcInitLoadConfigAndFonts");
  return real ? real() : nullptr;
}

extern "C" FcFontSet *FcFontSort(FcConfig *config, FcPattern *asked, FcBool trim, FcCharSet **letters,
                                 FcResult *result) {
  app_beside_wait(APP_BESIDE_FONTS);
  for (auto &one : found.sorted) {
    if (!one.order || config != found.config || !trim || letters || !FcPatternEqual(asked, one.asked)) continue;
    FcFontSet *order = one.order; /* who asks frees it: the next one gets another */
    one.order = nullptr;
    *result = FcResultMatch;
    return order;
  }
  return library_sort() ? library_sort()(config, asked, trim, letters, result) : nullptr;
}
