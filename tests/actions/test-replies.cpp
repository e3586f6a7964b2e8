/* Replies from templates and typed ones, as they reach the phone. */
#include "actions-test.h"
#include "keypad.h"

struct replies : acting {
  void TearDown() override {
    phone.set_templates({"IDS_MSG_TEMPLATE_1", "IDS_MSG_TEMPLATE_2"});
    acting::TearDown();
  }
  void open_templates(int mail_id, full_noti_data *mail = nullptr) {
    ASSERT_EQ(brisel_option_reply_templetes_draw_view(mail_id, &test_ad, mail), 0);
    ASSERT_TRUE(views_become(2));
  }
  Evas_Object *entry = nullptr;
  void open_typed(int mail_id) {
    ASSERT_EQ(brisel_option_reply_emoticons_draw_view(mail_id, &test_ad, nullptr), 0);
    ASSERT_TRUE(views_become(2));
    entry = elm_object_part_content_get(top_content(), "swallow.entry");
    ASSERT_NE(entry, nullptr);
  }
  std::string typed(void) {
    char *plain = elm_entry_markup_to_utf8(elm_entry_entry_get(entry));
    std::string text = plain;
    free(plain);
    return text;
  }
  /* As the keypad does it: a key that brings this text. */
  void type(const std::string &text) {
    evas_event_feed_key_down(test_ad.evas, "x", "x", text.c_str(), nullptr, 0, nullptr);
    evas_event_feed_key_up(test_ad.evas, "x", "x", text.c_str(), nullptr, 0, nullptr);
    settle();
  }
  void focus(void) {
    tap(middle_of(entry));
    EXPECT_TRUE(run_until([] { return keypad_shown(); }));
  }
  void press_send(void) { tap(middle_of(elm_object_part_content_get(top_content(), "swallow.send_btn"))); }
};

TEST_F(replies, ATemplateIsShownAskedForAndSent) {
  const std::vector<int> ids = start({{.from_name = "Ann & Co", .from_address = "ann@example.org", .subject = ""},
                                      {.from_name = "", .from_address = "bob@example.org"}});
  phone.set_templates({"IDS_MSG_TEMPLATE_1", "Fish & <b>chips</b>"});
  const std::string send = text("IDS_COM_SK_SEND");
  open_templates(ids[0]);
  EXPECT_EQ(rows(),
            (std::vector<std::string>{text("IDS_MSG_TEMPLATE_1", "message"), "Fish &amp; &lt;b&gt;chips&lt;/b&gt;"}));

  tap_row(0);
  EXPECT_TRUE(visible(send));
  language("de_DE.UTF-8");
  EXPECT_TRUE(visible(text("IDS_COM_SK_SEND")));
  EXPECT_TRUE(visible(text("IDS_MSG_TEMPLATE_1", "message")));
  tap(text_at(text("IDS_EMAIL_SK_CANCEL_ABB")));
  EXPECT_TRUE(gone(text("IDS_COM_SK_SEND")));
  EXPECT_EQ(views(), 2);

  tap_row(1);
  EXPECT_TRUE(visible("Fish & <b>chips</b>"));
  test_ad.bt_connected = 0;
  tap(text_at(text("IDS_COM_SK_SEND")));
  EXPECT_TRUE(visible("Fish & <b>chips</b>"));
  expect_no_request("reply");
  test_ad.bt_connected = 1;
  tap(text_at(text("IDS_COM_SK_SEND")));
  nlohmann::json reply = request("reply");
  EXPECT_EQ(reply.at("text"), "Fish &amp; &lt;b&gt;chips&lt;/b&gt;");
  EXPECT_EQ(reply.at("subject"), "");
  EXPECT_EQ(reply.at("message_uid"), "uid-0");
  views_become(1);

  // Without a name there is no separator; long fields end between characters.
  std::string long_subject, long_name;
  for (int i = 0; i < 400; i++) long_subject += "€";
  for (int i = 0; i < 300; i++) long_name += "😀";
  const struct {
    const char *field;
    const std::string &value;
    std::string recipient, subject;
  } table[] = {
      {"subject", long_subject, "bob@example.org", long_subject.substr(0, 1023)},
      {"from_name", long_name, "bob@example.org\x02" + long_name.substr(0, 251 * 4), long_subject.substr(0, 1023)},
  };
  for (const auto &one : table) {
    phone.requests.clear();
    phone.set_text(ids[1], one.field, one.value);
    open_templates(ids[1]);
    tap_row(0);
    tap(text_at(text("IDS_COM_SK_SEND")));
    reply = request("reply");
    EXPECT_EQ(reply.at("recipient"), one.recipient);
    EXPECT_EQ(reply.at("subject"), one.subject);
    EXPECT_EQ(reply.at("text"), text("IDS_MSG_TEMPLATE_1", "message"));
    views_become(1);
  }
}

