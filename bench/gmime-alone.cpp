/* What the mail library alone needs for a folder of messages: each is read, parsed, and its texts decoded, nothing
   else. Prints the seconds by the clock and of the processor. usage: gmime-alone DIR */
#include <dirent.h>
#include <gmime/gmime.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

std::vector<std::string> files_of(const std::string &folder) {
  std::vector<std::string> files;
  DIR *dir = opendir(folder.c_str());
  while (dirent *entry = dir ? readdir(dir) : nullptr)
    if (entry->d_name[0] != '.') files.push_back(folder + "/" + entry->d_name);
  if (dir) closedir(dir);
  return files;
}

void decode(GMimeObject *parent, GMimeObject *part, gpointer total) {
  if (!GMIME_IS_TEXT_PART(part)) return;
  char *text = g_mime_text_part_get_text(GMIME_TEXT_PART(part));
  if (text) *static_cast<size_t *>(total) += strlen(text);
  g_free(text);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) return 2;
  g_mime_init();
  std::vector<std::string> files = files_of(argv[1]);
  auto start = std::chrono::steady_clock::now();
  size_t parsed = 0, total = 0;
  for (const std::string &file : files) {
    GMimeStream *stream = g_mime_stream_file_open(file.c_str(), "r", nullptr);
    if (!stream) continue;
    GMimeParser *parser = g_mime_parser_new_with_stream(stream);
    GMimeMessage *message = g_mime_parser_construct_message(parser, nullptr);
    if (message) {
      parsed++;
      g_mime_message_foreach(message, decode, &total);
      g_object_unref(message);
    }
    g_object_unref(parser);
    g_object_unref(stream);
  }
  std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  printf("%.6f %.6f\n", seconds.count(), static_cast<double>(clock()) / CLOCKS_PER_SEC);
  return parsed == files.size() && total > 0 ? 0 : 1;
}
