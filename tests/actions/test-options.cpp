/* The list of actions on a mail, and the numbers of its sender. */

#include "actions-test.h"

static const std::string reply_text(void) {
  return text("IDS_EMAIL_SK_REPLY") + "|" +
         text(brisel_util_get_reply_method() ? "IDS_EMAIL_MBODY_EMOTICONS_ABB" : "IDS_MSGF_OPT2_TEMPLATES");
}

struct options : acting {
  std::string call = text("IDS_COM_SK_CALL"), device = text("IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE"),
              del = text("IDS_EMAIL_BODY_DELETE");

  void open(int mail_id) {
    ASSERT_EQ(brisel_option_detail_draw_view(mail_id, &test_ad), 0);
    ASSERT_TRUE(views_become(2));
  }
  /* What the call application was asked to do since the test began. */
  std::string calls(void) {
    std::ifstream in(std::string(getenv("XDG_STATE_HOME")) + "/brisel/calls.jsonl");
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
  }
  /* A double tap: one call, or none. */
  void tap_twice(int index) {
    settle();
    const point at = middle_of_item(row(index));
    for (int i = 0; i < 2; i++) {
      touch(at);
      release(at);
    }
    settle();
  }
  /* The way of replying that the open choice shows as chosen; -1: there is no choice. */
  int marked(void) {
    int value = -1;
    for (Evas_Object *o = evas_object_bottom_get(test_ad.evas); o; o = evas_object_above_get(o)) find_mark(o, &value);
    return value;
  }
  static void find_mark(Evas_Object *object, int *value) {
    const char *type = evas_object_type_get(object);
    if (type && !strcmp(type, "elm_radio")) *value = elm_radio_value_get(object);
    for (const char *plain : {"rectangle", "image", "text", "textblock", "textgrid", "line", "polygon", "vectors"})
      if (!type || !strcmp(type, plain)) return;
    Eina_List *members = evas_object_smart_members_get(object);
    void *member;
    EINA_LIST_FREE(members, member) find_mark((Evas_Object *)member, value);
  }
  size_t times(const std::string &number) {
    size_t count = 0;
    const std::string all = calls(), wanted = "\"" + number + "\"";
    for (size_t at = all.find(wanted); at != std::string::npos; at = all.find(wanted, at + 1)) count++;
    return count;
  }
  bool called(const std::string &number) {
    return run_until([&] { return calls().find("\"" + number + "\"") != std::string::npos; });
  }
};

TEST_F(options, AddressesOfDigitsAreNumbers) {
  const std::vector<int> ids = start({{.from_name = "Somebody", .from_address = "x@example.org"}});
  for (const case_row &one : cases("addresses of digits: address, number, what the log says of it", 3)) {
    SCOPED_TRACE(one[0].substr(0, 40));
    phone.set_text(ids[0], "from_address", one[0]);
    log_mark();
    open(ids[0]);
    EXPECT_EQ(rows().size(), one[1].empty() ? 3u : 4u);
    if (!one[1].empty()) EXPECT_EQ(rows().at(0), call + "|" + one[1]);
    for (const char *line : {"I/It is a phone number!", "I/It is not a phone number!"})
      EXPECT_EQ(logged(line), one[2] == line) << line;
    back();
    views_become(1);
  }
}

TEST_F(options, NoReplyIsOfferedWhereThePhoneTakesNone) {
  const int id = start_one({.from_name = "Ann", .from_address = "ann@example.org"});
  for (const int status : {0, 1, 2}) {
    phone.set_status("reply", status);
    open(id);
    rows_become(status < 2 ? std::vector<std::string>{reply_text(), device, del}
                           : std::vector<std::string>{device, del});
    back();
    views_become(1);
  }
}

