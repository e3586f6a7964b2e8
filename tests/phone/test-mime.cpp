/* What becomes of real, odd and hostile mail. */

#include <filesystem>

#include "../../phone/mime.h"
#include "../../phone/src/reply.h"
#include "../../phone/src/send.h"
#include "../../phone/src/state.h"
#include "../harness/cases.h"

namespace {

mime_mail read(const std::string &raw) {
  mime_mail mail;
  std::string error;
  EXPECT_EQ(mime_parse(raw, mime_limits(), &mail, &error), 0) << error;
  return mail;
}

std::string with_body(const std::string &headers, const std::string &body) {
  return "From: a@b.c\nMIME-Version: 1.0\n" + headers + "\n\n" + body;
}

std::string html(const std::string &text) {
  mime_init();
  return mime_html_to_text(text, 1 << 20, nullptr);
}

std::vector<std::vector<std::string>> cases(const std::string &name, size_t fields) {
  mime_init();
  return cases_of(CASES_DIR "/" + name + ".txt", fields);
}

std::vector<case_row> table(const std::string &name, size_t fields) {
  mime_init();
  return table_of(CASES_DIR "/tables.txt", name, fields);
}

}  // namespace

TEST(Html, ReadsAsAPersonWould) {
  for (const auto &c : cases("html", 3)) EXPECT_EQ(html(c[1]), c[2]) << c[0];
}

TEST(Html, TellsPicturesFromCounters) {
  for (const case_row &c : table("pictures: text, whether it shows one", 2)) {
    bool image = false;
    mime_html_to_text(c[0], 1000, &image);
    EXPECT_EQ(image, c.number(1)) << c[0];
  }
}

TEST(Html, KeepsItsBounds) {
  for (const case_row &c : table("bombs: each is a trap for a reader that looks ahead, recurses or remembers", 1)) {
    std::string text;
    while (text.size() < (4u << 20)) text += c[0];
    text += "end";
    std::string out = mime_html_to_text(text, 100000, nullptr);
    EXPECT_LE(out.size(), 100000u) << c[0];
    EXPECT_TRUE(g_utf8_validate(out.data(), static_cast<gssize>(out.size()), nullptr)) << c[0];
  }
}

TEST(Charsets, ReadableWhateverTheyClaim) {
  for (const auto &c : cases("charsets", 3))
    EXPECT_EQ(mime_to_utf8(c[1], c[0].empty() ? nullptr : c[0].c_str()), c[2]) << c[0];
  EXPECT_EQ(mime_to_utf8(std::string_view("a\0b", 3), nullptr), "ab");
  EXPECT_EQ(mime_clean_line("a\r\n  b\t\xe2\x80\xae"
                            "c ",
                            100),
            "a b c");
}

TEST(Headers, SayWhoAndWhat) {
  for (const auto &c : cases("headers", 4)) {
    const bool old = c[0].find('\r') != std::string::npos && c[0].find('\n') == std::string::npos;
    const mime_mail mail = read(c[0] + (old ? "\rbody" : "\n\nbody"));
    EXPECT_EQ(mail.body, "body") << c[0];
    EXPECT_EQ(mail.subject, c[1]) << c[0];
    EXPECT_EQ(mail.from_name, c[2]) << c[0];
    EXPECT_EQ(mail.from_address, c[3]) << c[0];
  }
}

TEST(Headers, IdentifyAMail) {
  EXPECT_EQ(read("From: a@b.c\nSubject: =?utf-8?Q?" + std::string(9000, 'x') + "?= =?utf-8?Q?y?=\n\n").subject,
            std::string(4096, 'x'));
  mime_mail mail = read(
      "From: a@b.c\nMessage-ID: <id@x>\nIn-Reply-To: <p@x>\nReferences: <o@x>\n <p@x> junk\n"
      "Reply-To: Desk <desk@b.c>\n\nx");
  EXPECT_EQ(mail.message_uid, "id@x");
  EXPECT_EQ(mail.references, "<o@x> <p@x>");
  std::string many = "From: a@b.c\nReferences:";
  for (int n = 0; n < 30; n++) many += " <" + std::to_string(n) + "@x>";
  EXPECT_TRUE(read(many + "\n\nx").references.ends_with(" <29@x>")) << "the last ones count";
  EXPECT_EQ(mail.reply_to, "desk@b.c");
  /* Without a usable id the mail itself is the identity: the same for the same mail, another for another. */
  std::string first = read("From: a@b.c\nSubject: s\n\nx").message_uid;
  EXPECT_EQ(first, read("From: a@b.c\nX-Status: seen\nSubject: s\n\nx").message_uid);
  EXPECT_NE(first, read("From: a@b.c\nSubject: s\n\ny").message_uid);
  EXPECT_NE(read("From: a@b.c\nMessage-ID: <" + std::string(900, 'x') + "@y>\n\nx").message_uid.size(), 0u);
  EXPECT_LE(read("From: a@b.c\nMessage-ID: <" + std::string(900, 'x') + "@y>\n\nx").message_uid.size(), 250u);
}

