/* What becomes of real, odd and hostile mail. */
#include <gtest/gtest.h>

#include <glib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "../../phone/mime.h"
#include "../../phone/src/reply.h"
#include "../../phone/src/send.h"
#include "../../phone/src/state.h"

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

struct pair_case {
  const char *name, *in, *out;
};

void expect_all(std::initializer_list<pair_case> cases, std::string (*convert)(const std::string &)) {
  for (const pair_case &c : cases) EXPECT_EQ(convert(c.in), c.out) << c.name;
}

}  // namespace

TEST(Html, ReadsAsAPersonWould) {
  expect_all(
      {
          {"paragraphs", "<p>One\n two</p><p>Three<br>four</p>", "One two\n\nThree\nfour"},
          {"blocks", "<div>One</div><div>Two</div><h2>Three</h2>Four", "One\nTwo\n\nThree\n\nFour"},
          {"lists", "<ul><li>a<ul><li>b</li></ul><li>c</ul><ol start=9><li>x<li>y</ol>",
           "• a\n  • b\n• c\n\n9. x\n10. y"},
          {"item of lines", "<ul><li>a<br>b</li></ul>", "• a\n  b"},
          {"quotes", "<blockquote>a<blockquote><p>b</p><p>c</p></blockquote></blockquote>d",
           "> a\n>\n> > b\n> >\n> > c\n\nd"},
          {"rows", "<table><tr><th>A<th>B</tr><tr><td><p>1</p></td><td> 2 </td></tr></table>end", "A  B\n1  2\nend"},
          {"cells of lines", "<table><tr><td>1<br>2</td><td>3</td></tr></table>", "1\n2\n3"},
          {"empty cells", "<table><tr><td></td><td>a</td><td> </td><td>b</td></tr></table>", "a  b"},
          {"links", "<a href='http://x'>here</a><a href=y><img src=z alt=logo></a>", "here[logo]"},
          {"entities", "&lt;b&gt; &amp;amp; &eacute;&#233;&#xE9; &euro; &#128; &hearts; &nosuch; &copy; &#0;&#xfdd0;",
           "<b> &amp; ééé € € ♥ &nosuch; © \xef\xbf\xbd\xef\xbf\xbd"},
          {"blanks", "a&nbsp; &nbsp;b \n\t c&shy;d &zwnj;&nbsp;&zwnj; e", "a b cd e"},
          {"letters that need a joiner", "می&zwnj;خواهم", "می\xe2\x80\x8cخواهم"},
          {"preformatted", "<pre>a\n  b\n\nc</pre>", "a\n  b\n\nc"},
          {"unshown",
           "<head><title>t</title><style>p{}</style></head>a<script>if (a<b) '</p>'</script>b<!-- <p>c</p> -->d"
           "<!--[if mso]>e<![endif]--><![if !mso]>f<![endif]><div style='DISPLAY : none'>g<div>h</div>i</div>j"
           "<span hidden>k</span>l<svg><text>m</text></svg><div style='max-height:0;overflow:hidden'>n</div>",
           "abdfjl"},
          {"signs that are no tags", "1 < 2 > 0 <3 a<b", "1 < 2 > 0 <3 a"},
          {"never closed", "a<!-- b", "a"},
          {"attribute with a bracket", "<p title='a>b'>c</p><p title=\"d>e\n>f", "c\n\ne >f"},
          {"head left open", "<html><head><title>x</title><body>text", "text"},
          {"head and body left out", "<head><meta a=b><title>x<p>text</p>more", "text\n\nmore"},
          {"spacers",
           "<table><tr><td>a</td><td width=9><img src=x "
           "width=1></td><td><table><tr><td>b</table></td><td>&nbsp;</td><td>c</td></tr></table>",
           "a\nb  c"},
          {"text of no size", "a<span style='font-size: 0px'>b</span><p style='mso-hide:all'>c</p>d", "ad"},
      },
      [](const std::string &in) { return html(in); });
}

TEST(Html, TellsPicturesFromCounters) {
  for (auto [text, expected] : {std::pair{"<img src='cid:1'>", true},
                                {"<img src=x width=1 height=1>", false},
                                {"<img alt=x>", false},
                                {"<p>none</p>", false}}) {
    bool image = false;
    mime_html_to_text(text, 1000, &image);
    EXPECT_EQ(image, expected) << text;
  }
}

