/* The effect of deletion in real lists: what is seen, and that it holds nothing up and leaves nothing behind. */
#include "window.h" /* first: it asks the toolkit for more than its default */

#include <cstdint>
#include <cstring>

#include "genlist-fx.h"
#include "vconf.h"

namespace {

constexpr const char *MOTION = "db/setting/motion";

char *row_text(void *data, Evas_Object *, const char *part) {
  if (strcmp(part, "elm.text") != 0) return nullptr;
  return strdup(("row " + std::to_string(reinterpret_cast<intptr_t>(data))).c_str());
}

std::vector<intptr_t> freed;
void row_del(void *data, Evas_Object *) {
  freed.push_back(reinterpret_cast<intptr_t>(data));
}

struct GenlistFx : testing::Test {
  test_window window;
  Evas_Object *list = nullptr;
  Elm_Genlist_Item_Class *rows = nullptr, *headers = nullptr;
  std::vector<Elm_Object_Item *> items;

  void SetUp() override {
    vconf_unset(MOTION);
    freed.clear();
    for (Elm_Genlist_Item_Class **one : {&rows, &headers}) {
      *one = elm_genlist_item_class_new();
      (*one)->item_style = one == &rows ? "default" : "group_index";
      (*one)->func.text_get = row_text;
      (*one)->func.del = row_del;
    }
    make_list(30);
  }
  void TearDown() override {
    if (list != nullptr) evas_object_del(list);
    elm_genlist_item_class_free(rows);
    elm_genlist_item_class_free(headers);
    vconf_unset(MOTION);
  }

  void make_list(int count, Elm_Object_Item *parent = nullptr) {
    if (list == nullptr) {
      list = elm_genlist_add(window.win);
      window.put(list);
      elm_box_pack_end(window.box, list);
    }
    for (int i = 0; i < count; i++) {
      items.push_back(elm_genlist_item_append(list, rows, reinterpret_cast<void *>(static_cast<intptr_t>(i)), parent,
                                              ELM_GENLIST_ITEM_NONE, nullptr, nullptr));
    }
    settle();
  }

  void settle() const {
    for (int i = 0; i < 4; i++) window.draw();
  }

  /* What the effect has put above the list: pictures and grounds, but nothing of the list's own. */
  std::vector<Evas_Object *> pictures() const {
    std::vector<Evas_Object *> found;
    Eina_List *members = evas_object_smart_members_get(list);
    void *data;
    EINA_LIST_FREE(members, data) {
      auto *obj = static_cast<Evas_Object *>(data);
      const char *type = evas_object_type_get(obj);
      if (strcmp(type, "image") == 0) found.push_back(obj);
    }
    return found;
  }
  size_t members() const {
    Eina_List *all = evas_object_smart_members_get(list);
    const unsigned count = eina_list_count(all);
    eina_list_free(all);
    return count;
  }

  void delete_with_effect(const std::vector<size_t> &which) const {
    elm_genlist_fx_mode_set(list, EINA_TRUE);
    EXPECT_TRUE(elm_genlist_fx_mode_get(list));
    for (const size_t index : which) elm_object_item_del(items[index]);
    elm_genlist_fx_mode_set(list, EINA_FALSE);
    EXPECT_FALSE(elm_genlist_fx_mode_get(list));
  }
  /* The same, until its pictures move: the leaving row, the rows below. */
  void begin_deletion(const std::vector<size_t> &which) const {
    delete_with_effect(which);
    ASSERT_TRUE(run_until([&] { return pictures().size() >= 2; }));
  }
  void drop_list() {
    evas_object_del(list);
    list = nullptr;
    items.clear();
  }
  bool run_to_end() const {
    return run_until([&] { return pictures().empty(); });
  }