TEST(Headers, TellWhenAMailArrived) {
  mime_init();
  const std::string received = "Received: from x by y;\n\tTue, 24 Nov 2026 10:00:00 +0100\n";
  const std::string date = "Date: Mon, 23 Nov 2026 10:00:00 +0000\n";
  EXPECT_EQ(mime_arrival(date + received + "\n"), 1795510800);
  EXPECT_EQ(mime_arrival("Subject: s\n" + date + "\nDate: Tue, 24 Nov 2026 10:00:00 +0000\n"), 1795428000);
  EXPECT_EQ(mime_arrival("Received: nonsense\n" + date + "\n"), 1795428000);
  for (const char *none : {"", "Subject: x\n\n", "Date: yesterday\n\n", "Date: 1 Jan 2150 00:00:00 +0000\n\n"})
    EXPECT_EQ(mime_arrival(none), 0) << none;
}

TEST(Parts, TheOneToRead) {
  for (const auto &c : cases("parts", 4)) {
    const mime_mail mail = read(c[1]);
    EXPECT_EQ(mail.body, c[2]) << c[0];
    EXPECT_EQ(std::to_string(mail.attachment_count) + (mail.has_image ? " image" : ""), c[3]) << c[0];
  }
}

TEST(Parts, Meetings) {
  setenv("TZ", "Europe/Berlin", 1);
  for (const auto &c : cases("meetings", 4)) {
    const std::string calendar = "BEGIN:VCALENDAR\n" + c[1] + "BEGIN:VEVENT\n" + c[2] + "END:VEVENT\n";
    EXPECT_EQ(read(with_body("Content-Type: text/calendar", calendar)).body, c[3]) << c[0];
  }
}

TEST(Parts, FlowedAndEncodedText) {
  for (const case_row &c : table("bodies: headers, body, what is read", 3))
    EXPECT_EQ(read(with_body(c[0], c[1])).body, c[2]) << c[0];
  const char qp[] = "Content-Transfer-Encoding: quoted-printable\nContent-Type: text/plain; charset=utf-8";
  EXPECT_EQ(read(with_body(qp, "=C3=A4=\n=ZZ =")).body.substr(0, 2), "ä");
}

/* Texts are passed over sixteen bytes at a time: what ends a run is seen at each place of it. */
TEST(Pieces, EndWhereTheyEnd) {
  for (size_t n = 1; n < 50; n++) {
    const std::string a(n, 'a'), b(33, 'b'), words = "c " + a;
    EXPECT_EQ(mime_to_utf8(words + "\r\n" + b + "\x01", nullptr), words + "\n" + b);
    EXPECT_EQ(mime_html_to_text(words + "  " + b + "&amp;" + a + " <p>" + b, 999, nullptr),
              words + " " + b + "&" + a + "\n\n" + b);
    EXPECT_EQ(mime_html_to_text(words + " " + b, n + 3, nullptr), words);
    mime_mail mail;
    std::string error;
    ASSERT_EQ(
        mime_parse("Subject: x\n\n" + words + " \n\n\n\n\n" + b + " \xc2\xa0\n" + a + "\t" + b, {}, &mail, &error), 0);
    EXPECT_EQ(mail.body, words + "\n\n\n" + b + "\n" + a + " " + b);
  }
}

TEST(Pieces, NeverSplitWhatBelongsTogether) {
  const std::string text =
      "a\xc3\xa4"
      "e\xcc\x81"
      "👩‍👩‍👧👋🏽z"; /* a, ä, é of two characters, a family, a waving hand */
  for (size_t bytes = 0; bytes <= text.size() + 2; bytes++) {
    std::string joined;
    for (size_t at = 0; at < text.size();) {
      size_t end = mime_cut(text, at, bytes < 4 ? 4 : bytes);
      ASSERT_GT(end, at) << bytes;
      EXPECT_TRUE(g_utf8_validate(text.data() + at, static_cast<gssize>(end - at), nullptr)) << bytes;
      joined += text.substr(at, end - at);
      at = end;
    }
    EXPECT_EQ(joined, text);
  }
  EXPECT_EQ(mime_cut(text, 0, 4), 3u); /* the accent stays with its letter */
  EXPECT_EQ(mime_cut(text, 0, 2), 1u);
  EXPECT_EQ(mime_boundary(text, 2), 3u);
  EXPECT_EQ(mime_boundary(text, 999), text.size());
  send_options options;
  options.first = 2;
  mime_mail mail;
  mail.body = text;
  EXPECT_EQ(make_outgoing(mail, options, "", false, false).mail.body, "a<tag:thisisover500>");
  options.first = -1;
  EXPECT_EQ(make_outgoing(mail, options, "", false, false).mail.body, text + "<tag:thisisover-1>");
}

