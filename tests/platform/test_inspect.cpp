#include <Ecore.h>
#include <Ecore_Evas.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "driver.h"

using lines = std::vector<std::string>;

namespace {

const char probe[] = PROBE;

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
  const struct {
    const char *text;
    int x;
    int y;
    double size;
    const char *color;
    bool covered;
  } table[] = {
      {"plain", 10, 10, 20, "#FF0000FF", false},
      {"half clipped and tinted", 10, 100, 20, "#FF000080", false},
      {"under", 10, 160, 20, "#FF0000FF", true},
      {"a <b> & é\nsecond", 10, 200, 30, "#00FF0080", false},
  };
  for (const auto &row : table) {
    const nlohmann::json shown = text(all, row.text);
    ASSERT_TRUE(shown.is_object()) << row.text << " in " << all.dump();
    EXPECT_EQ(shown["x"], row.x) << row.text;
    EXPECT_EQ(shown["y"], row.y) << row.text;
    EXPECT_EQ(shown["font_size"], row.size) << row.text;
    EXPECT_EQ(shown["color"], row.color) << row.text;
    EXPECT_EQ(shown["covered"], row.covered) << row.text;
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
  EXPECT_NE(watch({"screenshot", "/nonexistent/folder/shot.png"}).code, 0);
  EXPECT_NE(watch({"screenshot", "shot.gif"}).code, 0);
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
  const struct {
    lines words;
    const char *said;
  } table[] = {
      {{"tap", "1", "1"}, "com.vextora.probe is not running"},
      {{"key", "left"}, "left not in"},
      {{"setting", "get", "no/such"}, "no readable setting no/such"},
      {{"setting", "set", "a/b", "int", "12x"}, "not an int: 12x"},
      {{"setting", "set", "a/b", "bool", "yes"}, "a bool is true or false: yes"},
      {{"setting", "set", "../a", "int", "1"}, "cannot be written"},
      {{"contact", "remove", "nobody@nowhere.example"}, "nobody has the address"},
      {{"contact", "import", "/nonexistent.vcf"}, "/nonexistent.vcf"},
      {{"launch", "novalue"}, "not KEY=VALUE: novalue"},
      {{"pinch", "1", "1", "0"}, "not in range"},
      {{"pickover"}, "nothing on screen"},
      {{"timezone", "Mars/Olympus"}, "no such time zone"},
      {{"quit"}, "com.vextora.probe is not running"},
      {{"dance"}, "brisel-watchctl: "},
  };
  for (const auto &row : table) {
    const ran result = watch(row.words);
    EXPECT_NE(result.code, 0) << row.words[0];
    EXPECT_EQ(result.out, "") << row.words[0];
    EXPECT_NE(result.err.find(row.said), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
}

TEST(Watchctl, KeepsSettingsOfEveryType) {
  const struct {
    const char *type;
    const char *value;
    const char *printed;
  } table[] = {{"bool", "true", "true"}, {"bool", "0", "false"},           {"int", "-7", "-7"},
               {"string", "", ""},       {"string", "-x ü\ny", "-x ü\ny"}, {"int", "2147483647", "2147483647"}};
  for (const auto &row : table) {
    must({"setting", "set", "test/value", row.type, "--", row.value});
    EXPECT_EQ(watch({"setting", "get", "test/value"}).out, std::string(row.printed) + "\n");
    const nlohmann::json all = nlohmann::json::parse(watch({"setting", "list", "--json"}).out, nullptr, false);
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&row](const nlohmann::json &one) {
      return one["key"] == "test/value" && one["type"] == row.type;
    }));
  }
  must({"setting", "unset", "test/value"});
  EXPECT_NE(watch({"setting", "get", "test/value"}).code, 0);
}

}  // namespace