TEST(Html, KeepsItsBounds) {
  /* Each of these is a trap for a reader that looks ahead, recurses or remembers. */
  const std::pair<const char *, const char *> bombs[] = {{"open tags", "<"},
                                                         {"nesting", "<div><blockquote><ul><li>"},
                                                         {"comments", "<!--"},
                                                         {"quotes", "<a b=\"'><a b='\">"},
                                                         {"entities", "&#x26;&amp;amp;&"},
                                                         {"scripts", "<script>"},
                                                         {"tables", "<table><tr><td>"},
                                                         {"attributes", "<p a=b c d='e' "},
                                                         {"hidden", "<p hidden>"},
                                                         {"lines", "<br>"},
                                                         {"half characters", "\xf0\x9f"}};
  for (auto [name, unit] : bombs) {
    std::string text;
    while (text.size() < (4u << 20)) text += unit;
    text += "end";
    std::string out = mime_html_to_text(text, 100000, nullptr);
    EXPECT_LE(out.size(), 100000u) << name;
    EXPECT_TRUE(g_utf8_validate(out.data(), static_cast<gssize>(out.size()), nullptr)) << name;
  }
}

TEST(Charsets, ReadableWhateverTheyClaim) {
  mime_init();
  struct {
    const char *charset, *bytes, *text;
  } cases[] = {
      {"utf-8", "Gr\xc3\xbc\xc3\x9f", "Grüß"},
      {nullptr, "Gr\xc3\xbc", "Grü"},
      {"iso-8859-1", "Gr\xfc \x80", "Grü €"},
      {"ISO-8859-1", "Gr\xc3\xbc\xc3\x9f", "Grüß"},
      {"us-ascii", "Gr\xfc", "Grü"},
      {"utf-8", "Gr\xfc\xc3\x9f", "Grüß"},
      {"no-such-charset", "Gr\xc3\xbc", "Grü"},
      {"no-such-charset", "\x93hi\x94", "“hi”"},
      {"koi8-r", "\xf0\xd2\xc9\xd7\xc5\xd4", "Привет"},
      {"windows-1251", "\xcf\xf0\xe8\xe2\xe5\xf2", "Привет"},
      {"koi8_r", "\xf0\xd2\xc9", "При"},
      {"gb2312", "\xe4\xbd\xa0\xe5\xa5\xbd", "你好"},
      {"iso-2022-jp", "\x1b$B-!$3\x1b(B\x1b$B-j-b", "①こ㈱№"},
      {"iso-2022-jp", "\x82\xb1\x82\xcc", "この"},
      {"iso-2022-jp", "\xa4\xb3\xa4\xce", "この"},
      {"gb2312", "\xc4\xe3\xba\xc3", "你好"},
      {"big5", "\xa7\x41\xa6\x6e", "你好"},
      {"shift_jis", "\x82\xb1", "こ"},
      {"iso-2022-jp", "\x1b$B$3\x1b(B", "こ"},
      {nullptr, "\x1b$B$3\x1b(B", "こ"},
      {"ks_c_5601-1987", "\xb0\xa1", "가"},
      {"utf-7", "Hi +AOQ-", "Hi ä"},
      {"\"utf-8\"", "\xc3\xa4", "ä"},
      {"utf-8",
       "a\r\nb\rc\x01\x7f\xc2\x85"
       "d",
       "a\nb\nc\nd"},
      /* What is no character at all, which the bus does not take. */
      {"utf-8",
       "a\xef\xbf\xbf\xef\xb7\x90"
       "b\xf0\x9f\xbf\xbe\xf0\x9f\x98\x80\xef\xbf\xbd",
       "ab😀�"},
  };
  for (const auto &c : cases) EXPECT_EQ(mime_to_utf8(c.bytes, c.charset), c.text) << (c.charset ? c.charset : "none");
  EXPECT_EQ(mime_to_utf8(std::string_view("a\0b", 3), nullptr), "ab");
  EXPECT_EQ(mime_clean_line("a\r\n  b\t\xe2\x80\xae"
                            "c ",
                            100),
            "a b c");
}

