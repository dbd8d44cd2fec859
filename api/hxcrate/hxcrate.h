/* Store files for programs in C: one file that keeps a tree of named byte streams. What is not here
 * needs C++ (hxcrate/crate.hpp), or a host of one's own (module/crate.h).
 *
 * A path inside a store names a member by its components with "/" between them, each of 1 to 64
 * bytes. Functions return 0, or a code that is not 0 and stays what it is in later versions; then
 * hxcrate_error_text says why. A null store is the code HXCRATE_CLOSED, another null
 * pointer where bytes are wanted, or a mode that there is not, HXCRATE_BAD_NAME. One thread at a
 * time uses a store.
 *
 *   cc -o notes notes.c $(pkg-config --cflags --libs hxcrate)
 */
#ifndef HXCRATE_HXCRATE_H
#define HXCRATE_HXCRATE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Codes that a program may want to tell apart; the numbers are those of hxcrate::Errc. */
enum hxcrate_code {
  HXCRATE_OK = 0,
  HXCRATE_NOT_FOUND = -1,
  HXCRATE_EXISTS = -2,
  HXCRATE_NO_MEMORY = -3,
  HXCRATE_FILE_NOT_OPEN = -8, /* hxcrate_system_error says why */
  HXCRATE_IN_USE = -10,       /* somebody else has the file open */
  HXCRATE_DAMAGED = -13,
  HXCRATE_BAD_NAME = 1,
  HXCRATE_READ_ONLY = 2,
  HXCRATE_ITEM_FULL = 3,   /* an item has at most 2,147,483,647 bytes */
  HXCRATE_FILE_FAILED = 5, /* the disk refused something: hxcrate_system_error */
  HXCRATE_NOT_A_STORE = 6,
  HXCRATE_CLOSED = 8,
  HXCRATE_IS_A_STORE = 14, /* an item was asked for */
  HXCRATE_IS_AN_ITEM = 15
};

enum hxcrate_mode {
  HXCRATE_READ,          /* an existing file, for reading */
  HXCRATE_UPDATE,        /* an existing file, for writing as well */
  HXCRATE_OPEN_OR_CREATE /* the same, or a new one where there is none */
};

typedef struct hxcrate_store hxcrate_store;

/* Opens the store file `path`, and waits so long for others that have it open; below 0: for ever.
 * For one update or any number of readers, in this process too. *store is null after a failure. */
int hxcrate_open(const char* path, enum hxcrate_mode mode, int64_t wait_milliseconds,
                 hxcrate_store** store);

/* A new item of these bytes (HXCRATE_EXISTS), or the same at the end of an old or new one. Stores
 * on the way to it are made. HXCRATE_IS_A_STORE when a store has its name, HXCRATE_IS_AN_ITEM when
 * an item has that of a store on the way. */
int hxcrate_put(hxcrate_store* store, const char* path, const void* bytes, size_t size);
int hxcrate_append(hxcrate_store* store, const char* path, const void* bytes, size_t size);

/* All bytes of an item, with a zero behind the last that `size` does not count. free() them. */
int hxcrate_get(const hxcrate_store* store, const char* path, void** bytes, size_t* size);

/* What `visit` is told of a member; valid during that call. */
struct hxcrate_member {
  const char* path; /* inside the store that is listed */
  int is_store;
  int64_t size; /* of an item, bytes; 0 of a store */
};

/* Calls `visit` for all that is in the nested store `path`, or in all of it for "": by name, each
 * store before what is in it. Ends when it does not return 0. */
int hxcrate_list(const hxcrate_store* store, const char* path,
                 int (*visit)(void* context, const struct hxcrate_member* member), void* context);

/* Makes durable what was written so far, and goes on. After a failure the store can only be closed,
 * and the file is as it was after the commit before. */
int hxcrate_commit(hxcrate_store* store);

/* Closes and frees, also after a failure; null is fine. The close of an update is its commit.
 * hxcrate_abandon undoes what was written since the last commit instead. */
int hxcrate_close(hxcrate_store* store);
int hxcrate_abandon(hxcrate_store* store);

/* Of the last call in this thread that did not return 0: one line, "STORE: MEMBER: reason", and the
 * system's errno or 0. The text stays until the next such call. */
const char* hxcrate_error_text(void);
int hxcrate_system_error(void);

#ifdef __cplusplus
}
#endif

#endif