TEST_F(replies, TemplatesFollowTheirChanges) {
  const int id = start_one({.from_name = "Ann"});
  const std::string none = text("IDS_MSG_BODY_NO_TEXT_TEMPLATES");
  phone.set_templates({});
  open_templates(id);
  EXPECT_TRUE(visible(none));
  EXPECT_TRUE(visible(text("IDS_EMAIL_HEADER_SELECT_REPLY_ABB")));
  phone.set_templates({"Alpha", "Beta", "Gamma"});
  EXPECT_TRUE(gone(none));
  rows_become({"Alpha", "Beta", "Gamma"});
  phone.set_templates({"Delta", "Epsilon"});
  rows_become({"Delta", "Epsilon"});
  tap_row(1);
  EXPECT_TRUE(visible(text("IDS_COM_SK_SEND")));
  // The question stays the one that was asked.
  phone.set_templates({});
  EXPECT_TRUE(visible("Epsilon"));
  tap(text_at(text("IDS_COM_SK_SEND")));
  EXPECT_EQ(request("reply").at("text"), "Epsilon");
  views_become(1);
  EXPECT_FALSE(logged("E/Invalid parameter: td  is NULL!"));
  // The title reads the same after a change, in every language.
  open_templates(id);
  phone.set_templates({"Alpha"});
  rows_become({"Alpha"});
  EXPECT_TRUE(visible(text("IDS_EMAIL_HEADER_SELECT_REPLY_ABB")));
  language("pl_PL.UTF-8");
  EXPECT_TRUE(visible(text("IDS_EMAIL_HEADER_SELECT_REPLY_ABB")));
  back();
  views_become(1);
  phone.set_templates({"Nobody looks"});
}

TEST_F(replies, AFailedFirstReadIsMadeUpForByTheNextChange) {
  const int id = start_one({.from_name = "Ann", .from_address = "ann@example.org"});
  full_noti_data *mail = brisel_full_noti_data_create();
  ASSERT_EQ(brisel_db_get_full_noti_data_by_mail_id(id, mail), 0);
  brisel_db_deinit();
  log_mark();
  open_templates(id, mail);
  EXPECT_TRUE(logged("E/__brisel_option_reply_create_genlist() failed!"));
  EXPECT_TRUE(visible(text("IDS_MSG_BODY_NO_TEXT_TEMPLATES")));
  vconf_set_int(BRISEL_KEY_TEMPLATE_CHANGED, 1);
  settle();
  EXPECT_TRUE(visible(text("IDS_MSG_BODY_NO_TEXT_TEMPLATES")));
  ASSERT_EQ(brisel_db_init(), 0);
  phone.set_templates({"Alpha", "Beta"});
  rows_become({"Alpha", "Beta"});
  // The borrowed mail is the caller's after the view has gone.
  back();
  views_become(1);
  EXPECT_STREQ(mail->from_name, "Ann");
  brisel_full_noti_data_free(mail);
}

