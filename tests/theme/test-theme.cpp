/* The compiled themes against what the application and the toolkit ask of them: names that do not resolve fall back to
   the toolkit's own look without a word. */
#include <Elementary.h>

#include <algorithm>
#include <map>

#include "cases.h"
#include "loop.h"

namespace {

const std::string CASES = CASES_DIR "/theme.txt";

std::string file(const std::string &name) {
  return std::string(getenv("BRISEL_RES_DIR")) + "/edje/" + name + ".edj";
}

/* A few frames: everything that was asked for is laid out and drawn. */
void frames(int count = 4) {
  int left = count;
  Ecore_Animator *animator = ecore_animator_add(
      [](void *data) -> Eina_Bool {
        --*static_cast<int *>(data);
        return ECORE_CALLBACK_RENEW;
      },
      &left);
  run_until([&left] { return left <= 0; });
  ecore_animator_del(animator);
}

class Theme : public testing::Test {
 protected:
  static void SetUpTestSuite() { elm_theme_overlay_add(nullptr, file("platform").c_str()); }
  static void TearDownTestSuite() { elm_theme_overlay_del(nullptr, file("platform").c_str()); }
  void SetUp() override { window(320, 320); }
  void TearDown() override {
    evas_object_del(win);
    elm_config_mirrored_set(EINA_FALSE);
  }
  void window(int width, int height) {
    if (win) evas_object_del(win);
    win = elm_win_add(nullptr, "theme", ELM_WIN_BASIC);
    evas_object_resize(win, width, height);
    evas_object_show(win);
  }
  Evas_Object *win = nullptr;
};

Evas_Object *picture(Evas_Object *parent, int height) {
  Evas_Object *rect = evas_object_rectangle_add(evas_object_evas_get(parent));
  evas_object_size_hint_min_set(rect, 0, height);
  return rect;
}

/* --- names --- */

TEST_F(Theme, HasEveryGroupWithItsParts) {
  for (const case_row &one : table_of(CASES, "groups", 3)) {
    Evas_Object *edje = edje_object_add(evas_object_evas_get(win));
    ASSERT_TRUE(edje_object_file_set(edje, file(one[0]).c_str(), one.text(1))) << one[1];
    for (const std::string &part : one.words(2)) EXPECT_TRUE(edje_object_part_exists(edje, part.c_str())) << part;
    evas_object_del(edje);
  }
  for (const case_row &one : table_of(CASES, "pictures", 1))
    EXPECT_TRUE(elm_image_file_set(elm_image_add(win), file("brisel-images").c_str(), one.text(0))) << one[0];
}

/* Where a widget's look really comes from. */
std::string look_of(Evas_Object *edje) {
  const char *path = nullptr, *group = nullptr;
  edje_object_file_get(edje, &path, &group);
  return path && strstr(path, "platform.edj") ? group : std::string("not the platform's: ") + (group ? group : "none");
}

TEST_F(Theme, DressesEveryWidgetStyle) {
  const std::map<std::string, Evas_Object *(*)(Evas_Object *)> add = {
      {"elm/button/base", elm_button_add},
      {"elm/check/base", elm_check_add},
      {"elm/radio/base", elm_radio_add},
      {"elm/label/base", elm_label_add},
      {"elm/progressbar/horizontal", elm_progressbar_add},
      {"elm/scroller/base", elm_scroller_add},
      {"elm/genlist/base", elm_genlist_add},
      {"elm/bg/base", elm_bg_add},
      {"elm/conformant/base", elm_conformant_add}};
  for (const case_row &one : table_of(CASES, "widget styles", 2)) {
    Evas_Object *widget = add.at(one[0])(win);
    EXPECT_TRUE(elm_object_style_set(widget, one.text(1))) << one[0] << " " << one[1];
    EXPECT_EQ(look_of(elm_layout_edje_get(widget)), one[0] + "/" + one[1]);
  }
}

/* What is shown together is hidden together. */
TEST_F(Theme, ComesBackWholeFromWhatASignalChanges) {
  for (const case_row &one : table_of(CASES, "two ways: there, back, and every part that changes", 5)) {
    Evas_Object *edje = edje_object_add(evas_object_evas_get(win));
    ASSERT_TRUE(edje_object_file_set(edje, file(one[0]).c_str(), one.text(1))) << one[1];
    for (const int way : {2, 3}) {
      for (const char *source : {"", "elm", "brisel"}) edje_object_signal_emit(edje, one.text(way), source);
      edje_object_message_signal_process(edje);
      for (const std::string &part : one.words(4)) {
        double value = 0;
        const std::string state = edje_object_part_state_get(edje, part.c_str(), &value);
        EXPECT_EQ(state == "default", way == 3) << one[way] << ": " << part;
      }
    }
    evas_object_del(edje);
  }
}

/* --- rows --- */

char *row_text(void *, Evas_Object *, const char *part) {
  return strdup(part);
}
Evas_Object *row_content(void *, Evas_Object *obj, const char *part) {
  Evas_Object *rect = picture(obj, 0);
  if (strcmp(part, "elm.swallow.colorbar") == 0) evas_object_size_hint_max_set(rect, 7, -1);
  return rect;
}

TEST_F(Theme, ShowsEveryPartOfEveryRow) {
  for (const case_row &one : table_of(CASES, "rows: style, that of the list, texts, contents, least height", 5)) {
    SCOPED_TRACE(one[0] + " in " + one[1]);
    Evas_Object *list = elm_genlist_add(win);
    Elm_Genlist_Item_Class *kind = elm_genlist_item_class_new();
    elm_object_style_set(list, one.text(1));
    evas_object_resize(list, 320, 320);
    evas_object_show(list);
    kind->item_style = one.text(0);
    kind->func.text_get = row_text;
    kind->func.content_get = row_content;
    Elm_Object_Item *it =
        elm_genlist_item_append(list, kind, nullptr, nullptr, ELM_GENLIST_ITEM_NONE, nullptr, nullptr);
    frames();
    for (const std::string &part : one.words(2))
      EXPECT_STREQ(elm_object_item_part_text_get(it, part.c_str()), part.c_str());
    for (const std::string &part : one.words(3))
      EXPECT_NE(elm_object_item_part_content_get(it, part.c_str()), nullptr) << part;
    int height = 0;
    evas_object_geometry_get(elm_object_item_track(it), nullptr, nullptr, nullptr, &height);
    EXPECT_GE(height, one.number(4));
    elm_object_item_untrack(it);
    elm_genlist_item_class_free(kind);
    evas_object_del(list);
  }
}

/* The genlist gives a deleted row's view to another row: one that showed a short text must show a long one whole. */
TEST_F(Theme, ShowsALongTextWhereAShortOneWas) {
  const auto width = [&](const case_row &one, const std::vector<const char *> &texts) {
    Evas_Object *edje = edje_object_add(evas_object_evas_get(win));
    EXPECT_TRUE(edje_object_file_set(edje, file("platform").c_str(), one.text(0)));
    evas_object_resize(edje, 320, 80);
    evas_object_show(edje);
    int w = 0;
    for (const char *text : texts) {
      edje_object_part_text_set(edje, one.text(1), text);
      frames(2);
      edje_object_part_geometry_get(edje, one.text(1), nullptr, nullptr, &w, nullptr);
    }
    evas_object_del(edje);
    return w;
  };
  const char *date = "06/01/2014 07:00", *longest = "A text that is far too long for a single line of this display";
  for (const case_row &one : table_of(CASES, "long after short", 2)) {
    SCOPED_TRACE(one[0] + " " + one[1]);
    const int fresh = width(one, {date});
    EXPECT_GT(fresh, 100);
    EXPECT_EQ(width(one, {"1", date}), fresh);
    EXPECT_EQ(width(one, {longest, date}), fresh);
  }
}

/* --- sizes --- */

TEST_F(Theme, HasTargetsAFingerHits) {
  for (double scale : {0.8, 1.0, 1.5})
    for (const case_row &one : table_of(CASES, "widget styles", 2)) {
      const auto add = one[0] == "elm/button/base"  ? elm_button_add
                       : one[0] == "elm/check/base" ? elm_check_add
                       : one[0] == "elm/radio/base" ? elm_radio_add
                                                    : nullptr;
      if (!add) continue;
      Evas_Object *widget = add(win);
      elm_object_style_set(widget, one.text(1));
      elm_object_scale_set(widget, scale);
      int w = 0, h = 0;
      edje_object_size_min_calc(elm_layout_edje_get(widget), &w, &h);
      EXPECT_GE(std::min(w, h), static_cast<int>(48 * scale)) << one[0] << " " << one[1] << " at " << scale;
    }
}

/* --- the reader --- */

/* The label of a hidden notice stays in its part. */
TEST_F(Theme, GivesAHiddenNoticeNoRoom) {
  Evas_Object *edje = edje_object_add(evas_object_evas_get(win));
  ASSERT_TRUE(edje_object_file_set(edje, file("brisel").c_str(), "brisel/detail"));
  const auto height = [&](const char *signal) {
    edje_object_signal_emit(edje, signal, "brisel");
    edje_object_message_signal_process(edje);
    int h = 0;
    edje_object_size_min_restricted_calc(edje, nullptr, &h, 320, 0);
    return h;
  };
  const int without = height("do-hide-device-field");
  Evas_Object *label = picture(win, 70);
  edje_object_part_swallow(edje, "detail.device", label);
  EXPECT_EQ(height("do-hide-device-field"), without);
  EXPECT_GE(height("do-show-device-field"), without + 70);
  EXPECT_EQ(height("do-hide-device-field"), without);
}

/* --- colours --- */

TEST_F(Theme, HasALightColourForEveryRole) {
  Eina_File *platform = eina_file_open(file("platform").c_str(), EINA_FALSE);
  ASSERT_NE(platform, nullptr);
  Eina_Iterator *classes = edje_mmap_color_class_iterator_new(platform);
  Edje_Color_Class *one;
  int roles = 0;
  EINA_ITERATOR_FOREACH(classes, one) {
    for (const char *palette : {"dark", "light"}) {
      char *value = edje_mmap_data_get(platform, (std::string("palette/") + palette + "/" + one->name).c_str());
      int r, g, b, a;
      ASSERT_NE(value, nullptr) << palette << " " << one->name;
      EXPECT_EQ(sscanf(value, "%d %d %d %d", &r, &g, &b, &a), 4) << value;
      if (strcmp(palette, "dark") == 0) {
        EXPECT_TRUE(r == one->r && g == one->g && b == one->b && a == one->a) << one->name;
      }
      free(value);
    }
    roles++;
  }
  eina_iterator_free(classes);
  eina_file_close(platform);
  EXPECT_GT(roles, 20);
}

}  // namespace
