#include "keypad-layouts.h"

#include <algorithm>

namespace {

#define LATIN "q w e r t a s d f g z x c v b", "y u i o p h j k l ' n m , . ?"

/* The common keyboards of each language, cut into halves (or thirds) that keep their order. */
const std::vector<keypad_layout> layouts = {
    {"en", "English", true, KEYPAD_COMPOSE_NONE, {LATIN}},
    {"de", "Deutsch", true, KEYPAD_COMPOSE_NONE, {"q w e r t a s d f g y x c v b", "z u i o p h j k l ü n m ö ä ß"}},
    {"es", "Español", true, KEYPAD_COMPOSE_NONE, {LATIN, "á é í ó ú ñ ü ¿ ¡ ! - : ; ( )"}},
    {"fr",
     "Français",
     true,
     KEYPAD_COMPOSE_NONE,
     {"a z e r t q s d f g w x c v b", "y u i o p h j k l m n , . ' ?", "é è ê à ç ù û ô î â ë ï œ - !"}},
    {"it", "Italiano", true, KEYPAD_COMPOSE_NONE, {LATIN, "à è é ì ò ù î ! - : ; ( ) … €"}},
    {"pl", "Polski", true, KEYPAD_COMPOSE_NONE, {LATIN, "ą ć ę ł ń ó ś ź ż ! - : ; ( )"}},
    {"pt", "Português", true, KEYPAD_COMPOSE_NONE, {LATIN, "á â ã à ç é ê í ó ô õ ú ü ! -"}},
    {"tr",
     "Türkçe",
     true,
     KEYPAD_COMPOSE_NONE,
     {"q w e r t a s d f g z x c v b", "y u ı o p h j k l i n m ö ç .", "ğ ü ş â î û , ? ' ! - : ; ( )"}},
    {"ru",
     "Рус",
     true,
     KEYPAD_COMPOSE_NONE,
     {"й ц у к е ф ы в а п я ч с м и", "н г ш щ з р о л д ж т ь б ю э", "х ъ ё , . ? ! - : ; ( ) « » …"}},
    {"el",
     "ΕΛ",
     true,
     KEYPAD_COMPOSE_NONE,
     {"ς ε ρ τ υ α σ δ φ γ ζ χ ψ ω β", "θ ι ο π η ξ κ λ ν μ ά έ ή ί ό", "ύ ώ ϊ ϋ ΐ , . ; ! · - ( ) « »"}},
    {"ar",
     "عربي",
     false,
     KEYPAD_COMPOSE_NONE,
     {"ض ص ث ق ف ش س ي ب ل ئ ء ؤ ر ى", "غ ع ه خ ح ا ت ن م ك ة و ز ظ ط", "ج د ذ أ إ آ لا ، . ؟ ! ؛ : ( )"}},
    {"he", "אבג", false, KEYPAD_COMPOSE_NONE, {"ק ר א ט ו ש ד ג כ ע ז ס ב ה נ", "ן ם פ י ח ל ך ף ת צ מ ץ , . ?"}},
    {"hi",
     "हिन्दी",
     false,
     KEYPAD_COMPOSE_NONE,
     {"क ख ग घ ङ च छ ज झ ञ ट ठ ड ढ ण", "त थ द ध न प फ ब भ म य र ल व श", "ष स ह ा ि ी ु ू े ै ो ौ ं ् ँ",
      "अ आ इ ई उ ऊ ए ऐ ओ औ ऋ ृ ः ़ ।"}},
    {"ko",
     "한글",
     false,
     KEYPAD_COMPOSE_HANGUL,
     {"ㅂ ㅈ ㄷ ㄱ ㅅ ㅁ ㄴ ㅇ ㄹ ㅎ ㅋ ㅌ ㅊ ㅍ ?", "ㅛ ㅕ ㅑ ㅐ ㅔ ㅗ ㅓ ㅏ ㅣ ㅠ ㅜ ㅡ ㅒ ㅖ .",
      "ㅃ ㅉ ㄸ ㄲ ㅆ , ! ~ - : ; ( ) … ♥"}},
    {"ja",
     "かな",
     false,
     KEYPAD_COMPOSE_KANA,
     {"あ い う え お か き く け こ さ し す せ そ", "た ち つ て と な に ぬ ね の は ひ ふ へ ほ",
      "ま み む め も や ゆ よ 、 。 ら り る れ ろ", "わ を ん ー 小゛ ？ ！ 〜 「 」 ・ … （ ） ☆"}},
};

const keypad_layout symbols = {
    nullptr,
    nullptr,
    false,
    KEYPAD_COMPOSE_NONE,
    {"1 2 3 4 5 6 7 8 9 0 . , ? ! '", "@ # & ( ) / - + = : ; \" * % _", "€ $ £ ¥ ₩ < > [ ] | ~ ° ^ \\ …"}};

/* Pictures of one character each, because a character that joins several is more than a reply's limit can tell. */
const keypad_layout emoticons = {nullptr,
                                 nullptr,
                                 false,
                                 KEYPAD_COMPOSE_NONE,
                                 {"😀 😂 😊 😍 😘 😉 😎 😢 😭 😡 😴 🤔 😱 🙏 👍",
                                  ":-) ;-) :-D :-( :'( :-P :-O :-* <3 ^_^ -_- o_O \\o/ XD (y)",
                                  "👎 👌 👏 💪 👋 🎉 🎂 🎁 🌹 💔 🔥 ⭐ 🌞 🌙 🍀", "☕ 🍕 🍺 🚗 🚌 🚆 🏠 🏢 📞 📧 ⏰ 📅 ✅ ❌ ❓"}};

}  // namespace

const keypad_layout &keypad_layout_for(std::string_view language) {
  const std::string_view code = language.substr(0, language.find_first_of("_.@-"));
  const auto found = std::find_if(layouts.begin(), layouts.end(),
                                  [code](const keypad_layout &layout) { return code == layout.language; });
  return found != layouts.end() ? *found : layouts.front();
}

const keypad_layout &keypad_layout_english() {
  return layouts.front();
}

const keypad_layout &keypad_layout_symbols() {
  return symbols;
}

const keypad_layout &keypad_layout_emoticons() {
  return emoticons;
}

std::vector<std::string> keypad_page_keys(const keypad_layout &layout, size_t page) {
  std::vector<std::string> keys;
  std::string_view rest = layout.pages[page];
  while (!rest.empty()) {
    const size_t blank = std::min(rest.find(' '), rest.size());
    keys.emplace_back(rest.substr(0, blank));
    rest.remove_prefix(std::min(blank + 1, rest.size()));
  }
  return keys;
}