TEST(Headers, SayWhoAndWhat) {
  struct {
    const char *headers, *subject, *name, *address;
  } cases[] = {
      {"From: Ann <a@b.c>\nSubject: Hi", "Hi", "Ann", "a@b.c"},
      {"From: \"Doe, J. \\\"Q\\\"\" <a@b.c>", "", "Doe, J. \"Q\"", "a@b.c"},
      {"From: =?utf-8?q?J=C3=BCrgen?= =?utf-8?q?_M?= <a@b.c>\nSubject: =?utf-8?B?w4Q=?=\n =?utf-8?B?w5Y=?= x", "ÄÖ x",
       "Jürgen M", "a@b.c"},
      /* One character split between two words, which is wrong and common. */
      {"From: a@b.c\nSubject: =?utf-8?B?4KQ=?= =?utf-8?B?lQ==?=", "क", "", "a@b.c"},
      {"From: a@b.c\nSubject: =?gb2312?B?xOO6ww==?= =?nosuch?Q?=E4?= =?utf-8?Q?broken", "你好ä =?utf-8?Q?broken", "",
       "a@b.c"},
      {"From: \"=?utf-8?Q?=C3=84?=\" <a@b.c>\nSubject: a\n\tb", "a b", "Ä", "a@b.c"},
      {"From: b\xfc"
       "ro <a@b.c>",
       "", "büro", "a@b.c"},
      {"From: team: Ann <a@b.c>, Bob <b@b.c>;", "", "Ann", "a@b.c"},
      {"Sender: s@b.c\nSubject: no from", "no from", "", "s@b.c"},
      {"From: nobody at all", "", "nobody at all", ""},
      {"From: Mail System <>", "", "Mail System", ""},
      {"From: Doe, Jane <a@b.c>", "", "Doe, Jane", "a@b.c"},
      /* What looks like an address in a name is none, and is not shown as the sender's. */
      {"From: \"x@bank.example\", <a@b.c>", "", "", "a@b.c"},
      {"From: \"x@bank.example\" a@b.c", "", "", "a@b.c"},
      {"From: x@bank.example <a@b.c>", "", "", "a@b.c"},
      {"From: a@b.c, Ann <x@y.z>", "", "", "a@b.c"},
      {"From: \"'Ann'\" <a@b.c>", "", "Ann", "a@b.c"},
      {"From: \"Ann <a@b.c>", "", "Ann", "a@b.c"},
      {"From: John [ACME] <a@b.c>", "", "John [ACME]", "a@b.c"},
      {"From: root (Cron Daemon)", "", "Cron Daemon", "root"},
      {"From: <a@b.c> (Ann)", "", "Ann", "a@b.c"},
      {"From: <@relay:a@b.c>", "", "", "a@b.c"},
      {"  From: a@b.c\nSubject: behind blanks", "behind blanks", "", "a@b.c"},
      {"From: a@b.c\nSubject: \xf0\xd2\xc9\nContent-Type: text/plain; charset=koi8_r", "При", "", "a@b.c"},
      {"From: a@b.c\nSubject: =?utf-8?B?4KQ=?= =?Utf-8?B?lQ==?=", "क", "", "a@b.c"},
      {"From: a@b.c\nSubject: =?utf-8?B?w6Q?= =?utf-8?B?w7bDtg?=", "äöö", "", "a@b.c"},
      {"\xef\xbb\xbf\n\r\nFrom: a@b.c\nSubject: behind a mark", "behind a mark", "", "a@b.c"},
      {"From: a@b.c\rSubject: old line ends\r", "old line ends", "", "a@b.c"},
      {"From: a@b.c\nSubject: x\xe2\x80\xae"
       "gpj.exe",
       "xgpj.exe", "", "a@b.c"},
  };
  for (const auto &c : cases) {
    const char *end = strchr(c.headers, '\r') && !strchr(c.headers, '\n') ? "\rbody" : "\n\nbody";
    mime_mail mail = read(std::string(c.headers) + end);
    EXPECT_EQ(mail.body, "body") << c.headers;
    EXPECT_EQ(mail.subject, c.subject) << c.headers;
    EXPECT_EQ(mail.from_name, c.name) << c.headers;
    EXPECT_EQ(mail.from_address, c.address) << c.headers;
  }
}

