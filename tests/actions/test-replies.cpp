/* Replies from templates and typed ones, as they reach the phone, and what is kept of those that do not. */
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "actions-test.h"
#include "brisel-app-reply-drafts.h"
#include "keypad.h"
#include "platform-paths.h"

struct replies : acting {
  const std::string limit_toast = text("IDS_COM_POP_MAXIMUM_NUMBER_OF_CHARACTERS_REACHED");
  Evas_Object *entry = nullptr;

  void TearDown() override {
    phone.set_templates({"IDS_MSG_TEMPLATE_1", "IDS_MSG_TEMPLATE_2"});
    acting::TearDown();
    std::filesystem::remove_all(draft_path().parent_path());
    std::filesystem::remove(std::filesystem::path(platform_app_state_dir()) / "template-uses");
  }
  void open_templates(int mail_id) {
    ASSERT_EQ(brisel_option_reply_templetes_draw_view(mail_id, &test_ad, nullptr), 0);
    ASSERT_TRUE(views_become(2));
  }
  /* The keypad comes by itself. */
  void open_typed(int mail_id) {
    ASSERT_EQ(brisel_option_reply_emoticons_draw_view(mail_id, &test_ad, nullptr), 0);
    ASSERT_TRUE(views_become(2));
    entry = elm_object_part_content_get(top_content(), "swallow.entry");
    ASSERT_NE(entry, nullptr);
    EXPECT_TRUE(run_until([] { return keypad_shown(); }));
  }
  std::string typed(void) { return plain_text(elm_entry_entry_get(entry)); }
  /* As the keypad does it: a key that brings this text. */
  void type(const std::string &text) {
    evas_event_feed_key_down(test_ad.evas, "x", "x", text.c_str(), nullptr, 0, nullptr);
    evas_event_feed_key_up(test_ad.evas, "x", "x", text.c_str(), nullptr, 0, nullptr);
    settle();
  }
  void hide_keypad(void) {
    keypad_hide();
    settle();
  }
  /* Not there now: a toast would go by itself. */
  bool absent(const std::string &text) {
    settle();
    return std::ranges::count(visible_texts(), text) == 0;
  }
  Evas_Object *send_button(void) { return elm_object_part_content_get(top_content(), "swallow.send_btn"); }
  std::string shown(const char *part) {
    const char *text = elm_object_part_text_get(top_content(), part);
    return text ? text : "";
  }
  std::filesystem::path draft_path(int mail_id = 0) {
    return std::filesystem::path(platform_app_state_dir()) / "drafts" / std::to_string(mail_id);
  }
};

TEST_F(replies, ATemplateIsShownAskedForAndSentOnce) {
  const std::vector<int> ids = start({{.from_name = "Ann & Co", .from_address = "ann@example.org", .subject = ""},
                                      {.from_name = "", .from_address = "bob@example.org"}});
  phone.set_templates({"IDS_MSG_TEMPLATE_1", "Fish & <b>chips</b>"});
  open_templates(ids[0]);
  EXPECT_EQ(rows(),
            (std::vector<std::string>{text("IDS_MSG_TEMPLATE_1", "message"), "Fish &amp; &lt;b&gt;chips&lt;/b&gt;"}));
  tap_row(0);
  EXPECT_TRUE(visible(text("IDS_COM_SK_SEND")));
  EXPECT_TRUE(visible("To Ann & Co"));
  language("de_DE.UTF-8");
  EXPECT_TRUE(visible(text("IDS_COM_SK_SEND")));
  EXPECT_TRUE(visible("An Ann & Co"));
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
  const point send = text_at(text("IDS_COM_SK_SEND"));
  for (int i = 0; i < 2; i++) {
    touch(send);
    release(send);
  }
  nlohmann::json reply = request("reply");
  EXPECT_EQ(reply.at("text"), "Fish &amp; &lt;b&gt;chips&lt;/b&gt;");
  EXPECT_EQ(reply.at("subject"), "");
  EXPECT_EQ(reply.at("action"), "intent.action.email.notifications.reply");
  EXPECT_EQ(reply.at("mail_id"), ids[0]);
  EXPECT_EQ(reply.at("message_uid"), "uid-0");
  phone.requests.clear();
  views_become(1);
  expect_no_request("reply");

  // Without a name there is no separator; long fields end between characters.
  std::string long_subject, long_name;
  while (long_subject.size() < 1200) long_subject += "€", long_name += "😀";
  phone.set_text(ids[1], "subject", long_subject);
  for (const std::string &name : {std::string(), long_name}) {
    phone.requests.clear();
    phone.set_text(ids[1], "from_name", name);
    open_templates(ids[1]);
    tap_row(0);
    tap(text_at(text("IDS_COM_SK_SEND")));
    reply = request("reply");
    EXPECT_EQ(reply.at("recipient"), "bob@example.org" + (name.empty() ? "" : "\x02" + name.substr(0, 251 * 4)));
    EXPECT_EQ(reply.at("subject"), long_subject.substr(0, 1023));
    views_become(1);
  }
}