TEST_F(options, ContactsAndMethodChangedElsewhereRedrawTheRows) {
  const int id = start_one({.from_name = "Ann", .from_address = "12345678@example.org"});
  open(id);
  rows_become({call + "|12345678", reply_text(), device, del});
  contact("12345678@example.org", {":+1", ":+2"});
  rows_become({call, reply_text(), device, del});
  contact("12345678@example.org", {":<b>+3</b>"});
  EXPECT_TRUE(visible("<b>+3</b>"));
  contact("12345678@example.org", {":+4"});
  rows_become({call + "|+4", reply_text(), device, del});
  tap_twice(0);
  EXPECT_TRUE(called("+4"));
  // A call of another mail's sender is nobody's second tap.
  back();
  views_become(1);
  contact("", {});
  open(id);
  rows_become({call + "|12345678", reply_text(), device, del});
  tap_twice(0);
  EXPECT_TRUE(called("12345678"));
  for (const char *number : {"+4", "12345678"}) EXPECT_EQ(times(number), 1u) << number;

  vconf_set_int(BRISEL_KEY_REPLY_VALUE, 3);
  rows_become({call + "|12345678", reply_text(), device, del});
  // The choice is open while the setting changes under it: its mark moves.
  settle();
  tap(middle_of(elm_object_item_part_content_get(row(1), "elm.icon")));
  EXPECT_TRUE(visible(text("IDS_MSGF_OPT2_TEMPLATES")));
  EXPECT_EQ(marked(), 1);
  vconf_set_int(BRISEL_KEY_REPLY_VALUE, 0);
  rows_become({call + "|12345678", reply_text(), device, del});
  EXPECT_EQ(marked(), 0);
  // So do the numbers. The row of the many must not come in the drawing of the row before.
  contact("12345678@example.org", {":+1", ":+2"});
  settle();
  tap(text_at(text("IDS_EMAIL_MBODY_EMOTICONS_ABB")));
  rows_become({call, reply_text(), device, del});
  EXPECT_EQ(brisel_util_get_reply_method(), 1);
  EXPECT_TRUE(logged("I/Emoticon!"));
}

TEST_F(options, WithoutALinkThePhoneIsAskedForFirst) {
  open(start_one({.from_name = "Ann", .from_address = "ann@example.org"}));
  test_ad.bt_connected = 0;
  for (int action : {0, 1}) {
    log_mark();
    tap_row(action);
    EXPECT_TRUE(logged("I/Show BT connection popup."));
    EXPECT_EQ(views(), 2);
  }
  expect_no_request("show");
}

TEST_F(options, NumbersAreCalledAndTheirViewClosesItself) {
  contact("ann@example.org", {";TYPE=CELL:+311", ";TYPE=WORK:+312", ";TYPE=HOME:+313", ":+314"});
  open(start_one({.from_name = "Ann & <i>", .from_address = "ann@example.org"}));
  tap_twice(0); /* opens one view */
  ASSERT_TRUE(views_become(3));
  EXPECT_EQ(rows(),
            (std::vector<std::string>{"+311|" + text("IDS_COM_BODY_MOBILE"), "+312|" + text("IDS_COM_BODY_WORK"),
                                      "+313|" + text("IDS_COM_BODY_HOME"), "+314|" + text("IDS_EMAIL_BODY_OTHERS")}));
  EXPECT_TRUE(visible("Ann & <i>"));
  // A second tap while the first call is being put through calls nobody.
  tap_row(1);
  tap_row(2);
  EXPECT_TRUE(called("+312"));
  views_become(2);
  EXPECT_EQ(calls().find("+313"), std::string::npos);

  // Backing out before the second is over; then nothing fires.
  tap_row(0);
  ASSERT_TRUE(views_become(3));
  tap_row(0);
  back();
  views_become(2);
  EXPECT_TRUE(called("+311"));
  tap_row(0);
  ASSERT_TRUE(views_become(3));

  contact("ann@example.org", {":+315", ":+316"});
  rows_become({"+315|" + text("IDS_EMAIL_BODY_OTHERS"), "+316|" + text("IDS_EMAIL_BODY_OTHERS")});
  log_mark();
  contact("", {});
  views_become(2);
  EXPECT_TRUE(logged("I/Call numbers are empty!"));
}