  int top_of(size_t index) const {
    int y = -1;
    Evas_Object *track = elm_object_item_track(items[index]);
    if (track == nullptr) return -1;
    evas_object_geometry_get(track, nullptr, &y, nullptr, nullptr);
    elm_object_item_untrack(items[index]);
    return y;
  }
};

TEST_F(GenlistFx, ShowsTheOldPictureFirstAndTheNewOneInTheEnd) {
  const size_t before_members = members();
  const int third = top_of(3);
  const std::vector<unsigned> before = window.pixels();
  delete_with_effect({2});
  EXPECT_EQ(freed, std::vector<intptr_t>{2}); /* at once */
  EXPECT_EQ(elm_genlist_items_count(list), 29u);
  EXPECT_FALSE(pictures().empty());
  /* Until the effect's first frame nothing seems to have happened. */
  evas_smart_objects_calculate(window.canvas());
  ecore_evas_manual_render(ecore_evas_ecore_evas_get(window.canvas()));
  EXPECT_EQ(window.pixels(), before);
  ASSERT_TRUE(run_until([&] { return pictures().size() >= 2; })); /* the leaving row, the rows below */
  settle();
  EXPECT_LT(top_of(3), third); /* the list itself is where it will be, and takes touches there */
  evas_event_feed_mouse_in(window.canvas(), window.now(), nullptr);
  window.move(160, third);
  Evas_Object *hit = evas_object_top_at_pointer_get(window.canvas());
  EXPECT_NE(hit, nullptr);
  for (const Evas_Object *picture : pictures()) EXPECT_NE(hit, picture);
  ASSERT_TRUE(run_to_end());
  settle();
  EXPECT_EQ(members(), before_members);
  const std::vector<unsigned> after = window.pixels();
  EXPECT_NE(after, before);
  /* The same list without an effect looks the same. */
  drop_list();
  make_list(30);
  elm_object_item_del(items[2]);
  settle();
  EXPECT_EQ(window.pixels(), after);
}

TEST_F(GenlistFx, WorksAtBothEndsAndUnderAHeader) {
  begin_deletion({0});
  ASSERT_TRUE(run_to_end());
  elm_genlist_item_show(items.back(), ELM_GENLIST_ITEM_SCROLLTO_IN);
  settle();
  begin_deletion({28, 29}); /* the list shrinks: what is above comes down */
  ASSERT_TRUE(run_to_end());
  int y, h;
  EXPECT_EQ(elm_genlist_items_count(list), 27u);

  elm_genlist_clear(list);
  items.clear();
  Elm_Object_Item *header =
      elm_genlist_item_append(list, headers, nullptr, nullptr, ELM_GENLIST_ITEM_GROUP, nullptr, nullptr);
  make_list(12, header);
  Evas_Object *track = elm_object_item_track(header);
  ASSERT_NE(track, nullptr);
  evas_object_geometry_get(track, nullptr, &y, nullptr, &h);
  elm_object_item_untrack(header);
  begin_deletion({0});
  for (Evas_Object *picture : pictures()) {
    int top;
    evas_object_geometry_get(evas_object_clip_get(picture), nullptr, &top, nullptr, nullptr);
    EXPECT_GE(top, y + h); /* the header stays out of it */
  }
  ASSERT_TRUE(run_to_end());
}

/* Nothing is shown where there is nothing to show, or it was not wished for. */
TEST_F(GenlistFx, StaysAwayWhenItShould) {
  elm_object_item_del(items[0]); /* the mode is off */
  EXPECT_TRUE(pictures().empty());
  const std::vector<size_t> nothing, no_neighbours = {1, 3}, out_of_sight = {29};
  for (const auto &which : {nothing, no_neighbours, out_of_sight}) {
    delete_with_effect(which);
    EXPECT_TRUE(pictures().empty()) << which.size();
  }
  evas_object_hide(list);
  delete_with_effect({2});
  EXPECT_TRUE(pictures().empty());
  evas_object_show(list);
  settle();
  vconf_set_bool(MOTION, 0);
  delete_with_effect({4});
  EXPECT_TRUE(pictures().empty());
  EXPECT_EQ(elm_genlist_items_count(list), 24u);
}

TEST_F(GenlistFx, EndsWithWhateverDisturbsIt) {
  const size_t before = members();
  const struct {
    const char *what;
    std::function<void()> disturb;
  } rows[] = {
      {"a resize", [] { resize_window(320, 300); }},
      {"a scroll", [&] { elm_genlist_item_show(items[25], ELM_GENLIST_ITEM_SCROLLTO_TOP); }},
      {"hiding", [&] { evas_object_hide(list); }},
  };
  size_t next = 3;
  for (const auto &row : rows) {
    evas_object_show(list);
    elm_genlist_item_show(items[next], ELM_GENLIST_ITEM_SCROLLTO_IN);
    settle();
    begin_deletion({next++});
    row.disturb();
    settle();
    EXPECT_TRUE(pictures().empty()) << row.what;
    EXPECT_EQ(members(), before) << row.what;
  }
  evas_object_show(list);
  settle();
  /* The next deletion in the middle of one, and the mode left on. */
  elm_genlist_item_show(items[10], ELM_GENLIST_ITEM_SCROLLTO_TOP);
  settle();
  delete_with_effect({11});
  begin_deletion({12});
  delete_with_effect({13});
  ASSERT_TRUE(run_to_end());
  EXPECT_EQ(members(), before);
  /* The list's own end, before the effect's first frame and in its middle. */
  delete_with_effect({14});
  drop_list();
  settle();
  make_list(10);
  begin_deletion({1});
  elm_genlist_clear(list);
  settle();
  elm_genlist_fx_mode_set(list, EINA_TRUE);
  evas_object_del(list);
  list = nullptr;
  settle();
}

}  // namespace
