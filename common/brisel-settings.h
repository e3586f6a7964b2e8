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

/* The device's own. */
inline constexpr char BRISEL_KEY_DATE_FORMAT[] = "db/setting/date_format";               /* int, 0 to 3 */
inline constexpr char BRISEL_KEY_TIME_FORMAT[] = "db/menu_widget/regionformat_time1224"; /* int, 1: 12 hours */
inline constexpr char BRISEL_KEY_TIME_CHANGED[] = "memory/system/timechanged";           /* int, any new value */
inline constexpr char BRISEL_KEY_LANGUAGE[] = "db/menu_widget/language";                 /* string */
inline constexpr char BRISEL_KEY_REGION[] = "db/menu_widget/regionformat";               /* string */
inline constexpr char BRISEL_KEY_FONT_SIZE[] = "db/setting/accessibility/font_size";     /* int */
inline constexpr char BRISEL_KEY_THEME[] = "db/setting/theme";                           /* string */
inline constexpr char BRISEL_KEY_MOTION[] = "db/setting/motion";                         /* bool, 0: still */

/* How new mail is told (int): 0 with sound and vibration, 1 quietly, 2 not at all. For one account, "/" and its id
   follow; without a value the first one counts. */
inline constexpr char BRISEL_KEY_NOTIFY[] = "db/private/com.vextora.brisel/notify";
/* What a notification may show (int): 0 sender, subject and first words, 1 the sender, 2 nothing of the mail. */
inline constexpr char BRISEL_KEY_NOTIFY_SHOWS[] = "db/private/com.vextora.brisel/notify_shows";
/* bool, of this session; the application: the mailbox is in view, new mail need not be told. */
inline constexpr char BRISEL_KEY_LIST_IN_VIEW[] = "memory/private/com.vextora.brisel/list_in_view";

#endif
