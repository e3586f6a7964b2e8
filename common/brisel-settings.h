/* The keys of the settings store that more than one process reads or writes. Needs no library. */
#ifndef BRISEL_SETTINGS_H
#define BRISEL_SETTINGS_H

/* bool; the host service: a phone is linked. */
inline constexpr char BRISEL_KEY_BT_CONNECTED[] = "memory/wms/wmanager_connected";
/* int; the host service adds one whenever the reply templates changed. */
inline constexpr char BRISEL_KEY_TEMPLATE_CHANGED[] = "memory/private/msg-consumer-server/change_text_template";
/* int; the reply function chosen last. */
inline constexpr char BRISEL_KEY_REPLY_VALUE[] = "file/private/msg-consumer-server/reply_value";
/* string; the id of the application that a picked-over item is for. */
inline constexpr char BRISEL_KEY_PICKOVER[] = "file/private/wcontext/service_msg";

/* int; 0: the most used templates first; else in the phone's order. */
inline constexpr char BRISEL_KEY_TEMPLATE_ORDER[] = "file/private/brisel/template_order";

/* How new mail is told, of all accounts; for one account the key followed by "/" and the account's id, which then
   counts. string; "on" (the default), "quiet": without sound and vibration, "off". */
inline constexpr char BRISEL_KEY_NOTIFY[] = "file/private/brisel/notify";
/* string; what a notification shows: "all" (the default), "sender", "nothing". */
inline constexpr char BRISEL_KEY_NOTIFY_SHOWS[] = "file/private/brisel/notify_shows";

/* The device's own. */
inline constexpr char BRISEL_KEY_DATE_FORMAT[] = "db/setting/date_format";               /* int, 0 to 3 */
inline constexpr char BRISEL_KEY_TIME_FORMAT[] = "db/menu_widget/regionformat_time1224"; /* int, 1: 12 hours */
inline constexpr char BRISEL_KEY_TIME_CHANGED[] = "memory/system/timechanged";           /* int, any new value */
inline constexpr char BRISEL_KEY_LANGUAGE[] = "db/menu_widget/language";                 /* string */
inline constexpr char BRISEL_KEY_REGION[] = "db/menu_widget/regionformat";               /* string */
inline constexpr char BRISEL_KEY_FONT_SIZE[] = "db/setting/accessibility/font_size";     /* int */
inline constexpr char BRISEL_KEY_THEME[] = "db/setting/theme";                           /* string */
inline constexpr char BRISEL_KEY_MOTION[] = "db/setting/motion";                         /* bool, 0: still */
inline constexpr char BRISEL_KEY_DEVICE_NAME[] = "db/setting/device_name";               /* string, for phones */

#endif
