/* Draws every group and widget style with sample texts on the buffer engine, for people to look at:
 *   gallery --res DIR --out DIR [--size WxH] [--scale F] [--language de|ru|ar|en] [--light] [--only NAME]
 * The screens here use the widgets as the application does, but none of its code: the theme can be judged alone. */
#include <Ecore_Evas.h>
#include <Elementary.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct texts {
  const char *language, *title, *combined, *senders[6], *times[6], *deleted, *no_mails, *popup_title, *popup_text,
      *update, *cancel, *ok, *toast, *subject, *body, *image, *more, *attachments, *show_on_phone, *call, *reply,
      *method, *delete_, *templates[4], *connecting, *home, *select_reply, *entry;
};

const texts all_texts[] = {
    {"en",
     "Email",
     "All accounts",
     {"Anna Kowalska", "Maximilian von Hohenstein-Waldenburg", "Ян Новак", "ليلى", "김서연", "Newsletter 🌍"},
     {"14:02", "11:45 am", "Yesterday", "23/11", "22/11", "01/11/2025"},
     "Deleted",
     "No emails",
     "Open email",
     "For security reasons, the content of this email cannot be shown on the watch. View it on your phone.",
     "Your phone does not support replying. Check for updates in the settings of your phone.",
     "Cancel",
     "OK",
     "Check your phone to view the content.",
     "Minutes of Monday's meeting",
     "Hello Max,<br/><br/>the room is booked for Thursday at ten. Could you bring the drawings of the second floor? I "
     "will "
     "have the samples with me &amp; the list of what is still open.<br/><br/>Anna",
     "Images are not shown on the watch.",
     "More on your phone",
     "3 attachments",
     "Show on phone",
     "Call",
     "Reply",
     "Templates",
     "Delete",
     {"Thanks!", "I'll call you later.", "I'm in a meeting right now and will answer as soon as I am out of it.", "OK"},
     "Connecting…",
     "Mobile",
     "Select reply",
     "I'm on my way 😀"},
    {"de",
     "E-Mail",
     "Alle Konten",
     {"Anna Kowalska", "Maximilian von Hohenstein-Waldenburg", "Ян Новак", "ليلى", "김서연", "Newsletter 🌍"},
     {"14:02", "11:45", "Gestern", "23.11.", "22.11.", "01.11.2025"},
     "Gelöscht",
     "Keine E-Mails",
     "E-Mail öffnen",
     "Aus Sicherheitsgründen kann der Inhalt dieser E-Mail nicht auf der Uhr angezeigt werden. Öffnen Sie sie auf "
     "Ihrem Mobilgerät.",
     "Ihr Mobilgerät unterstützt das Antworten nicht. Suchen Sie in den Einstellungen Ihres Mobilgeräts nach "
     "Aktualisierungen.",
     "Abbrechen",
     "OK",
     "Sehen Sie sich den Inhalt auf Ihrem Mobilgerät an.",
     "Protokoll der Geschäftsführungssitzung vom Donnerstag",
     "Sehr geehrter Herr von Hohenstein,<br/><br/>anbei die Unterlagen zur "
     "Donaudampfschifffahrtsgesellschaftskapitänsversammlung. Bitte bestätigen Sie "
     "den Eingang bis Freitag.<br/><br/>Mit freundlichen Grüßen<br/>Anna Kowalska",
     "Bilder werden auf der Uhr nicht angezeigt.",
     "Mehr auf dem Mobilgerät",
     "12 Anhänge",
     "Auf Mobilgerät anzeigen",
     "Anrufen",
     "Antworten",
     "Textvorlagen",
     "Löschen",
     {"Danke!", "Ich rufe Sie später zurück.",
      "Ich bin gerade in einer Besprechung und antworte, sobald sie zu Ende ist.", "Einverstanden"},
     "Verbindung wird hergestellt …",
     "Mobiltelefon",
     "Antwort auswählen",
     "Ich bin unterwegs 😀"},
    {"ru",
     "Эл. почта",
     "Все учётные записи",
     {"Александра Константинопольская", "Ян Новак", "Отдел обслуживания клиентов", "Maria", "김서연", "Рассылка 🌍"},
     {"14:02", "11:45", "Вчера", "23.11", "22.11", "01.11.2025"},
     "Удалено",
     "Нет писем",
     "Открыть письмо",
     "По соображениям безопасности содержимое этого письма нельзя показать на часах. Откройте его на телефоне.",
     "Ваш телефон не поддерживает ответы. Проверьте наличие обновлений в настройках телефона.",
     "Отмена",
     "ОК",
     "Содержимое можно посмотреть на телефоне.",
     "Протокол совещания руководителей отделов",
     "Здравствуйте!<br/><br/>Направляем вам документы к предстоящему совещанию. Пожалуйста, подтвердите получение до "
     "пятницы.<br/><br/>С уважением,<br/>Александра",
     "Изображения на часах не показываются.",
     "Продолжение на телефоне",
     "12 вложений",
     "Показать на телефоне",
     "Позвонить",
     "Ответить",
     "Шаблоны",
     "Удалить",
     {"Спасибо!", "Я перезвоню позже.", "Я сейчас на совещании и отвечу, как только оно закончится.", "Хорошо"},
     "Подключение…",
     "Мобильный",
     "Выберите ответ",
     "Уже еду 😀"},
    {"ar",
     "البريد",
     "كل الحسابات",
     {"ليلى عبد الرحمن", "عبد العزيز بن محمد الهاشمي القرشي", "Anna Kowalska", "يوسف", "김서연", "النشرة 🌍"},
     {"14:02", "11:45", "أمس", "23/11", "22/11", "2025/11/01"},
     "تم الحذف",
     "لا توجد رسائل",
     "فتح الرسالة",
     "لأسباب أمنية، لا يمكن عرض محتوى هذه الرسالة على الساعة. اعرضها على هاتفك.",
     "هاتفك لا يدعم الرد. تحقق من وجود تحديثات في إعدادات هاتفك.",
     "إلغاء",
     "موافق",
     "تحقق من هاتفك لعرض المحتوى.",
     "محضر اجتماع يوم الاثنين",
     "السلام عليكم،<br/><br/>تم حجز القاعة يوم الخميس الساعة العاشرة. هل يمكنك إحضار رسومات الطابق الثاني؟ Room "
     "204.<br/><br/>ليلى",
     "لا يتم عرض الصور على الساعة.",
     "المزيد على هاتفك",
     "3 مرفقات",
     "عرض على الهاتف",
     "اتصال",
     "رد",
     "القوالب",
     "حذف",
     {"شكرا!", "سأتصل بك لاحقا.", "أنا في اجتماع الآن وسأجيب عندما ينتهي.", "حسنا"},
     "جارٍ الاتصال…",
     "الجوال",
     "اختر الرد",
     "أنا في الطريق 😀"},
    {"ko",
     "이메일",
     "모든 계정",
     {"김서연", "국립중앙박물관 고객지원센터 담당자", "Ян Новак", "田中さくら", "李明", "뉴스레터 🌍"},
     {"오후 2:02", "오전 11:45", "어제", "11/23", "11/22", "2025/11/01"},
     "삭제됨",
     "이메일 없음",
     "이메일 열기",
     "보안상의 이유로 이 이메일의 내용을 시계에 표시할 수 없습니다. 휴대전화에서 확인하세요.",
     "휴대전화에서 답장을 지원하지 않습니다. 휴대전화 설정에서 업데이트를 확인하세요.",
     "취소",
     "확인",
     "휴대전화에서 내용을 확인하세요.",
     "월요일 회의록 안내",
     "안녕하세요.<br/><br/>목요일 열 시에 회의실을 예약했습니다. 2층 도면을 가져오실 수 있나요? "
     "こんにちは、会議の資料をお送りします。<br/><br/>김서연",
     "시계에는 이미지가 표시되지 않습니다.",
     "휴대전화에서 더 보기",
     "첨부 파일 3개",
     "휴대전화에서 보기",
     "전화",
     "답장",
     "템플릿",
     "삭제",
     {"감사합니다!", "나중에 전화하겠습니다.", "지금 회의 중입니다. 끝나면 바로 답장하겠습니다.", "네"},
     "연결 중…",
     "휴대전화",
     "답장 선택",
     "가는 중이에요 😀"},
    {"hi",
     "ईमेल",
     "सभी खाते",
     {"प्रिया शर्मा", "राष्ट्रीय सूचना विज्ञान केंद्र", "Ян Новак", "田中さくら", "李明", "समाचार 🌍"},
     {"14:02", "11:45", "कल", "23/11", "22/11", "01/11/2025"},
     "हटाया गया",
     "कोई ईमेल नहीं",
     "ईमेल खोलें",
     "सुरक्षा कारणों से इस ईमेल की सामग्री घड़ी पर नहीं दिखाई जा सकती। इसे अपने फ़ोन पर देखें।",
     "आपका फ़ोन जवाब देने का समर्थन नहीं करता। अपने फ़ोन की सेटिंग में अपडेट देखें।",
     "रद्द करें",
     "ठीक",
     "सामग्री देखने के लिए अपना फ़ोन देखें।",
     "सोमवार की बैठक का विवरण",
     "नमस्ते,<br/><br/>गुरुवार को दस बजे कमरा आरक्षित है। क्या आप दूसरी मंज़िल के चित्र ला सकते हैं?<br/><br/>प्रिया",
     "घड़ी पर चित्र नहीं दिखाए जाते।",
     "फ़ोन पर और पढ़ें",
     "3 अटैचमेंट",
     "फ़ोन पर दिखाएँ",
     "कॉल करें",
     "जवाब दें",
     "टेम्पलेट",
     "हटाएँ",
     {"धन्यवाद!", "मैं बाद में कॉल करूँगा।", "मैं अभी बैठक में हूँ, ख़त्म होते ही जवाब दूँगा।", "ठीक है"},
     "कनेक्ट हो रहा है…",
     "मोबाइल",
     "जवाब चुनें",
     "मैं रास्ते में हूँ 😀"},
};

