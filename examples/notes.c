/* Notes in a store file, one item a day.
 *
 *   notes STORE                prints all notes
 *   notes STORE DAY TEXT       adds a line to those of a day
 */
#include <hxcrate/hxcrate.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Says why the last call failed. */
static int complain(void) {
  fprintf(stderr, "%s\n", hxcrate_error_text());
  return EXIT_FAILURE;
}

static int add(const char* file, const char* day, const char* text) {
  hxcrate_store* store;
  char path[256];
  int failed;
  snprintf(path, sizeof(path), "notes/%s", day);
  if (hxcrate_open(file, HXCRATE_OPEN_OR_CREATE, 1000, &store) != 0) return complain();
  failed = hxcrate_append(store, path, text, strlen(text)) != 0 ||
           hxcrate_append(store, path, "\n", 1) != 0;
  if (failed) {
    complain();
    hxcrate_abandon(store); /* all of the line or nothing */
    return EXIT_FAILURE;
  }
  return hxcrate_close(store) == 0 ? EXIT_SUCCESS : complain();
}

static int print(void* store, const struct hxcrate_member* member) {
  void* text;
  size_t size;
  if (member->is_store) return 0;
  if (hxcrate_get(store, member->path, &text, &size) != 0) return complain();
  printf("%s, %zu bytes:\n%s", member->path, size, (char*)text);
  free(text);
  return 0;
}

static int print_all(const char* file) {
  hxcrate_store* store;
  int code;
  if (hxcrate_open(file, HXCRATE_READ, 1000, &store) != 0) return complain();
  code = hxcrate_list(store, "", print, store);
  if (code != 0) complain();
  hxcrate_close(store);
  return code == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int main(int count, char** arguments) {
  if (count == 2) return print_all(arguments[1]);
  if (count == 4) return add(arguments[1], arguments[2], arguments[3]);
  fprintf(stderr, "usage: %s STORE [DAY TEXT]\n", arguments[0]);
  return 2;
}