TEST(Replies, SubjectsAndMarkup) {
  for (const case_row &c : table("subjects of replies", 2)) EXPECT_EQ(reply_subject(c[0]), c[1]);
  for (const case_row &c : table("markup of replies", 2)) EXPECT_EQ(mime_markup_to_text(c[0]), c[1]);
}

TEST(State, KnowsARequestAgain) {
  char folder[] = "/tmp/brisel-phone-test-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  setenv("XDG_STATE_HOME", folder, 1);
  std::string error;
  phone_state *state = phone_state_open(&error);
  ASSERT_NE(state, nullptr) << error;
  /* Kept but not acknowledged: the same from whichever service process it comes, and then from that one for good. */
  EXPECT_EQ(phone_state_add_request(state, 1, ":1.1", "a"), 1);
  EXPECT_EQ(phone_state_add_request(state, 1, ":1.1", "a"), 0);
  EXPECT_EQ(phone_state_add_request(state, 1, ":1.2", "a"), 0);
  EXPECT_EQ(phone_state_set_acknowledged(state, 1), 0);
  EXPECT_EQ(phone_state_add_request(state, 1, ":1.2", "a"), 0);
  /* Numbers that start again are a new store's. */
  EXPECT_EQ(phone_state_add_request(state, 1, ":1.3", "a"), 1);
  EXPECT_EQ(phone_state_add_request(state, 1, ":1.3", "b"), 1);
  std::vector<stored_request> requests;
  EXPECT_EQ(phone_state_list_requests(state, &requests), 0);
  EXPECT_EQ(requests.size(), 3u);

  /* Mails are found by number and identity, and by identity alone when the numbers are another store's. */
  sent_mail one, two, found;
  one.message_uid = two.message_uid = "same";
  one.first = 1;
  two.first = 2;
  for (sent_mail *mail : {&one, &two}) EXPECT_EQ(phone_state_add_mail(state, mail), 0);
  EXPECT_EQ(phone_state_set_mail_id(state, one.row, 5), 0);
  EXPECT_EQ(phone_state_find_mail(state, 5, "same", &found), 1);
  EXPECT_EQ(found.first, 1);
  EXPECT_EQ(phone_state_find_mail(state, 9, "same", &found), 1);
  EXPECT_EQ(found.first, 2);
  EXPECT_EQ(phone_state_find_mail(state, 5, "other", &found), 0);
  EXPECT_EQ(phone_state_set_mail_id(state, two.row, 5), 0);
  EXPECT_EQ(phone_state_find_mail(state, 5, "same", &found), 1);
  EXPECT_EQ(found.first, 2);
  EXPECT_EQ(phone_state_drop_mails(state, {5}), 0);
  phone_state_close(state);
  std::filesystem::remove_all(folder);
}

/* Every file of the corpus, and what is too large to keep as a file: an answer in bounded size, or an error. */
TEST(Hostile, GoesThrough) {
  std::vector<std::pair<std::string, std::string>> corpus;
  for (const auto &entry : std::filesystem::directory_iterator(HOSTILE_DIR)) {
    std::ifstream in(entry.path(), std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    corpus.emplace_back(entry.path().filename(), text.str());
  }
  ASSERT_GE(corpus.size(), 20u);
  for (const case_row &c : table("large: what, its beginning, what is repeated, up to how many bytes, its end", 5)) {
    std::string raw = c[1];
    for (const size_t bytes = raw.size() + std::stoul(c[3]); raw.size() < bytes;) raw += c[2];
    corpus.emplace_back(c[0], raw + c[4]);
  }
  std::string nested;
  for (int i = 0; i < 3000; i++)
    nested += "Content-Type: multipart/mixed; boundary=b" + std::to_string(i) + "\n\n--b" + std::to_string(i) + "\n";
  corpus.emplace_back("deep multiparts", "From: a@b.c\n" + nested + "\nend");
  corpus.emplace_back("nothing but NUL", std::string(1 << 20, '\0'));
  for (const auto &[name, raw] : corpus) {
    mime_mail mail;
    std::string error;
    clock_t start = clock();
    int result = mime_parse(raw, mime_limits(), &mail, &error);
    double seconds = static_cast<double>(clock() - start) / CLOCKS_PER_SEC;
    std::printf("%-24s %8zu bytes %6.3f s%s\n", name.c_str(), raw.size(), seconds, result == 0 ? "" : "  refused");
    EXPECT_TRUE(result == 0 || !error.empty()) << name;
    EXPECT_LE(mail.body.size(), mime_limits().text) << name;
    EXPECT_LE(mail.subject.size(), 4096u) << name;
    for (const std::string *text : {&mail.subject, &mail.from_name, &mail.from_address, &mail.body, &mail.message_uid})
      EXPECT_TRUE(g_utf8_validate(text->data(), static_cast<gssize>(text->size()), nullptr)) << name;
    EXPECT_EQ(result == 0, !mail.message_uid.empty()) << name;
  }
}