const texts *t = &all_texts[0];
std::string res_dir, out_dir;
int width = 320, height = 320;
bool light;
Evas_Object *win;

std::string brisel() {
  return res_dir + "/edje/brisel.edj";
}
std::string images() {
  return res_dir + "/edje/brisel-images.edj";
}
double sc() {
  return elm_config_scale_get();
}

void fill(Evas_Object *obj) {
  evas_object_size_hint_weight_set(obj, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  evas_object_size_hint_align_set(obj, EVAS_HINT_FILL, EVAS_HINT_FILL);
  evas_object_show(obj);
}

Evas_Object *image(Evas_Object *parent, const char *name, int w = 0, int h = 0) {
  Evas_Object *img = elm_image_add(parent);
  if (!elm_image_file_set(img, images().c_str(), name)) fprintf(stderr, "no image %s\n", name);
  if (w) {
    evas_object_size_hint_min_set(img, (int)(w * sc()), (int)(h * sc()));
    evas_object_size_hint_max_set(img, (int)(w * sc()), (int)(h * sc()));
  } else {
    evas_object_size_hint_aspect_set(img, EVAS_ASPECT_CONTROL_BOTH, 1, 1);
  }
  evas_object_show(img);
  return img;
}

Evas_Object *colorbar(Evas_Object *parent, int r, int g, int b) {
  Evas_Object *bar = evas_object_rectangle_add(evas_object_evas_get(parent));
  evas_object_size_hint_min_set(bar, (int)(7 * sc()), 0);
  evas_object_size_hint_max_set(bar, (int)(7 * sc()), -1);
  evas_object_color_set(bar, r, g, b, 255);
  evas_object_show(bar);
  return bar;
}

Evas_Object *button(Evas_Object *parent, const char *style, const char *text) {
  Evas_Object *btn = elm_button_add(parent);
  if (style && !elm_object_style_set(btn, style)) fprintf(stderr, "no button style %s\n", style);
  if (text) elm_object_text_set(btn, text);
  evas_object_show(btn);
  return btn;
}

Evas_Object *title_button(Evas_Object *parent, const char *icon) {
  Evas_Object *btn = button(parent, "naviframe/title_icon", nullptr);
  elm_object_content_set(btn, image(btn, icon));
  return btn;
}

Evas_Object *naviframe() {
  Evas_Object *conform = elm_conformant_add(win);
  fill(conform);
  elm_win_resize_object_add(win, conform);
  Evas_Object *layout = elm_layout_add(conform);
  if (!elm_layout_theme_set(layout, "layout", "application", "default")) fprintf(stderr, "no application layout\n");
  fill(layout);
  elm_object_content_set(conform, layout);
  Evas_Object *navi = elm_naviframe_add(layout);
  elm_object_part_content_set(layout, "elm.swallow.content", navi);
  evas_object_show(navi);
  return navi;
}

Elm_Object_Item *push(Evas_Object *navi, Evas_Object *content, const char *title, const char *icon, Evas_Object *next) {
  Elm_Object_Item *it = elm_naviframe_item_push(navi, title, nullptr, next, content, nullptr);
  if (icon) elm_object_item_part_content_set(it, "elm.swallow.icon", image(navi, icon));
  return it;
}

Evas_Object *application_layout(Evas_Object *navi) {
  Evas_Object *layout = elm_layout_add(navi);
  if (!elm_layout_theme_set(layout, "layout", "application", "noindicator")) fprintf(stderr, "no noindicator layout\n");
  fill(layout);
  return layout;
}

/* --- rows --- */

char *copy(const char *text) {
  return text ? strdup(text) : nullptr;
}

char *mail_text(void *data, Evas_Object *, const char *part) {
  long i = (long)data;
  if (!strcmp(part, "elm.text.1")) return copy(t->senders[i % 6]);
  if (!strcmp(part, "elm.text.2")) return copy(t->times[i % 6]);
  if (!strcmp(part, "elm.text.noti")) return i % 3 == 0 ? copy("N") : nullptr;
  if (!strcmp(part, "elm.text.sweep")) return copy(t->deleted);
  return nullptr;
}
Evas_Object *mail_content(void *data, Evas_Object *obj, const char *part) {
  static const int colors[3][3] = {{255, 144, 0}, {64, 196, 120}, {90, 140, 255}};
  long i = (long)data;
  if (!strcmp(part, "elm.icon")) return i % 3 == 0 ? image(obj, "b_listnoti_popupbg.png", 30, 30) : nullptr;
  if (!strcmp(part, "elm.swallow.colorbar")) return colorbar(obj, colors[i % 3][0], colors[i % 3][1], colors[i % 3][2]);
  if (!strcmp(part, "elm.icon.sweep")) {
    Evas_Object *btn = button(obj, "list_divider_btn", nullptr);
    elm_object_content_set(btn, image(btn, "b_email_swipe-delete.png", 50, 50));
    fill(btn);
    return btn;
  }
  return nullptr;
}
Evas_Object *check_content(void *data, Evas_Object *obj, const char *part) {
  if (strcmp(part, "elm.icon")) return mail_content(data, obj, part);
  Evas_Object *check = elm_check_add(obj);
  elm_check_state_set(check, (long)data % 2);
  return check;
}
char *group_text(void *, Evas_Object *, const char *part) {
  return copy(!strcmp(part, "elm.text.1") ? t->combined : "(128)");
}

Elm_Genlist_Item_Class *item_class(const char *style, Elm_Gen_Item_Text_Get_Cb text,
                                   Elm_Gen_Item_Content_Get_Cb content) {
  Elm_Genlist_Item_Class *itc = elm_genlist_item_class_new();
  itc->item_style = style;
  itc->func.text_get = text;
  itc->func.content_get = content;
  return itc;
}

Evas_Object *genlist(Evas_Object *parent) {
  Evas_Object *gl = elm_genlist_add(parent);
  elm_genlist_mode_set(gl, ELM_LIST_COMPRESS);
  elm_scroller_policy_set(gl, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  fill(gl);
  return gl;
}

void bottomline_hide(Evas_Object *gl) {
  elm_object_item_signal_emit(elm_genlist_last_item_get(gl), "elm,state,bottomline,hide", "");
}

struct line {
  const char *one, *two;
};
char *line_text(void *data, Evas_Object *, const char *part) {
  const line *l = (const line *)data;
  if (!strcmp(part, "elm.text.2")) return copy(l->two);
  return copy(l->one);
}
Evas_Object *setting_content(void *, Evas_Object *obj, const char *part) {
  if (strcmp(part, "elm.icon")) return nullptr;
  Evas_Object *layout = elm_layout_add(obj);
  elm_layout_file_set(layout, brisel().c_str(), "brisel/list_icon_rect");
  Evas_Object *btn = button(layout, "list_divider_btn", nullptr);
  elm_object_content_set(btn, image(btn, "b_email_setting.png", 50, 50));
  fill(btn);
  elm_object_part_content_set(layout, "swallow.icon", btn);
  return layout;
}
Evas_Object *radio_content(void *data, Evas_Object *obj, const char *part) {
  if (!strcmp(part, "elm.swallow.colorbar")) return ((const line *)data)->two ? colorbar(obj, 64, 196, 120) : nullptr;
  Evas_Object *radio = elm_radio_add(obj);
  elm_radio_state_value_set(radio, 1);
  elm_radio_value_set(radio, ((const line *)data)->two ? 0 : 1);
  return radio;
}

Evas_Object *mailbox(Evas_Object *navi) {
  Evas_Object *gl = genlist(navi);
  elm_genlist_homogeneous_set(gl, EINA_TRUE);
  Elm_Object_Item *group = elm_genlist_item_append(gl, item_class("email/group", group_text, nullptr), nullptr, nullptr,
                                                   ELM_GENLIST_ITEM_GROUP, nullptr, nullptr);
  Elm_Genlist_Item_Class *itc = item_class("email/sweep", mail_text, mail_content);
  for (long i = 0; i < 40; i++)
    elm_genlist_item_append(gl, itc, (void *)i, group, ELM_GENLIST_ITEM_NONE, nullptr, nullptr);
  push(navi, gl, t->title, "b_email_icon_email.png", title_button(navi, "b_email_history_delete_normal.png"));
  return gl;
}

/* --- scenes --- */

void s_mailbox() {
  mailbox(naviframe());
}
void sweep(const char *signal) {
  Evas_Object *gl = mailbox(naviframe());
  Elm_Object_Item *it = elm_genlist_item_next_get(elm_genlist_first_item_get(gl));
  elm_genlist_item_show(it, ELM_GENLIST_ITEM_SCROLLTO_IN);
  for (int i = 0; i < 20; i++) ecore_main_loop_iterate();
  elm_object_item_signal_emit(elm_genlist_item_next_get(it), signal, "");
}
void s_sweep_left() {
  sweep("elm,state,sweep,left");
}
void s_sweep_right() {
  sweep("elm,state,sweep,right");
}
void s_nocontents() {
  Evas_Object *navi = naviframe();
  Evas_Object *layout = elm_layout_add(navi);
  elm_layout_theme_set(layout, "layout", "nocontents", "full");
  elm_object_part_text_set(layout, "elm.text", t->no_mails);
  Elm_Object_Item *it = push(navi, layout, t->title, nullptr, nullptr);
  elm_naviframe_item_title_enabled_set(it, EINA_FALSE, EINA_FALSE);
}
Evas_Object *popup_buttons(Evas_Object *popup, const char *a, const char *b) {
  if (a) elm_object_part_content_set(popup, "button1", button(popup, "popup", a));
  if (b) elm_object_part_content_set(popup, "button2", button(popup, "popup", b));
  return popup;
}
Evas_Object *popup_scroll(Evas_Object *popup, const char *text) {
  Evas_Object *scroller = elm_scroller_add(popup);
  elm_object_style_set(scroller, "effect");
  elm_scroller_policy_set(scroller, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  evas_object_size_hint_weight_set(scroller, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  elm_object_content_set(popup, scroller);
  evas_object_show(scroller);
  Evas_Object *label = elm_label_add(scroller);
  elm_object_style_set(label, "popup/default");
  elm_label_line_wrap_set(label, ELM_WRAP_MIXED);
  elm_object_text_set(label, text);
  fill(label);
  elm_object_content_set(scroller, label);
  return popup;
}
void s_popup_scroll() {
  Evas_Object *navi = naviframe();
  mailbox(navi);
  Evas_Object *popup = elm_popup_add(navi);
  popup_scroll(popup, t->popup_text);
  elm_object_part_text_set(popup, "title,text", t->popup_title);
  popup_buttons(popup, t->cancel, t->ok);
  evas_object_show(popup);
}
void s_popup_template() {
  Evas_Object *navi = naviframe();
  mailbox(navi);
  Evas_Object *popup = popup_scroll(elm_popup_add(navi), t->templates[0]);
  popup_buttons(popup, t->cancel, t->ok);
  evas_object_show(popup);
}
void s_popup_text() {
  Evas_Object *navi = naviframe();
  mailbox(navi);
  Evas_Object *popup = elm_popup_add(navi);
  popup_buttons(popup, t->ok, nullptr);
  elm_object_text_set(popup, t->update);
  evas_object_show(popup);
}
void s_popup_delete() {
  Evas_Object *navi = naviframe();
  mailbox(navi);
  Evas_Object *popup = elm_popup_add(navi);
  elm_object_part_text_set(popup, "title,text", t->delete_);
  elm_object_text_set(popup, t->toast);
  popup_buttons(popup, t->cancel, t->ok);
  evas_object_show(popup);
}
void s_popup_accounts() {
  Evas_Object *navi = naviframe();
  mailbox(navi);
  Evas_Object *popup = elm_popup_add(navi);
  Evas_Object *gl = elm_genlist_add(popup);
  elm_object_style_set(gl, "popup");
  elm_genlist_homogeneous_set(gl, EINA_TRUE);
  elm_scroller_policy_set(gl, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  elm_genlist_mode_set(gl, ELM_LIST_COMPRESS);
  static line combined, accounts[3];
  combined = {t->combined, nullptr};
  accounts[0] = {"Work & <more>", "anna.kowalska@a-very-long-company-name.example"};
  accounts[1] = {t->home, "anna@home.example"};
  accounts[2] = {t->senders[1], "x@y.example"};
  elm_genlist_item_append(gl, item_class("1text.1icon.1", line_text, radio_content), &combined, nullptr,
                          ELM_GENLIST_ITEM_NONE, nullptr, nullptr);
  for (line &one : accounts)
    elm_genlist_item_append(gl, item_class("2text.1icon.1", line_text, radio_content), &one, nullptr,
                            ELM_GENLIST_ITEM_NONE, nullptr, nullptr);
  bottomline_hide(gl);
  elm_object_content_set(popup, gl);
  evas_object_show(gl);
  evas_object_show(popup);
}
void s_toast() {
  Evas_Object *navi = naviframe();
  mailbox(navi);
  Evas_Object *popup = elm_popup_add(navi);
  elm_object_style_set(popup, "toast");
  elm_popup_orient_set(popup, ELM_POPUP_ORIENT_BOTTOM);
  evas_object_size_hint_weight_set(popup, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  elm_object_part_text_set(popup, "elm.text", t->toast);
  evas_object_show(popup);
}
void s_connecting() {
  Evas_Object *popup = elm_popup_add(win);
  evas_object_size_hint_weight_set(popup, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
  Evas_Object *layout = elm_layout_add(popup);
  elm_layout_file_set(layout, brisel().c_str(), "brisel/popup/progress.1text");
  Evas_Object *bar = elm_progressbar_add(popup);
  elm_object_style_set(bar, "process");
  elm_progressbar_pulse_set(bar, EINA_TRUE);
  elm_progressbar_pulse(bar, EINA_TRUE);
  evas_object_show(bar);
  elm_object_part_content_set(layout, "swallow.progress", bar);
  elm_object_part_text_set(layout, "text", t->connecting);
  elm_object_content_set(popup, layout);
  evas_object_show(popup);
}

Evas_Object *notice(Evas_Object *layout, const char *text) {
  Evas_Object *label = elm_label_add(layout);
  elm_label_line_wrap_set(label, ELM_WRAP_MIXED);
  elm_object_text_set(label, (std::string("<font_size=24><text_class=nuvra><color=#FF9000FF>") + text +
                              "</color></text_class></font_size>")
                                 .c_str());
  evas_object_show(label);
  return label;
}

struct page_options {
  bool image, more, attachments, dual, process;
  const char *font, *scroll;
};

void page(const page_options &o) {
  Evas_Object *navi = naviframe();
  Evas_Object *outer = elm_layout_add(navi);
  elm_layout_file_set(outer, brisel().c_str(), "brisel/detail/page_scroller");
  Evas_Object *root = elm_layout_add(outer);
  elm_layout_file_set(root, brisel().c_str(), "brisel/detail/single_scroller");
  fill(root);
  elm_object_part_content_set(outer, "scroller", root);
  Evas_Object *title = elm_layout_add(root);
  if (!elm_layout_theme_set(title, "naviframe", "item", "basic/default")) fprintf(stderr, "no title layout\n");
  evas_object_show(title);
  elm_object_part_text_set(title, "elm.text.title", t->senders[1]);
  elm_object_part_content_set(title, "elm.swallow.next_btn", title_button(title, "b_email_icon_more.png"));
  elm_object_part_content_set(title, "elm.swallow.icon", image(title, "b_email_icon_email.png"));
  elm_object_part_content_set(title, "title_color_bar", colorbar(title, 64, 196, 120));
  for (const char *signal :
       {"elm,state,icon,show", "elm,state,title_label,show", "elm,state,next_btn,show", "elm,state,visible"})
    elm_object_signal_emit(title, signal, "elm");
  Evas_Object *scroller = elm_scroller_add(root);
  elm_object_style_set(scroller, "effect");
  elm_scroller_bounce_set(scroller, EINA_FALSE, EINA_TRUE);
  elm_scroller_policy_set(scroller, ELM_SCROLLER_POLICY_OFF, ELM_SCROLLER_POLICY_AUTO);
  fill(scroller);
  Evas_Object *layout = elm_layout_add(scroller);
  elm_layout_file_set(layout, brisel().c_str(), "brisel/detail");
  fill(layout);
  Evas_Object *edje = elm_layout_edje_get(layout);
  /* The fields' heights follow from the width. */
  evas_object_event_callback_add(
      layout, EVAS_CALLBACK_RESIZE,
      [](void *, Evas *, Evas_Object *obj, void *) {
        int w;
        evas_object_geometry_get(obj, nullptr, nullptr, &w, nullptr);
        efl_gfx_hint_size_min_set(obj, EINA_SIZE2D(w, 0));
        elm_layout_sizing_eval(obj);
      },
      nullptr);
  if (o.image) {
    elm_object_signal_emit(layout, "do-show-image-field", "brisel");
    elm_object_part_content_set(layout, "detail.image", notice(layout, t->image));
    edje_object_message_signal_process(edje);
    int h = -1;
    edje_object_part_geometry_get(edje, "detail.image", nullptr, nullptr, nullptr, &h);
    elm_object_signal_emit(layout, h % 36 > 0 ? "do-show-image-field-2line" : "do-hide-image-field-2line", "brisel");
  }
  elm_object_part_text_set(layout, "detail.time", "23/11/2026 14:02");
  elm_object_part_text_set(layout, "detail.title", t->subject);
  if (o.more) {
    elm_object_signal_emit(layout, "do-show-device-field", "brisel");
    elm_object_part_content_set(layout, "detail.device", notice(layout, t->more));
  }
  elm_object_part_text_set(layout, "detail.body", t->body);
  if (o.font) elm_object_signal_emit(layout, o.font, "brisel");
  if (o.attachments) {
    elm_object_signal_emit(layout, "do-show-attachment-field", "brisel");
    elm_object_part_text_set(layout, "detail.attachment", t->attachments);
  }
  if (o.process) {
    elm_object_signal_emit(layout, "do-process-device-field", "brisel");
    Evas_Object *bar = elm_progressbar_add(win);
    elm_object_style_set(bar, "process/groupindex");
    elm_progressbar_pulse_set(bar, EINA_TRUE);
    elm_progressbar_pulse(bar, EINA_TRUE);
    fill(bar);
    elm_object_part_content_set(layout, "detail.process", bar);
    elm_object_signal_emit(layout, "start,progress", "");
  }
  if (o.dual) {
    elm_object_signal_emit(layout, "do-dual-button-field", "brisel");
    Evas_Object *left = button(layout, nullptr, nullptr), *right = button(layout, nullptr, nullptr);
    elm_object_content_set(left, image(left, "b_email_icon_message_send.png", 60, 60));
    elm_object_content_set(right, image(right, "b_email_icon_showonphone.png", 60, 60));
    fill(left);
    fill(right);
    elm_object_part_content_set(layout, "detail.lbutton", left);
    elm_object_part_content_set(layout, "detail.rbutton", right);
  } else {
    Evas_Object *left = button(layout, nullptr, t->show_on_phone);
    fill(left);
    elm_object_part_content_set(layout, "detail.lbutton", left);
  }
  edje_object_message_signal_process(edje);
  elm_object_content_set(scroller, layout);
  elm_object_part_content_set(root, "title", title);
  elm_object_part_content_set(root, "scroller", scroller);
  push(navi, outer, nullptr, nullptr, nullptr);
  elm_naviframe_item_title_enabled_set(elm_naviframe_top_item_get(navi), EINA_FALSE, EINA_FALSE);
  if (o.scroll)
    ecore_timer_add(
        0.4,
        [](void *data) -> Eina_Bool {
          int w, h;
          elm_scroller_child_size_get((Evas_Object *)data, &w, &h);
          elm_scroller_region_show((Evas_Object *)data, 0, h - 1, 1, 1);
          return ECORE_CALLBACK_CANCEL;
        },
        scroller);
}
void s_detail() {
  page({.dual = true});
}
void s_detail_all() {
  page({.image = true, .more = true, .attachments = true, .dual = true});
}
void s_detail_all_end() {
  page({.image = true, .more = true, .attachments = true, .dual = true, .scroll = "end"});
}
void s_detail_single_end() {
  page({.attachments = true, .scroll = "end"});
}
void s_detail_process_end() {
  page({.more = true, .attachments = true, .dual = true, .process = true, .scroll = "end"});
}
void s_detail_small() {
  page({.image = true, .font = "do-set-fontsize-small"});
}
void s_detail_large() {
  page({.image = true, .more = true, .font = "do-set-fontsize-large"});
}
void s_detail_large_end() {
  page({.more = true, .attachments = true, .font = "do-set-fontsize-large", .scroll = "end"});
}

void s_options() {
  Evas_Object *navi = naviframe();
  Evas_Object *layout = application_layout(navi), *gl = genlist(layout);
  static line call, reply, show, del;
  call = {t->call, "+49 170 1234567"};
  reply = {t->reply, t->method};
  show = {t->show_on_phone, nullptr};
  del = {t->delete_, nullptr};
  elm_genlist_item_append(gl, item_class("2text", line_text, nullptr), &call, nullptr, ELM_GENLIST_ITEM_NONE, nullptr,
                          nullptr);
  elm_genlist_item_append(gl, item_class("2text.1icon.divider", line_text, setting_content), &reply, nullptr,
                          ELM_GENLIST_ITEM_NONE, nullptr, nullptr);
  elm_genlist_item_append(gl, item_class("1text", line_text, nullptr), &show, nullptr, ELM_GENLIST_ITEM_NONE, nullptr,
                          nullptr);
  elm_genlist_item_append(gl, item_class("1text", line_text, nullptr), &del, nullptr, ELM_GENLIST_ITEM_NONE, nullptr,
                          nullptr);
  elm_object_part_content_set(layout, "elm.swallow.content", gl);
  push(navi, layout, t->senders[1], "b_email_icon_email.png", nullptr);
  for (int i = 0; i < 20; i++) ecore_main_loop_iterate();
  bottomline_hide(gl);
}
void s_reply_setting() {
  Evas_Object *navi = naviframe();
  mailbox(navi);
  Evas_Object *popup = elm_popup_add(navi), *gl = genlist(popup);
  static line one, two;
  one = {t->method, nullptr};
  two = {t->reply, ""};
  elm_genlist_item_append(gl, item_class("1text.1icon.1", line_text, radio_content), &one, nullptr,
                          ELM_GENLIST_ITEM_NONE, nullptr, nullptr);
  elm_genlist_item_append(gl, item_class("1text.1icon.1", line_text, radio_content), &two, nullptr,
                          ELM_GENLIST_ITEM_NONE, nullptr, nullptr);
  elm_object_content_set(popup, gl);
  evas_object_show(popup);
}
void s_call() {
  Evas_Object *navi = naviframe();
  Evas_Object *layout = application_layout(navi), *gl = genlist(layout);
  static line numbers[3];
  numbers[0] = {"+49 170 1234567", t->home};
  numbers[1] = {"0123456789012345678901234567890123456789", t->home};
  numbers[2] = {"112", t->home};
  for (line &one : numbers)
    elm_genlist_item_append(gl, item_class("2text.1", line_text, nullptr), &one, nullptr, ELM_GENLIST_ITEM_NONE,
                            nullptr, nullptr);
  elm_object_part_content_set(layout, "elm.swallow.content", gl);
  push(navi, layout, t->senders[0], nullptr, nullptr);
}
void s_templates() {
  Evas_Object *navi = naviframe();
  Evas_Object *layout = application_layout(navi), *gl = genlist(layout);
  static line lines[4];
  for (int i = 0; i < 4; i++) {
    lines[i] = {t->templates[i], nullptr};
    elm_genlist_item_append(gl, item_class("1text", line_text, nullptr), &lines[i], nullptr, ELM_GENLIST_ITEM_NONE,
                            nullptr, nullptr);
  }
  elm_object_part_content_set(layout, "elm.swallow.content", gl);
  push(navi, layout, t->select_reply, nullptr, nullptr);
}
void s_no_templates() {
  Evas_Object *navi = naviframe();
  Evas_Object *layout = application_layout(navi), *none = elm_layout_add(navi);
  elm_layout_theme_set(layout, "layout", "application", "noindicator");
  elm_layout_theme_set(none, "layout", "nocontents", "text");
  elm_object_part_text_set(none, "elm.text", t->no_mails);
  elm_object_part_content_set(layout, "elm.swallow.content", none);
  push(navi, layout, t->select_reply, nullptr, nullptr);
}
void emoticon(bool keypad) {
  Evas_Object *navi = naviframe();
  Evas_Object *layout = application_layout(navi), *view = elm_layout_add(layout);
  elm_layout_file_set(view, brisel().c_str(), "brisel/emoticon_view");
  fill(view);
  Evas_Object *entry = elm_entry_add(view);
  elm_entry_scrollable_set(entry, EINA_TRUE);
  elm_entry_single_line_set(entry, EINA_FALSE);
  elm_entry_entry_set(entry, t->entry);
  elm_entry_cursor_end_set(entry);
  elm_object_focus_set(entry, EINA_TRUE);
  evas_object_show(entry);
  Evas_Object *btn = button(view, nullptr, nullptr);
  elm_object_content_set(btn, keypad ? image(btn, "b_email_icon_message_s_send.png", 48, 47)
                                     : image(btn, "b_email_icon_message_send_2.png", 60, 60));
  fill(btn);
  elm_object_part_content_set(view, "swallow.entry", entry);
  elm_object_part_content_set(view, "swallow.send_btn", btn);
  elm_object_part_content_set(layout, "elm.swallow.content", view);
  elm_object_signal_emit(view, keypad ? "show,keypad" : "hide,keypad", "");
  push(navi, layout, nullptr, nullptr, nullptr);
  elm_naviframe_item_title_enabled_set(elm_naviframe_top_item_get(navi), EINA_FALSE, EINA_FALSE);
}
void s_emoticon() {
  emoticon(false);
}
void s_emoticon_keypad() {
  emoticon(true);
}
void s_delete() {
  Evas_Object *navi = naviframe();
  Evas_Object *layout = elm_layout_add(navi);
  elm_layout_file_set(layout, brisel().c_str(), "brisel/delete_view");
  fill(layout);
  Evas_Object *gl = genlist(layout);
  elm_genlist_homogeneous_set(gl, EINA_TRUE);
  for (long i = 0; i < 12; i++)
    elm_genlist_item_append(gl, item_class("2text.1icon.1", mail_text, check_content), (void *)i, nullptr,
                            ELM_GENLIST_ITEM_NONE, nullptr, nullptr);
  elm_object_part_content_set(layout, "genlist", gl);
  Evas_Object *b2 = button(layout, nullptr, t->delete_);
  elm_object_disabled_set(b2, EINA_TRUE);
  elm_object_part_content_set(layout, "btn1", button(layout, nullptr, t->cancel));
  elm_object_part_content_set(layout, "btn2", b2);
  push(navi, layout, t->delete_, nullptr, title_button(navi, "b_email_ic_menu_selectall_normal.png"));
}
void s_icons() {
  Evas_Object *bg = elm_bg_add(win);
  fill(bg);
  elm_win_resize_object_add(win, bg);
  Evas_Object *table = elm_table_add(win);
  fill(table);
  elm_win_resize_object_add(win, table);
  const char *names[] = {"b_email_history_delete_normal.png",
                         "b_email_icon_email.png",
                         "b_listnoti_popupbg.png",
                         "b_email_swipe-delete.png",
                         "b_email_ic_menu_selectall_normal.png",
                         "b_email_icon_message_send.png",
                         "b_email_icon_message_send_2.png",
                         "b_email_icon_message_s_send.png",
                         "b_email_icon_showonphone.png",
                         "b_email_setting.png",
                         "b_email_icon_more.png"};
  int i = 0;
  for (const char *name : names) {
    elm_table_pack(table, image(table, name, 60, 60), i % 4, i / 4, 1, 1);
    i++;
  }
  Evas_Object *on = elm_check_add(win), *off = elm_check_add(win), *r = elm_radio_add(win);
  elm_check_state_set(on, EINA_TRUE);
  elm_object_text_set(off, "Check");
  for (Evas_Object *one : {on, off, r}) {
    evas_object_show(one);
    elm_table_pack(table, one, i % 4, i / 4, 1, 1);
    i++;
  }
}

struct scene {
  const char *name;
  void (*build)();
};
const scene scenes[] = {
    {"01-mailbox", s_mailbox},
    {"02-sweep-left", s_sweep_left},
    {"03-sweep-right", s_sweep_right},
    {"04-nocontents", s_nocontents},
    {"05-popup-scroll", s_popup_scroll},
    {"06-popup-text", s_popup_text},
    {"07-popup-delete", s_popup_delete},
    {"08-popup-accounts", s_popup_accounts},
    {"09-toast", s_toast},
    {"10-connecting", s_connecting},
    {"11-detail", s_detail},
    {"12-detail-all", s_detail_all},
    {"13-detail-all-end", s_detail_all_end},
    {"14-detail-single-end", s_detail_single_end},
    {"15-detail-process-end", s_detail_process_end},
    {"16-detail-small", s_detail_small},
    {"17-detail-large", s_detail_large},
    {"18-detail-large-end", s_detail_large_end},
    {"19-options", s_options},
    {"20-reply-setting", s_reply_setting},
    {"21-call", s_call},
    {"22-templates", s_templates},
    {"23-no-templates", s_no_templates},
    {"24-emoticon", s_emoticon},
    {"25-emoticon-keypad", s_emoticon_keypad},
    {"26-delete", s_delete},
    {"27-popup-template", s_popup_template},
    {"28-icons", s_icons},
};

void light_palette(const char *file) {
  Eina_File *f = eina_file_open(file, EINA_FALSE);
  Edje_Color_Class *one;
  Eina_Iterator *it = edje_mmap_color_class_iterator_new(f);
  EINA_ITERATOR_FOREACH(it, one) {
    int r, g, b, a;
    char *value = edje_mmap_data_get(f, (std::string("palette/light/") + one->name).c_str());
    if (value && sscanf(value, "%d %d %d %d", &r, &g, &b, &a) == 4)
      edje_color_class_set(one->name, r, g, b, a, 0, 0, 0, 0, 0, 0, 0, 0);
    free(value);
  }
  eina_iterator_free(it);
  eina_file_close(f);
}

bool save(const char *name) {
  Ecore_Evas *ee = ecore_evas_ecore_evas_get(evas_object_evas_get(win));
  ecore_evas_manual_render(ee);
  const void *pixels = ecore_evas_buffer_pixels_get(ee);
  if (!pixels) return false;
  Ecore_Evas *to = ecore_evas_buffer_new(width, height);
  Evas_Object *img = evas_object_image_filled_add(ecore_evas_get(to));
  evas_object_image_size_set(img, width, height);
  evas_object_image_data_copy_set(img, (void *)pixels);
  std::string file = out_dir + "/" + name + ".png";
  bool saved = evas_object_image_save(img, file.c_str(), nullptr, nullptr);
  ecore_evas_free(to);
  return saved;
}

Eina_Bool quit_cb(void *) {
  elm_exit();
  return ECORE_CALLBACK_CANCEL;
}

}  // namespace

int main(int argc, char **argv) {
  std::string only, scale = "1.0";
  for (int i = 1; i < argc; i++) {
    std::string option = argv[i], value = i + 1 < argc ? argv[i + 1] : "";
    if (option == "--light")
      light = true;
    else if (option == "--res")
      res_dir = value, i++;
    else if (option == "--out")
      out_dir = value, i++;
    else if (option == "--size")
      sscanf(value.c_str(), "%dx%d", &width, &height), i++;
    else if (option == "--scale")
      scale = value, i++;
    else if (option == "--only")
      only = value, i++;
    else if (option == "--language") {
      for (const texts &one : all_texts)
        if (value == one.language) t = &one;
      i++;
    }
  }
  if (res_dir.empty() || out_dir.empty()) return fprintf(stderr, "gallery --res DIR --out DIR …\n"), 2;
  setenv("ELM_ENGINE", "buffer", 1);
  setenv("ELM_SCALE", scale.c_str(), 1);
  setenv("ELM_POPUP_HORIZONTAL_ALIGN", "-1", 1);
  setenv("ELM_POPUP_VERTICAL_ALIGN", "-1", 1);
  elm_init(argc, argv);
  elm_config_focus_highlight_enabled_set(EINA_FALSE);
  elm_config_mirrored_set(!strcmp(t->language, "ar"));
  std::string platform = res_dir + "/edje/platform.edj";
  elm_theme_overlay_add(nullptr, platform.c_str());
  if (light) light_palette(platform.c_str());
  int failed = 0;
  for (const scene &one : scenes) {
    if (!only.empty() && !strstr(one.name, only.c_str())) continue;
    win = elm_win_add(nullptr, "gallery", ELM_WIN_BASIC);
    Evas_Object *bg = elm_bg_add(win);
    fill(bg);
    elm_win_resize_object_add(win, bg);
    evas_object_resize(win, width, height);
    evas_object_show(win);
    one.build();
    ecore_timer_add(0.8, quit_cb, nullptr);
    elm_run();
    if (!save(one.name)) failed++, fprintf(stderr, "%s: no picture\n", one.name);
    evas_object_del(win);
  }
  elm_shutdown();
  return failed ? 1 : 0;
}
