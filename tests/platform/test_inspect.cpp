#include <Ecore.h>
#include <Ecore_Evas.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cases.h"
#include "driver.h"

using lines = std::vector<std::string>;

namespace {

const char probe[] = PROBE;
const std::string CASES = CASES_DIR "/platform.txt";

/* A probe that shows one scene. */
struct scene {
  explicit scene(const std::string &name) : app({probe, "scene=" + name}) {
    app.until("service scene=" + name + " do= x=");
    dump(); /* laid out and drawn */
  }
  child app;
};

nlohmann::json text(const nlohmann::json &all, const std::string &wanted) {
  for (const auto &one : all["texts"])
    if (one["text"] == wanted) return one;
  return nullptr;
}

TEST(Inspect, SeesTheTextsThatAPersonSees) {
  scene s("text");
  const nlohmann::json all = dump();
  EXPECT_EQ(all["window"]["width"], 320);
  for (const char *unseen : {"hidden", "clear", "outside", "clipped away"})
    EXPECT_TRUE(text(all, unseen).is_null()) << unseen;
  for (const case_row &row : table_of(CASES, "texts in sight: text, x, y, size, colour, covered", 6)) {
    const nlohmann::json shown = text(all, row[0]);
    ASSERT_TRUE(shown.is_object()) << row[0] << " in " << all.dump();
    EXPECT_EQ(shown["x"], row.number(1)) << row[0];
    EXPECT_EQ(shown["y"], row.number(2)) << row[0];
    EXPECT_EQ(shown["font_size"], row.number(3)) << row[0];
    EXPECT_EQ(shown["color"], row[4]) << row[0];
    EXPECT_EQ(shown["covered"], row[5] == "1") << row[0];
  }
  EXPECT_EQ(text(all, "half clipped and tinted")["width"], 40) << "only what the clipper leaves";
}

TEST(Inspect, WritesWhatIsDrawn) {
  scene s("page");
  const std::string file = std::string(getenv("BRISEL_SESSION_DIR")) + "/shot.png";
  must({"screenshot", file});
  /* Read back by the toolkit: the first page is one plain colour. */
  ecore_app_no_system_modules();
  ASSERT_TRUE(ecore_evas_init());
  Ecore_Evas *ee = ecore_evas_buffer_new(1, 1);
  Evas_Object *image = evas_object_image_add(ecore_evas_get(ee));
  evas_object_image_file_set(image, file.c_str(), nullptr);
  int w;
  int h;
  evas_object_image_size_get(image, &w, &h);
  EXPECT_EQ(w, 320);
  EXPECT_EQ(h, 320);
  const auto *pixels = static_cast<const unsigned int *>(evas_object_image_data_get(image, EINA_FALSE));
  ASSERT_NE(pixels, nullptr);
  EXPECT_EQ(pixels[160 * 320 + 160] & 0xFFFFFF, 0x005078u);
  ecore_evas_free(ee);
  ecore_evas_shutdown();
  EXPECT_EQ(watch({"screenshot", "/nonexistent/folder/shot.png"}).code, 1);
  const std::string folder = file + ".png";
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  EXPECT_EQ(watch({"screenshot", folder}).code, 1);
  EXPECT_NE(access((folder + ".part.png").c_str(), F_OK), 0) << "nothing is left beside it";
}

TEST(Inspect, IsRefusedUnlessAllowed) {
  child app({probe}, {{"BRISEL_INSPECT", "0"}});
  app.until("service scene= do= x=");
  for (const lines &words : {lines{"dump"}, lines{"tap", "1", "1"}, lines{"screenshot", "/tmp/none.png"}}) {
    const ran refused = watch(words);
    EXPECT_NE(refused.code, 0);
    EXPECT_NE(refused.err.find("BRISEL_INSPECT"), std::string::npos) << refused.err;
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1);
  }
}

TEST(Watchctl, SaysInOneLineWhatIsWrong) {
  for (const case_row &row : table_of(CASES, "refusals: the command, the exit code, what it says", 3)) {
    const ran result = watch(row.words(0));
    EXPECT_EQ(result.code, std::stoi(row[1])) << row[0];
    EXPECT_EQ(result.out, "") << row[0];
    EXPECT_NE(result.err.find(row[2]), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
}

TEST(Watchctl, KeepsSettingsOfEveryType) {
  for (const case_row &row : table_of(CASES, "settings: type, value, as printed", 3)) {
    must({"setting", "set", "test/value", row[0], "--", row[1]});
    EXPECT_EQ(watch({"setting", "get", "test/value"}).out, row[2] + "\n");
    const nlohmann::json all = nlohmann::json::parse(watch({"setting", "list", "--json"}).out, nullptr, false);
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&row](const nlohmann::json &one) {
      return one["key"] == "test/value" && one["type"] == row[0];
    }));
  }
  must({"setting", "unset", "test/value"});
  EXPECT_EQ(watch({"setting", "get", "test/value"}).code, 1);
}

}  // namespace