TEST(Headers, IdentifyAMail) {
  mime_mail mail = read(
      "From: a@b.c\nMessage-ID: <id@x>\nIn-Reply-To: <p@x>\nReferences: <o@x>\n <p@x> junk\n"
      "Reply-To: Desk <desk@b.c>\n\nx");
  EXPECT_EQ(mail.message_uid, "id@x");
  EXPECT_EQ(mail.references, "<o@x> <p@x>");
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
  const std::string mixed = "Content-Type: multipart/mixed; boundary=m",
                    alt = "Content-Type: multipart/alternative; boundary=a",
                    rel = "Content-Type: multipart/related; boundary=r", plain = "Content-Type: text/plain\n\n",
                    page = "Content-Type: text/html\n\n", picture = "Content-Type: image/png\nContent-ID: <1>\n\nx",
                    file = "Content-Type: application/pdf\nContent-Disposition: attachment; filename=f.pdf\n\nx";
  auto parts = [](const char *b, std::initializer_list<std::string> all) {
    std::string out;
    for (const std::string &part : all) out += std::string("--") + b + "\n" + part + "\n";
    return out + "--" + b + "--\n";
  };
  struct {
    const char *name;
    std::string raw, body;
    int attachments;
    bool image;
  } cases[] = {
      {"plain over html", with_body(alt, parts("a", {plain + "one", page + "<p>two"})), "one", 0, false},
      {"whatever the order", with_body(alt, parts("a", {page + "<p>two", plain + "one"})), "one", 0, false},
      {"html over nothing", with_body(alt, parts("a", {plain + " ", page + "<p>two"})), "two", 0, false},
      {"html over an excuse",
       with_body(alt, parts("a", {plain + "This is an HTML mail.", page + "<p>what it really has to say"})),
       "what it really has to say", 0, false},
      {"html by its look", with_body("Content-Type: text/plain", "\n<HTML><p>one</p></HTML>"), "one", 0, false},
      {"pictures of the other form",
       with_body(alt, parts("a", {plain + "one", rel + "\n\n" + parts("r", {page + "<p>two", picture})})), "one", 0,
       true},
      {"attachments",
       with_body(mixed, parts("m", {plain + "one", file, file, "Content-Type: message/rfc822\n\nSubject: x\n\ny"})),
       "one", 3, false},
      {"attached picture",
       with_body(mixed, parts("m", {plain + "one", "Content-Type: image/png\nContent-Disposition: attachment\n\nx"})),
       "one", 1, false},
      {"attached text", with_body(mixed, parts("m", {plain + "one", "Content-Type: text/plain; name=log.txt\n\ntwo"})),
       "one", 1, false},
      {"text in pieces", with_body(mixed, parts("m", {plain + "one", plain + "two"})), "one\n\ntwo", 0, false},
      {"signed",
       with_body("Content-Type: multipart/signed; boundary=m",
                 parts("m", {plain + "one", "Content-Type: application/pgp-signature\n\nx"})),
       "one", 0, false},
      {"calendar form", with_body(alt, parts("a", {plain + "one", "Content-Type: text/calendar\n\nBEGIN"})), "one", 0,
       false},
      {"a picture alone", with_body("Content-Type: image/png; name=pier.png", "x"), "🖼 pier.png", 0, true},
      {"a stub",
       with_body(alt, parts("a", {plain + "Your program cannot show this.\nhttps://x.example/a/very/long/address",
                                  page + "<p>What was meant to be read, and a good deal more of it than the "
                                         "other form has, which makes it the mail itself, does it not?"})),
       "What was meant to be read, and a good deal more of it than the other form has, which makes it the mail itself, "
       "does it not?",
       0, false},
      {"mostly addresses",
       with_body(alt, parts("a", {plain + "Sale https://x.example/aaaaaaaaaaaaaaaaaaaaaaa", page + "<p>Sale now"})),
       "Sale now", 0, false},
      {"rich text of the old kind", with_body("", "{\\rtf1 a}"), "", 1, false},
      {"rich text beside it", with_body(alt, parts("a", {page + "one", "Content-Type: text/rtf\n\n{x}"})), "one", 1,
       false},
      {"named text alone", with_body(mixed, parts("m", {"Content-Type: text/plain; name=a.txt\n\none"})), "one", 0,
       false},
      {"a file in the text", with_body("", "one\nbegin 644 a\n#0V%T\n`\nend\ntwo\nbegin 644 things"),
       "one\n\ntwo\nbegin 644 things", 1, false},
      {"an encrypted block", with_body("", "-----BEGIN PGP MESSAGE-----\n\nx\n-----END PGP MESSAGE-----\n"),
       "🔒 OpenPGP", 0, false},
      {"only what the content is", "Content-Type: text/plain\n\none", "one", 0, false},
      {"no end", with_body(mixed, "--m\n" + plain + "one\n--m\nContent-Type: application/pdf\n\nx"), "one", 1, false},
      {"an invitation alone",
       with_body("Content-Type: text/calendar",
                 "BEGIN:VCALENDAR\nBEGIN:VEVENT\nSUMMARY:One\\, two\nDTSTART;TZID=\"A/B\":20260105T140000\n"
                 "DTEND;TZID=\"A/B\":20260105T150000\nLOCATION:Room\n  4\nBEGIN:VALARM\nDESCRIPTION:no\n"
                 "END:VALARM\nDESCRIPTION;X=\"a:b\":Bring\\nnumbers\nEND:VEVENT\nBEGIN:VEVENT\nSUMMARY:no\n"),
       "One, two\n2026-01-05 14:00 – 15:00 (A/B)\nRoom 4\n\nBring\nnumbers", 0, false},
      {"no invitation", with_body("Content-Type: text/calendar", "BEGIN"), "BEGIN", 0, false},
      {"signed where it stands",
       with_body("",
                 "a\n-----BEGIN PGP SIGNED MESSAGE-----\nHash: X\n\n- -b\n-----BEGIN PGP SIGNATURE-----\nx\n"
                 "-----END PGP SIGNATURE-----\nc"),
       "a\n-b\nc", 0, false},
      {"encrypted", with_body("Content-Type: multipart/encrypted; boundary=m", parts("m", {file, file})), "🔒 OpenPGP",
       0, false},
      {"only a forwarded mail",
       with_body(mixed, parts("m", {"Content-Type: message/rfc822\n\nFrom: x@y\nSubject: sub\n\ntext", file})),
       "sub\n\ntext", 2, false},
      {"no boundary", with_body("Content-Type: multipart/mixed", "text"), "text", 0, false},
      {"a type that is none", with_body("Content-Type: nonsense", "text"), "text", 0, false},
      {"no type", "From: a@b.c\n\none\n", "one", 0, false},
  };
  for (const auto &c : cases) {
    mime_mail mail = read(c.raw);
    EXPECT_EQ(mail.body, c.body) << c.name;
    EXPECT_EQ(mail.attachment_count, c.attachments) << c.name;
    EXPECT_EQ(mail.has_image, c.image) << c.name;
  }
}

