/* What only a screen reader offers in the reader, where a hand has strokes: turning to the mails beside, and the pull
   at the end of a text. Paging and pages call it. */
#include "brisel-app-detail.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"
#include "brisel-body.h"
#include "spoken.h"

static void __brisel_detail_turn_back_cb(void *data) {
  __brisel_detail_turn_by((brisel_detail_view *)data, -1);
}

static void __brisel_detail_turn_on_cb(void *data) {
  __brisel_detail_turn_by((brisel_detail_view *)data, 1);
}

static void __brisel_detail_more_text_cb(void *data) {
  brisel_detail_view *view_data = (brisel_detail_view *)data;
  const page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  int height = 0;
  evas_object_geometry_get(page->detail_layout, nullptr, nullptr, nullptr, &height);
  elm_scroller_region_show(page->scroller, 0, height - 1, 1, 1);
  __brisel_detail_scroller_bottom_hit_cb(view_data, page->scroller, nullptr);
}

static constexpr struct {
  const char *text_id;
  spoken_press_cb press;
} offers[detail_offers] = {{"IDS_EMAIL_BODY_PREVIOUS_EMAIL", __brisel_detail_turn_back_cb},
                           {"IDS_EMAIL_BODY_NEXT_EMAIL", __brisel_detail_turn_on_cb},
                           {"IDS_EMAIL_BODY_MORE_TEXT", __brisel_detail_more_text_cb}};

void __brisel_detail_offer(brisel_detail_view *view_data) {
  const page_data *page = view_data->page_data[BRISEL_DETAIL_CUR_PAGE];
  if (!brisel_view_is_spoken() || !page || !view_data->page_scroller_layout) return;
  const int place = __brisel_detail_place_of_mail(view_data, view_data->mail_id);
  const bool is_there[detail_offers] = {place > 0, __brisel_detail_page_at(view_data, place + 1) != nullptr,
                                        !__brisel_detail_ends_with_tag(page->mail_data->body, tag_complete)};
  for (int i = 0; i < detail_offers; i++) {
    Eo *&button = view_data->offers[i];
    if (!button)
      button = spoken_button_add(view_data->page_scroller_layout, view_data->page_scroller_layout, offers[i].press,
                                 view_data);
    if (!button) continue;
    spoken_set_name(button, brisel_util_get_text(offers[i].text_id));
    brisel_view_set_spoken(button, is_there[i]);
  }
}

void __brisel_detail_end_offers(brisel_detail_view *view_data) {
  /* A layout that has gone has taken them along; one that slides out still holds them. */
  for (Eo *&button : view_data->offers) {
    if (button && view_data->page_scroller_layout) efl_del(button);
    button = nullptr;
  }
}
