// The host extension `hxfio`: files opened and removed by path, and the handle of an open file.
// Plain C, fixed byte layouts.
#pragma once

#include "host/kernel.h"

#ifdef __cplusplus
namespace hx {
extern "C" {
#endif

typedef struct FileIo FileIo;
typedef struct FileHandle FileHandle;

enum {
  HX_ACCESS_READ = 1,    // an existing file, for reading
  HX_ACCESS_UPDATE = 3,  // reading and writing; an absent file is created, an existing one kept

  HX_SEEK_START = 0,
  HX_SEEK_END = 2,

  HX_PATH_CAPACITY = 1024,  // characters

  // The version of these services from which on file handles have `readAt`; what `getVersion` of
  // an extension without it answers, if it has one, is lower or has another first number.
  HX_READ_AT_MAJOR = 6,
  HX_READ_AT_MINOR = 2,

  // The four results of `remove` that stop a store from being replaced and become the status of
  // that open. Every other result lets it go on: there is no such file, nor can there be.
  HX_REMOVE_NO_PERMISSION = -2134906877,  // the file may not be written, or not be removed
  HX_REMOVE_IN_USE = -2134906873,         // somebody has the file open, this extension included
  HX_REMOVE_NOT_REGULAR = -2134906871,    // a directory, a device, a FIFO
  HX_REMOVE_IO_ERROR = -2134906851        // anything else; the file may be gone, but not for sure
};

// How a file is to be opened. Zero but for the fields named here.
//   off width field       value
//    32   4   accessMode  HX_ACCESS_READ or HX_ACCESS_UPDATE
//    40   8   fixed40     1024
//    48   4   fixed48     1
//   200   4   fixed200    1
typedef struct OpenParameters {
  uint8_t reserved0[32];
  int32_t accessMode;
  int32_t reserved36;
  int64_t fixed40;
  int32_t fixed48;
  uint8_t reserved52[148];
  int32_t fixed200;
  uint8_t reserved204[140];
} OpenParameters;

// What a read wants, and in `count` what it got.
typedef struct ReadRequest {
  void* destination;
  int64_t count;
} ReadRequest;

struct FileIo {
  ObjectHead head;
  // The file at `path` (`length` characters, no terminator), positioned at 0, or null. `method` is
  // "hxfio"; `outputWord` points to a word that the module never reads.
  FileHandle* (*open)(FileIo* io, const char32_t* path, int64_t length,
                      const OpenParameters* parameters, int64_t zero, int64_t alsoZero,
                      const char* method, void* outputWord, int64_t zeroToo);
  // Deletes the file, and what an interrupted update left beside it; 0, one of the HX_REMOVE_
  // codes, or anything else.
  int32_t (*remove)(FileIo* io, const char32_t* path, int64_t length, int64_t zero,
                    int64_t alsoZero);
};

// An open file. One thread at a time calls it, but for `readAt`.
//   off width field
//    88   8   readAt      looked at only when `getVersion` of the extension answers 0 and at least
//                         HX_READ_AT_MAJOR, HX_READ_AT_MINOR, with that very first number
//   208 4096  path        the full path as opened, 32-bit characters, no terminator
//  4304   4   pathLength  characters in `path`, at most HX_PATH_CAPACITY
struct FileHandle {
  ObjectHead head;
  void (*close)(FileHandle* file);
  // Delivers up to `request->count` bytes from the position on, advances it, stores the number
  // delivered through `count` (which is the address of `request->count`) and returns 0. Nonzero
  // when nothing can be delivered: at the end of the file, or on an error. Never 0 with 0 bytes.
  int32_t (*read)(FileHandle* file, ReadRequest* request, int64_t* count, int64_t zero,
                  int64_t alsoZero, int64_t zeroToo);
  // Writes at the position and advances it; a gap that a seek past the end left reads as zeros.
  // The module ignores the result: the handle must keep a failure and answer for it on close.
  int32_t (*write)(FileHandle* file, const void* source, int64_t count, int64_t zero,
                   int64_t alsoZero, int64_t zeroToo);
  // Moves to `*position`, counted from the start or the end, and stores the new position from the
  // start there. 0 on success. A position past the end is fine.
  int32_t (*seek)(FileHandle* file, int64_t* position, int32_t whence, int64_t zero);
  // Fills `count` parts, one after the other, with the bytes from `offset` on, and returns 0;
  // nonzero when not all of them can be had: then nothing is said of what the parts hold, and
  // nothing needs to be kept of the failure, because what is wanted of the bytes is read once more
  // by `read`. The position stays. Called without the lock and by several threads at once, also
  // while another one is in `read` or `seek`, of files that were opened for reading; never once
  // `close` was called.
  int32_t (*readAt)(FileHandle* file, const ReadRequest* parts, int32_t count, int64_t offset);
  uint8_t reserved96[112];
  char32_t path[HX_PATH_CAPACITY];
  int32_t pathLength;
};

#ifdef __cplusplus
}  // extern "C"

static_assert(sizeof(OpenParameters) == 344);
static_assert(offsetof(OpenParameters, accessMode) == 32);
static_assert(offsetof(OpenParameters, fixed40) == 40);
static_assert(offsetof(OpenParameters, fixed48) == 48);
static_assert(offsetof(OpenParameters, fixed200) == 200);
static_assert(sizeof(ReadRequest) == 16);
static_assert(offsetof(FileIo, open) == 56);
static_assert(offsetof(FileIo, remove) == 64);
static_assert(offsetof(FileHandle, close) == 56);
static_assert(offsetof(FileHandle, read) == 64);
static_assert(offsetof(FileHandle, write) == 72);
static_assert(offsetof(FileHandle, seek) == 80);
static_assert(offsetof(FileHandle, readAt) == 88);
static_assert(offsetof(FileHandle, path) == 208);
static_assert(offsetof(FileHandle, pathLength) == 4304);
}  // namespace hx
#endif