TEST(Parts, Meetings) {
  setenv("TZ", "Europe/Berlin", 1);
  const std::string when = "DTSTART:20260105T130000Z\nDTEND:20260105T140000Z\n", said = "SUMMARY:One\n";
  auto body = [](const std::string &head, const std::string &event) {
    return read(with_body("Content-Type: text/calendar",
                          "BEGIN:VCALENDAR\n" + head + "BEGIN:VEVENT\n" + event + "END:VEVENT\n"))
        .body;
  };
  struct {
    const char *name;
    std::string head, event, text;
  } cases[] = {
      {"the reader's zone", "", said + when, "One\n2026-01-05 14:00 – 15:00"},
      {"another zone", "", said + "DTSTART;TZID=Asia/Tokyo:20260105T010000\nDURATION:PT1H30M\n",
       "One\n2026-01-04 17:00 – 18:30"},
      {"cancelled", "METHOD:CANCEL\n", said + when, "🚫 One\n2026-01-05 14:00 – 15:00"},
      {"changed", "METHOD:REQUEST\n", said + "SEQUENCE:2\n", "✏️ One"},
      {"first asked", "METHOD:REQUEST\n", said + "SEQUENCE:0\n", "One"},
      {"declined", "METHOD:REPLY\n", said + "ATTENDEE;PARTSTAT=DECLINED:mailto:a@b.c\n", "❌ One"},
      {"days", "", said + "DTSTART;VALUE=DATE:20260105\nDTEND;VALUE=DATE:20260108\n", "One\n2026-01-05 – 2026-01-07"},
      {"every week", "", said + when + "RRULE:FREQ=WEEKLY;BYDAY=MO,TH;INTERVAL=2\n",
       "One\n2026-01-05 14:00 – 15:00\n🔁 2026-01-08, 2026-01-19, 2026-01-22 …"},
      {"twice", "", said + when + "RRULE:FREQ=DAILY;COUNT=2\n", "One\n2026-01-05 14:00 – 15:00\n🔁 2026-01-06"},
      {"until", "", said + when + "RRULE:FREQ=MONTHLY;UNTIL=20260210T000000Z\n",
       "One\n2026-01-05 14:00 – 15:00\n🔁 2026-02-05"},
      {"a rule of its own", "", said + when + "RRULE:FREQ=MONTHLY;BYDAY=1MO\n", "One\n2026-01-05 14:00 – 15:00\n🔁 …"},
  };
  for (const auto &c : cases) EXPECT_EQ(body(c.head, c.event), c.text) << c.name;
}

