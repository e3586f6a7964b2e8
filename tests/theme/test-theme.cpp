/* The compiled themes against what the application and the toolkit ask of them: names that do not resolve fall back to
   the toolkit's own look without a word. */
#include <Elementary.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "loop.h"

namespace {

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

struct group_parts {
  const char *file, *group;
  std::vector<const char *> parts;
};

TEST_F(Theme, HasEveryGroupWithItsParts) {
  const std::vector<group_parts> table = {
      {"brisel", "brisel/popup/progress.1text", {"swallow.progress", "text"}},
      {"brisel", "brisel/delete_view", {"genlist", "btn1", "btn2"}},
      {"brisel", "brisel/detail/page_scroller", {"scroller"}},
      {"brisel", "brisel/detail/single_scroller", {"title", "scroller"}},
      {"brisel",
       "brisel/detail",
       {"detail.title", "detail.time", "detail.body", "detail.body_rest", "detail.attachment", "detail.image",
        "detail.device", "detail.lbutton", "detail.rbutton", "detail.process", "detail.progress_bg"}},
      {"brisel", "brisel/detail/body_block", {"detail.body"}},
      {"brisel", "brisel/list_icon_rect", {"swallow.icon"}},
      {"brisel", "brisel/emoticon_view", {"swallow.entry", "swallow.send_btn"}},
      {"platform", "elm/layout/application/default", {"elm.swallow.bg", "elm.swallow.content"}},
      {"platform", "elm/layout/application/noindicator", {"elm.swallow.bg", "elm.swallow.content"}},
      {"platform", "elm/layout/nocontents/full", {"elm.text"}},
      {"platform", "elm/layout/nocontents/text", {"elm.text"}},
      {"platform",
       "elm/naviframe/item/basic/default",
       {"elm.swallow.content", "elm.text.title", "elm.swallow.icon", "elm.swallow.prev_btn", "elm.swallow.next_btn",
        "title_color_bar"}},
      {"platform", "elm/conformant/base/default", {"elm.swallow.content", "elm.swallow.virtualkeypad"}},
      {"platform", "elm/popup/base/default", {"elm.text.title", "elm.swallow.content", "elm.swallow.action_area"}},
      {"platform", "elm/popup/base/toast", {"elm.swallow.content"}},
      {"platform", "elm/popup/content/popup/default", {"elm.swallow.content"}},
      {"platform", "elm/popup/content/popup/toast", {"elm.swallow.content"}},
      {"platform", "elm/popup/buttons1/popup/default", {"elm.swallow.content.button1"}},
      {"platform", "elm/popup/buttons2/popup/default", {"elm.swallow.content.button1", "elm.swallow.content.button2"}},
      {"platform", "elm/notify/center/popup/default", {"elm.swallow.content"}},
      {"platform", "elm/notify/bottom/popup/toast", {"elm.swallow.content"}},
      {"platform", "elm/notify/block_events/popup/default", {}},
      {"platform", "elm/notify/block_events/popup/toast", {}},
      {"platform", "elm/label/base/popup/toast", {"elm.text"}},
  };
  for (const group_parts &one : table) {
    Evas_Object *edje = edje_object_add(evas_object_evas_get(win));
    ASSERT_TRUE(edje_object_file_set(edje, file(one.file).c_str(), one.group)) << one.group;
    for (const char *part : one.parts) EXPECT_TRUE(edje_object_part_exists(edje, part)) << one.group << " " << part;
    evas_object_del(edje);
  }
  for (const char *name :
       {"b_email_history_delete_normal.png", "b_email_icon_email.png", "b_listnoti_popupbg.png",
        "b_email_swipe-delete.png", "b_email_ic_menu_selectall_normal.png", "b_email_icon_message_send.png",
        "b_email_icon_message_send_2.png", "b_email_icon_message_s_send.png", "b_email_icon_showonphone.png",
        "b_email_setting.png", "b_email_icon_more.png"}) {
    Evas_Object *image = elm_image_add(win);
    EXPECT_TRUE(elm_image_file_set(image, file("brisel-images").c_str(), name)) << name;
  }
}

/* Where a widget's look really comes from. */
std::string look_of(Evas_Object *edje) {
  const char *path = nullptr, *group = nullptr;
  edje_object_file_get(edje, &path, &group);
  return path && strstr(path, "platform.edj") ? group : std::string("not the platform's: ") + (group ? group : "none");
}

TEST_F(Theme, DressesEveryWidgetStyle) {
  struct widget_style {
    Evas_Object *(*add)(Evas_Object *);
    const char *style, *group;
  };
  const widget_style table[] = {
      {elm_button_add, "default", "elm/button/base/default"},
      {elm_button_add, "popup", "elm/button/base/popup"},
      {elm_button_add, "naviframe/title_icon", "elm/button/base/naviframe/title_icon"},
      {elm_button_add, "list_divider_btn", "elm/button/base/list_divider_btn"},
      {elm_check_add, "default", "elm/check/base/default"},
      {elm_radio_add, "default", "elm/radio/base/default"},
      {elm_label_add, "default", "elm/label/base/default"},
      {elm_label_add, "popup/default", "elm/label/base/popup/default"},
      {elm_progressbar_add, "process", "elm/progressbar/horizontal/process"},
      {elm_progressbar_add, "process/groupindex", "elm/progressbar/horizontal/process/groupindex"},
      {elm_scroller_add, "default", "elm/scroller/base/default"},
      {elm_scroller_add, "effect", "elm/scroller/base/effect"},
      {elm_genlist_add, "default", "elm/genlist/base/default"},
      {elm_genlist_add, "popup", "elm/genlist/base/popup"},
      {elm_bg_add, "default", "elm/bg/base/default"},
      {elm_conformant_add, "default", "elm/conformant/base/default"},
  };
  for (const widget_style &one : table) {
    Evas_Object *widget = one.add(win);
    EXPECT_TRUE(elm_object_style_set(widget, one.style)) << one.group;
    EXPECT_EQ(look_of(elm_layout_edje_get(widget)), one.group);
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

struct list {
  Evas_Object *genlist;
  Elm_Genlist_Item_Class *itc;
};
list make_list(Evas_Object *win, const char *style, int rows, const char *list_style = "default") {
  list made = {elm_genlist_add(win), elm_genlist_item_class_new()};
  elm_object_style_set(made.genlist, list_style);
  elm_genlist_mode_set(made.genlist, ELM_LIST_COMPRESS);
  elm_genlist_homogeneous_set(made.genlist, EINA_TRUE);
  evas_object_resize(made.genlist, 320, 320);
  evas_object_show(made.genlist);
  made.itc->item_style = style;
  made.itc->func.text_get = row_text;
  made.itc->func.content_get = row_content;
  for (int i = 0; i < rows; i++)
    elm_genlist_item_append(made.genlist, made.itc, nullptr, nullptr, ELM_GENLIST_ITEM_NONE, nullptr, nullptr);
  frames();
  return made;
}
Eina_Rectangle place(Evas_Object *obj) {
  Eina_Rectangle r;
  evas_object_geometry_get(obj, &r.x, &r.y, &r.w, &r.h);
  return r;
}

TEST_F(Theme, ShowsEveryPartOfEveryRow) {
  struct row_style {
    const char *style, *list_style;
    std::vector<const char *> texts, contents;
    int height;
  };
  const std::vector<row_style> table = {
      {"email/group", "default", {"elm.text.1", "elm.text.2"}, {}, 48},
      {"email/sweep",
       "default",
       {"elm.text.1", "elm.text.2", "elm.text.noti", "elm.text.sweep"},
       {"elm.icon", "elm.icon.sweep", "elm.swallow.colorbar"},
       72},
      {"1text", "default", {"elm.text"}, {}, 72},
      {"2text", "default", {"elm.text.1", "elm.text.2"}, {}, 72},
      {"2text.1", "default", {"elm.text.1", "elm.text.2"}, {}, 72},
      {"2text.1icon", "default", {"elm.text.1", "elm.text.2"}, {"elm.icon"}, 72},
      {"2text.1icon.1", "default", {"elm.text.1", "elm.text.2"}, {"elm.icon", "elm.swallow.colorbar"}, 72},
      {"2text.1icon.1", "popup", {"elm.text.1", "elm.text.2"}, {"elm.icon", "elm.swallow.colorbar"}, 72},
      {"1text.1icon.1", "default", {"elm.text"}, {"elm.icon"}, 72},
      {"1text.1icon.1", "popup", {"elm.text"}, {"elm.icon"}, 72},
      {"2text.1icon.divider", "default", {"elm.text.1", "elm.text.2"}, {"elm.icon"}, 72},
  };
  for (const row_style &one : table) {
    list made = make_list(win, one.style, 1, one.list_style);
    Elm_Object_Item *it = elm_genlist_first_item_get(made.genlist);
    for (const char *part : one.texts)
      EXPECT_STREQ(elm_object_item_part_text_get(it, part), part) << one.style << " in " << one.list_style;
    for (const char *part : one.contents)
      EXPECT_NE(elm_object_item_part_content_get(it, part), nullptr) << one.style << " " << part;
    Evas_Object *track = elm_object_item_track(it);
    EXPECT_GE(place(track).h, one.height) << one.style;
    elm_object_item_untrack(it);
    elm_genlist_item_class_free(made.itc);
    evas_object_del(made.genlist);
  }
}

/* The genlist gives a deleted row's view to another row: one that showed a short text must show a long one whole. */
TEST_F(Theme, ShowsALongTextWhereAShortOneWas) {
  struct text_part {
    const char *group, *part;
  };
  const text_part table[] = {
      {"elm/genlist/item/email/sweep/default", "elm.text.1"},
      {"elm/genlist/item/email/sweep/default", "elm.text.2"},
      {"elm/genlist/item/email/group/default", "elm.text.1"},
      {"elm/genlist/item/email/group/default", "elm.text.2"},
      {"elm/genlist/item/2text/default", "elm.text.1"},
      {"elm/genlist/item/2text/default", "elm.text.2"},
      {"elm/genlist/item/2text.1icon.1/default", "elm.text.1"},
      {"elm/genlist/item/2text.1icon.1/default", "elm.text.2"},
      {"elm/genlist/item/2text.1icon.1/popup", "elm.text.2"},
      {"elm/naviframe/item/basic/default", "elm.text.title"},
  };
  const auto width = [&](const text_part &one, const std::vector<const char *> &texts) {
    Evas_Object *edje = edje_object_add(evas_object_evas_get(win));
    EXPECT_TRUE(edje_object_file_set(edje, file("platform").c_str(), one.group));
    evas_object_resize(edje, 320, 80);
    evas_object_show(edje);
    int w = 0;
    for (const char *text : texts) {
      edje_object_part_text_set(edje, one.part, text);
      frames(2);
      edje_object_part_geometry_get(edje, one.part, nullptr, nullptr, &w, nullptr);
    }
    evas_object_del(edje);
    return w;
  };
  for (const text_part &one : table) {
    const int fresh = width(one, {"06/01/2014 07:00"});
    EXPECT_GT(fresh, 100) << one.group << " " << one.part;
    EXPECT_EQ(width(one, {"1", "06/01/2014 07:00"}), fresh) << one.group << " " << one.part;
    EXPECT_EQ(width(one, {"A text that is far too long for a single line of this display", "06/01/2014 07:00"}), fresh)
        << one.group << " " << one.part;
  }
}

/* --- sizes --- */

TEST_F(Theme, HasTargetsAFingerHits) {
  Evas_Object *(*const kinds[])(Evas_Object *) = {elm_button_add, elm_check_add, elm_radio_add};
  for (double scale : {0.8, 1.0, 1.5}) {
    for (auto add : kinds) {
      for (const char *style : {"default", "popup", "naviframe/title_icon", "list_divider_btn"}) {
        Evas_Object *widget = add(win);
        if (strcmp(style, "default") != 0 && add != elm_button_add) continue;
        elm_object_style_set(widget, style);
        elm_object_scale_set(widget, scale);
        int w = 0, h = 0;
        edje_object_size_min_calc(elm_layout_edje_get(widget), &w, &h);
        EXPECT_GE(w, (int)(48 * scale)) << style << " at " << scale;
        EXPECT_GE(h, (int)(48 * scale)) << style << " at " << scale;
      }
    }
  }
}

/* --- the reader --- */

struct page_case {
  int width;
  double scale;
  const char *font;
  bool dual, mirrored;
};

TEST_F(Theme, LaysTheReadersFieldsOutWithoutOverlap) {
  const char *long_text =
      "Donaudampfschifffahrtsgesellschaftskapitänsversammlung: Protokoll der außerordentlichen Sitzung vom Donnerstag";
  std::vector<page_case> table;
  for (int width : {320, 360})
    for (double scale : {0.8, 1.0, 1.5})
      for (const char *font : {"do-set-fontsize-small", "do-set-fontsize-normal", "do-set-fontsize-large"})
        for (bool dual : {false, true}) table.push_back({width, scale, font, dual, dual && scale == 1.0});
  for (const page_case &one : table) {
    SCOPED_TRACE(testing::Message() << one.width << " " << one.scale << " " << one.font << (one.dual ? " dual" : ""));
    Evas_Object *edje = edje_object_add(evas_object_evas_get(win));
    ASSERT_TRUE(edje_object_file_set(edje, file("brisel").c_str(), "brisel/detail"));
    edje_object_scale_set(edje, one.scale);
    edje_object_mirrored_set(edje, one.mirrored);
    for (const char *part : {"detail.title", "detail.body", "detail.attachment"})
      edje_object_part_text_set(edje, part, long_text);
    edje_object_part_text_set(edje, "detail.time", "2026/11/23 02:14 a.m.");
    const int notice = (int)(70 * one.scale), button = (int)(64 * one.scale);
    for (const char *part : {"detail.image", "detail.device"})
      edje_object_part_swallow(edje, part, picture(win, notice));
    edje_object_part_swallow(edje, "detail.body_rest", picture(win, 500));
    edje_object_part_swallow(edje, "detail.lbutton", picture(win, button));
    if (one.dual) edje_object_part_swallow(edje, "detail.rbutton", picture(win, button));
    for (const char *signal : {"do-show-image-field", "do-show-image-field-2line", "do-show-device-field",
                               "do-show-attachment-field", one.font})
      edje_object_signal_emit(edje, signal, "brisel");
    if (one.dual) edje_object_signal_emit(edje, "do-dual-button-field", "brisel");
    edje_object_message_signal_process(edje);
    int w = 0, h = 0;
    edje_object_size_min_restricted_calc(edje, &w, &h, one.width, 0);
    EXPECT_EQ(w, one.width);
    evas_object_resize(edje, one.width, h);
    edje_object_calc_force(edje);
    int bottom = 0;
    for (const char *part : {"detail.title", "detail.time", "detail.image", "detail.body", "detail.body_rest",
                             "detail.device", "detail.attachment", "detail.lbutton"}) {
      Eina_Rectangle r;
      edje_object_part_geometry_get(edje, part, &r.x, &r.y, &r.w, &r.h);
      EXPECT_GE(r.y, bottom) << part;
      EXPECT_GT(r.h, 0) << part;
      EXPECT_GE(r.x, 0) << part;
      EXPECT_LE(r.x + r.w, one.width) << part;
      bottom = r.y + r.h;
      Evas_Object *text = const_cast<Evas_Object *>(edje_object_part_object_get(edje, part));
      if (strcmp(evas_object_type_get(text), "textblock") == 0) {
        int tw = 0, th = 0;
        evas_object_textblock_size_formatted_get(text, &tw, &th);
        EXPECT_LE(tw, r.w) << part;
        EXPECT_LE(th, r.h) << part;
      }
    }
    EXPECT_LE(bottom, h);
    Eina_Rectangle left, right;
    edje_object_part_geometry_get(edje, "detail.lbutton", &left.x, &left.y, &left.w, &left.h);
    edje_object_part_geometry_get(edje, "detail.rbutton", &right.x, &right.y, &right.w, &right.h);
    if (one.dual) {
      EXPECT_FALSE(eina_rectangles_intersect(&left, &right));
      EXPECT_EQ(left.h, right.h);
      EXPECT_GE(left.w, 48);
      EXPECT_GE(right.w, 48);
    } else {
      EXPECT_EQ(right.w * right.h, 0);
    }
    evas_object_del(edje);
  }
}

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
