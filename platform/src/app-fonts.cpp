/* How the toolkit gets its fonts: the configuration that names them, read without what only tools ask for. The
   framework calls it before anything loads a font. */
#include <dlfcn.h>
#include <fontconfig/fontconfig.h>
#include <unistd.h>

#include <cstdlib>

#include "app-priv.h"
#include "platform-paths.h"

void app_fonts_start(void) {
  /* Colour emoji before the outline drawings of symbol fonts. */
  const char *fonts = platform_path("/usr/apps/com.vextora.brisel/res/fonts.conf");
  if (access(fonts, R_OK) == 0) setenv("FONTCONFIG_FILE", fonts, 0);
}

/* A configuration of the system's that names no place for the font cache, or that cannot be read, is the font
   library's own business. */
static FcConfig *load_configuration(void) {
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

/* The font library's own reads all configuration files once more that the system offers, also those that are not in
   use, only to name them to who asks for a list: a twentieth of a cold start. The toolkit calls this one instead. */
extern "C" FcConfig *FcInitLoadConfigAndFonts(void) {
  if (FcConfig *config = load_configuration()) return config;
  const auto real = reinterpret_cast<FcConfig *(*)(void)>(dlsym(RTLD_NEXT, "FcInitLoadConfigAndFonts"));
  return real ? real() : nullptr;
}
