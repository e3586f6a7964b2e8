// Bare programs to compare with: a stock empty window, or a genlist with as many plain rows. Prints one JSON line when
// its first frame is drawn, another after each "scroll" line on standard input, and ends at the end of that input.
#include <Elementary.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

Evas_Object *list;
int rows;
long long frame_start;
bool first = true;
std::vector<long long> frames;  // nanoseconds each

long long now_ns() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1000000000LL + t.tv_nsec;
}

void frame_begins(void *, Evas *, void *) {
  frame_start = now_ns();
}

void frame_ends(void *, Evas *, void *) {
  const long long end = now_ns();
  frames.push_back(end - frame_start);
  if (!first) return;
  first = false;
  printf("{\"first_frame_ns\":%lld}\n", end);
  fflush(stdout);
}

char *row_text(void *data, Evas_Object *, const char *) {
  char text[32];
  snprintf(text, sizeof text, "Row %d", static_cast<int>(reinterpret_cast<intptr_t>(data)));
  return strdup(text);
}

Eina_Bool scroll_done(void *) {
  printf("{\"frames_ns\":[");
  for (size_t i = 0; i < frames.size(); i++) printf("%s%lld", i ? "," : "", frames[i]);
  printf("]}\n");
  fflush(stdout);
  return ECORE_CALLBACK_CANCEL;
}

Eina_Bool command(void *, Ecore_Fd_Handler *) {
  char buffer[64];
  if (read(STDIN_FILENO, buffer, sizeof buffer) <= 0) {
    elm_exit();
    return ECORE_CALLBACK_CANCEL;
  }
  frames.clear();
  if (list) {
    Elm_Object_Item *target = elm_genlist_first_item_get(list);
    for (int i = 0; i < 60 && elm_genlist_item_next_get(target); i++) target = elm_genlist_item_next_get(target);
    elm_genlist_item_bring_in(target, ELM_GENLIST_ITEM_SCROLLTO_TOP);
  }
  ecore_timer_add(2.0, scroll_done, nullptr);
  return ECORE_CALLBACK_RENEW;
}

}  // namespace

int main(int argc, char **argv) {
  rows = argc > 1 ? atoi(argv[1]) : 0;
  const int width = argc > 2 ? atoi(argv[2]) : 360, height = argc > 3 ? atoi(argv[3]) : 480;
  elm_init(argc, argv);
  elm_policy_set(ELM_POLICY_QUIT, ELM_POLICY_QUIT_LAST_WINDOW_CLOSED);
  Evas_Object *window = elm_win_util_standard_add("bare", "bare");
  elm_win_autodel_set(window, EINA_TRUE);
  if (rows > 0) {
    list = elm_genlist_add(window);
    elm_genlist_homogeneous_set(list, EINA_TRUE);
    elm_genlist_mode_set(list, ELM_LIST_COMPRESS);
    evas_object_size_hint_weight_set(list, EVAS_HINT_EXPAND, EVAS_HINT_EXPAND);
    Elm_Genlist_Item_Class *row = elm_genlist_item_class_new();
    row->item_style = "default";
    row->func.text_get = row_text;
    for (intptr_t i = 0; i < rows; i++)
      elm_genlist_item_append(list, row, reinterpret_cast<void *>(i), nullptr, ELM_GENLIST_ITEM_NONE, nullptr, nullptr);
    elm_genlist_item_class_free(row);
    elm_win_resize_object_add(window, list);
    evas_object_show(list);
  }
  evas_object_resize(window, width, height);
  Evas *canvas = evas_object_evas_get(window);
  evas_event_callback_add(canvas, EVAS_CALLBACK_RENDER_PRE, frame_begins, nullptr);
  evas_event_callback_add(canvas, EVAS_CALLBACK_RENDER_POST, frame_ends, nullptr);
  evas_object_show(window);
  ecore_main_fd_handler_add(STDIN_FILENO, ECORE_FD_READ, command, nullptr, nullptr, nullptr);
  elm_run();
  elm_shutdown();
  return 0;
}