TEST_F(replies, TemplatesFollowTheirChanges) {
  const int id = start_one({.from_name = "Ann"});
  const std::string none = text("IDS_MSG_BODY_NO_TEXT_TEMPLATES");
  phone.set_templates({});
  open_templates(id);
  EXPECT_TRUE(visible(none));
  phone.set_templates({"Alpha", "Beta", "Gamma"});
  EXPECT_TRUE(gone(none));
  rows_become({"Alpha", "Beta", "Gamma"});
  phone.set_templates({"Delta", "Epsilon"});
  rows_become({"Delta", "Epsilon"});
  // The title reads the same after a change, in every language.
  language("pl_PL.UTF-8");
  EXPECT_TRUE(visible(text("IDS_EMAIL_HEADER_SELECT_REPLY_ABB")));
  tap_row(1);
  EXPECT_TRUE(visible(text("IDS_COM_SK_SEND")));
  // The question stays the one that was asked.
  phone.set_templates({});
  EXPECT_TRUE(visible("Epsilon"));
  tap(text_at(text("IDS_COM_SK_SEND")));
  EXPECT_EQ(request("reply").at("text"), "Epsilon");
  views_become(1);
  EXPECT_FALSE(logged("E/Invalid parameter: td  is NULL!"));
  phone.set_templates({"Nobody looks"});
}

TEST_F(replies, TheMostUsedTemplatesComeFirstUnlessThePhonesOrderIsWanted) {
  const int id = start_one({.from_name = "Ann"});
  phone.set_templates({"Alpha", "Beta", "Gamma"});
  for (const char *chosen : {"Gamma", "Gamma", "Beta"}) {
    open_templates(id);
    tap(text_at(chosen));
    EXPECT_TRUE(visible(text("IDS_COM_SK_SEND")));
    tap(text_at(text("IDS_COM_SK_SEND")));
    views_become(1);
  }
  open_templates(id);
  rows_become({"Gamma", "Beta", "Alpha"});
  phone.set_templates({"Delta", "Beta", "Gamma"});
  rows_become({"Gamma", "Beta", "Delta"});
  back();
  views_become(1);
  vconf_set_int(BRISEL_KEY_TEMPLATE_ORDER, 1);
  open_templates(id);
  rows_become({"Delta", "Beta", "Gamma"});
  vconf_unset(BRISEL_KEY_TEMPLATE_ORDER);
}

TEST_F(replies, TheTypedViewFollowsTheKeypadAndSendsOnce) {
  const int id = start_one({.from_name = "Ann & <i>"});
  open_typed(id);
  const auto icon_size = [&] {
    int w = 0, h = 0;
    evas_object_size_hint_min_get(elm_object_content_get(send_button()), &w, &h);
    return std::make_pair(w, h);
  };
  EXPECT_EQ(icon_size(), std::make_pair(48, 47));
  EXPECT_TRUE(visible("To Ann & <i>"));
  type("<b>a & b</b>");
  type("😀");
  EXPECT_EQ(shown("elm.text.left"), "");
  hide_keypad();
  EXPECT_EQ(icon_size(), std::make_pair(60, 60));
  EXPECT_TRUE(absent(limit_toast));
  phone.set_status("conn", 2);
  tap(middle_of(send_button()));
  EXPECT_TRUE(visible(text("IDS_EMAIL_BODY_NO_RESPONSE_TRY_LATER")));
  EXPECT_EQ(typed(), "<b>a & b</b>😀");
  back();
  EXPECT_TRUE(gone(text("IDS_EMAIL_BODY_NO_RESPONSE_TRY_LATER")));
  expect_no_request("reply");
  phone.set_status("conn", 0);
  for (int i = 0; i < 2; i++) {
    touch(middle_of(send_button()));
    release(middle_of(send_button()));
  }
  EXPECT_EQ(request("reply").at("text"), "&lt;b&gt;a &amp; b&lt;/b&gt;😀");
  phone.requests.clear();
  views_become(1);
  expect_no_request("reply");
  // The next view starts anew, and an empty one sends an empty reply.
  open_typed(id);
  tap(middle_of(send_button()));
  EXPECT_EQ(request("reply").at("text"), "");
  views_become(1);
}