TEST(Parts, FlowedAndEncodedText) {
  const std::string flowed = "Content-Type: text/plain; format=flowed",
                    qp = "Content-Transfer-Encoding: quoted-printable\n";
  expect_all({{"flowed", "one \ntwo\n\n> q1 \n> q2\nthree\n-- \nsig", "one two\n\n> q1 q2\nthree\n--\nsig"},
              {"stuffed", " From x\n  indented \nmore", "From x\n indented more"},
              {"depths", "> a \n>> b\n> c", "> a\n>> b\n> c"}},
             [](const std::string &in) { return read(with_body("Content-Type: text/plain; format=flowed", in)).body; });
  EXPECT_EQ(read(with_body(flowed + "; delsp=yes", "ab \ncd")).body, "abcd");
  EXPECT_EQ(read(with_body(qp + "Content-Type: text/plain; charset=utf-8", "=C3=A4=\n=ZZ =")).body.substr(0, 2), "ä");
  EXPECT_EQ(read(with_body("Content-Transfer-Encoding: base64\nContent-Type: text/plain", "SGVs\nbG8!!")).body, "Hel");
  EXPECT_EQ(read(with_body("Content-Transfer-Encoding: nonsense", "text")).body, "text");
  EXPECT_EQ(read(with_body("Content-Type: text/html", "<meta charset=koi8-r>\xf0\xd2\xc9")).body, "При");
  EXPECT_EQ(read(with_body("", "a  \n\n\n \n\n\u00a0\n  b\n\n")).body, "a\n\n\n  b");
  EXPECT_EQ(read(with_body("", std::string(40, '-') + "\na\n--\nsig\n" + std::string(30, '='))).body,
            "———\na\n--\nsig\n———");
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
  for (auto [in, out] : {std::pair{"Hi", "Re: Hi"},
                         {"Re: Hi", "Re: Hi"},
                         {"RE:re: Re[4]: Hi", "Re: Hi"},
                         {"", "Re:"},
                         {"Regarding: Hi", "Re: Regarding: Hi"},
                         {"a\r\nBcc: x", "Re: a Bcc: x"}})
    EXPECT_EQ(reply_subject(in), out);
  for (auto [in, out] : {std::pair{"a &amp; b<br/>c<br>d", "a & b\nc\nd"},
                         {"1 < 2 & 3 > 2", "1 < 2 & 3 > 2"},
                         {"<b>bold</b> &lt;b&gt;", "bold <b>"},
                         {"x <y", "x <y"}})
    EXPECT_EQ(mime_markup_to_text(in), out);
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
  auto repeat = [](const std::string &unit, size_t bytes) {
    std::string out;
    while (out.size() < bytes) out += unit;
    return out;
  };
  std::string nested, deep;
  for (int i = 0; i < 3000; i++) {
    nested += "Content-Type: multipart/mixed; boundary=b" + std::to_string(i) + "\n\n--b" + std::to_string(i) + "\n";
    deep += "Content-Type: message/rfc822\n\n";
  }
  corpus.emplace_back("deep multiparts", "From: a@b.c\n" + nested + "\nend");
  corpus.emplace_back("deep messages", "From: a@b.c\n" + deep + "Subject: x\n\nend");
  corpus.emplace_back("many parts",
                      with_body("Content-Type: multipart/mixed; boundary=b", repeat("--b\n\nx\n", 32 << 20)));
  corpus.emplace_back("many headers", repeat("X-A: b\n", 4 << 20) + "From: a@b.c\n\nx");
  corpus.emplace_back("long header", "From: a@b.c\nSubject: " + repeat("=?utf-8?B?", 4 << 20) + "\n\nx");
  corpus.emplace_back("long address list", "From: " + repeat("\"a\" <b@c>, (", 4 << 20) + "\n\nx");
  corpus.emplace_back("groups in groups", "From: " + repeat("g:\n ", 160000) + "\n\nx");
  corpus.emplace_back("groups in a forwarded mail",
                      with_body("Content-Type: message/rfc822", "Resent-cc : " + repeat("g:", 160000)));
  corpus.emplace_back("comments in comments", "To: " + repeat("(", 160000) + "\n\nx");
  corpus.emplace_back("long references", "From: a@b.c\nReferences: " + repeat("<a@b> ", 4 << 20) + "\n\nx");
  corpus.emplace_back("long type", "From: a@b.c\nContent-Type: text/plain" + repeat("; a*0=b", 4 << 20) + "\n\nx");
  corpus.emplace_back("long folds", "From: a@b.c\nSubject: a" + repeat("\n ", 4 << 20) + "\n\nx");
  corpus.emplace_back("one line", "From: a@b.c\n\n" + std::string(16 << 20, 'x'));
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