TEST_F(replies, TheKeypadRulesTheTypedView) {
  const int id = start_one({.from_name = "Ann"});
  open_typed(id);
  Evas_Object *button = elm_object_part_content_get(top_content(), "swallow.send_btn");
  const auto icon_size = [&] {
    int w = 0, h = 0;
    evas_object_size_hint_min_get(elm_object_content_get(button), &w, &h);
    return std::make_pair(w, h);
  };
  EXPECT_EQ(icon_size(), std::make_pair(60, 60));
  focus();
  EXPECT_TRUE(run_until([&] { return icon_size() == std::make_pair(48, 47); }));
  type("<b>a & b</b>");
  type("😀");
  keypad_hide();
  EXPECT_TRUE(run_until([&] { return icon_size() == std::make_pair(60, 60); }));
  settle();
  EXPECT_TRUE(gone(text("IDS_COM_POP_MAXIMUM_NUMBER_OF_CHARACTERS_REACHED")));
  phone.set_status("conn", 2);
  press_send();
  EXPECT_TRUE(visible(text("IDS_EMAIL_BODY_NO_RESPONSE_TRY_LATER")));
  EXPECT_EQ(typed(), "<b>a & b</b>😀");
  back();
  EXPECT_TRUE(gone(text("IDS_EMAIL_BODY_NO_RESPONSE_TRY_LATER")));
  expect_no_request("reply");
  phone.set_status("conn", 0);
  press_send();
  EXPECT_EQ(request("reply").at("text"), "&lt;b&gt;a &amp; b&lt;/b&gt;😀");
  views_become(1);
  // The next view starts anew, and an empty one sends an empty reply.
  phone.requests.clear();
  open_typed(id);
  press_send();
  EXPECT_EQ(request("reply").at("text"), "");
  views_become(1);
}

TEST_F(replies, TheLimitRefusesWholeCharacters) {
  const std::string family = "👨‍👩‍👧", accented = "e\u0301", flag = "🇳🇱";
  const auto x = [](int count) { return std::string(count, 'x'); };
  std::vector<std::string> accents = {"a"};
  std::string accents_kept = "a";
  for (int i = 0; i < 40; i++) accents.push_back("\u0301");
  for (int i = 0; i < 34; i++) accents_kept += "\u0301";
  const struct {
    const char *what;
    std::vector<std::string> keys;
    std::string kept;
    bool full;
  } table[] = {
      {"fits", {x(35)}, x(35), false},
      {"one key too many", {x(35), "y"}, x(35), true},
      {"a key of several characters", {x(33), ":-)"}, x(33), true},
      {"pasted too long", {x(25), "0123456789ABC"}, x(25) + "0123456789", true},
      {"emoji of several code points fits", {x(30), family}, x(30) + family, false},
      {"emoji in parts", {x(33), "👨", "\u200d", "👩"}, x(33), true},
      {"half a flag", {x(34), "🇳", "🇱"}, x(34), true},
      {"accent after its letter", {x(34), "e", "\u0301"}, x(34) + "e", true},
      {"accent with its letter", {x(34), accented}, x(34), true},
      {"accent that fits", {x(33), "e", "\u0301"}, x(33) + accented, false},
      {"vowel sign after its consonant", {x(33), "न", "म", "\u0947"}, x(33) + "नम", true},
      {"a letter with accents without end", accents, accents_kept, true},
      {"flag at the end of what was pasted", {x(29), "abcdefgh" + flag}, x(29) + "abcdef", true},
      {"markup counts as what it shows", {x(33), "<&"}, x(33) + "<&", false},
  };
  const int id = start_one({.from_name = "Ann"});
  const std::string toast = text("IDS_COM_POP_MAXIMUM_NUMBER_OF_CHARACTERS_REACHED");
  for (const auto &one : table) {
    SCOPED_TRACE(one.what);
    open_typed(id);
    focus();
    for (const std::string &key_text : one.keys) type(key_text);
    settle();
    EXPECT_EQ(typed(), one.kept);
    // Only what was refused closes the keypad, and the toast comes when it has gone.
    EXPECT_EQ(!keypad_shown(), one.full);
    if (one.full) {
      EXPECT_TRUE(visible(toast));
      back();
      EXPECT_TRUE(gone(toast));
      EXPECT_EQ(views(), 2);
    } else {
      keypad_hide();
      settle();
      EXPECT_EQ(views(), 2);
    }
    elm_naviframe_item_pop(test_ad.naviframe);
    views_become(1);
  }
}

TEST_F(replies, BackClearsASelectionFirst) {
  open_typed(start_one({.from_name = "Ann"}));
  elm_entry_entry_set(entry, "some text");
  elm_entry_select_allow_set(entry, EINA_TRUE);
  elm_object_focus_set(entry, EINA_TRUE);
  keypad_hide();
  settle();
  elm_entry_select_all(entry);
  settle();
  ASSERT_NE(elm_entry_selection_get(entry), nullptr);
  back();
  EXPECT_EQ(elm_entry_selection_get(entry), nullptr);
  EXPECT_EQ(views(), 2);
  back();
  views_become(1);
}