TEST_F(replies, TheLimitRefusesWholeCharacters) {
  open_typed(start_one({.from_name = "Ann"}));
  for (const case_row &one : cases("typed: what, the keys, what stays, whether the limit was reached", 4)) {
    SCOPED_TRACE(one[0]);
    elm_entry_entry_set(entry, "");
    tap(middle_of(entry));
    EXPECT_TRUE(run_until([] { return keypad_shown(); }));
    for (const std::string &key_text : one.words(1)) type(key_text);
    EXPECT_EQ(typed(), one[2]);
    EXPECT_EQ(shown("elm.text.left"), std::to_string(35 - g_utf8_strlen(one.text(2), -1)));
    // Only what was refused closes the keypad, and the toast comes when it has gone, once.
    EXPECT_EQ(!keypad_shown(), one.number(3) == 1);
    if (one.number(3)) {
      EXPECT_TRUE(visible(limit_toast));
      // What the keyboard brings next goes nowhere: not to the button, which would send.
      key("space");
      back();
      EXPECT_TRUE(gone(limit_toast));
      tap(middle_of(entry));
      EXPECT_TRUE(run_until([] { return keypad_shown(); }));
    }
    hide_keypad();
    EXPECT_TRUE(absent(limit_toast));
    EXPECT_EQ(views(), 2);
  }
  EXPECT_FALSE(elm_object_focus_allow_get(send_button()));
  expect_no_request("reply");
  back();
  views_become(1);
}

TEST_F(replies, DraftsStayUntilTheyAreSentOrTheirMailIsGone) {
  const std::vector<int> ids = start({{.from_name = "Ann"}, {.from_name = "Bob"}});
  open_typed(ids[0]);
  type("Half a <th");
  settle();
  // On the disk before anything ends the view, for nobody else.
  struct stat file;
  ASSERT_EQ(stat(draft_path(ids[0]).c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777, 0600u);
  hide_keypad();
  back();
  views_become(1);
  open_typed(ids[1]);
  EXPECT_EQ(typed(), "");
  for (const char *label : {"E", "r"}) tap(text_at(label)); /* on its keys */
  EXPECT_EQ(typed(), "Er");
  app_launch(); /* ends the views */
  views_become(1);
  open_typed(ids[0]);
  EXPECT_EQ(typed(), "Half a <th");
  type("ought>");
  EXPECT_EQ(typed(), "Half a <thought>");
  tap(middle_of(send_button()));
  EXPECT_EQ(request("reply").at("text"), "Half a &lt;thought&gt;");
  views_become(1);
  EXPECT_FALSE(std::filesystem::exists(draft_path(ids[0])));
  EXPECT_TRUE(std::filesystem::exists(draft_path(ids[1])));
  // Another mail may bear the number in another store.
  std::ofstream(draft_path(ids[0])) << "another" << '\0' << "text";
  open_typed(ids[0]);
  EXPECT_EQ(typed(), "");
  hide_keypad();
  back();
  views_become(1);
  phone.delete_mails({ids[1]});
  EXPECT_TRUE(run_until([&] { return !std::filesystem::exists(draft_path(ids[1])); }));
}

TEST_F(replies, NobodyToReplyToIsToldAndTheTextStays) {
  const int id = start_one({.from_name = "Ann", .from_address = "Mail Delivery System"});
  open_typed(id);
  type("Hello");
  tap(middle_of(send_button()));
  EXPECT_TRUE(visible(text("IDS_EMAIL_POP_THIS_EMAIL_HAS_NO_ADDRESS_TO_REPLY_TO")));
  expect_no_request("reply");
  EXPECT_EQ(views(), 2);
  EXPECT_EQ(typed(), "Hello");
}
