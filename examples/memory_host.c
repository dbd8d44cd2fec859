// A whole host in C: it serves the module from memory, and its "files" are memory too. A pattern
// for hosts of your own; docs/host.md explains each slot.
//
//   memory_host [LIBRARY]      the module, libhxcrate.so.1 unless given
#include <dlfcn.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <threads.h>

#include "module/crate.h"

// Pool: blocks from the C library, chained, so that destroy finds those that are left.

typedef struct Block {
  struct Block* previous;
  struct Block* next;
  _Alignas(max_align_t) unsigned char bytes[];
} Block;

typedef struct MemoryPool {
  Pool slots;  // first, so that a Pool* is a MemoryPool*; so in every object below
  mtx_t mutex;
  Block* blocks;
} MemoryPool;

static void* allocateBlock(Pool* slots, uint64_t size, uint32_t flags) {
  MemoryPool* pool = (MemoryPool*)slots;
  (void)flags;  // every block is zero-filled, asked for or not
  if (size > SIZE_MAX - sizeof(Block)) return NULL;
  Block* block = calloc(1, sizeof(Block) + size);
  if (block == NULL) return NULL;
  mtx_lock(&pool->mutex);
  block->next = pool->blocks;
  if (block->next != NULL) block->next->previous = block;
  pool->blocks = block;
  mtx_unlock(&pool->mutex);
  return block->bytes;
}

static void freeBlock(Pool* slots, void* bytes) {
  MemoryPool* pool = (MemoryPool*)slots;
  Block* block = (Block*)(void*)((unsigned char*)bytes - offsetof(Block, bytes));
  mtx_lock(&pool->mutex);
  if (block->next != NULL) block->next->previous = block->previous;
  *(block->previous != NULL ? &block->previous->next : &pool->blocks) = block->next;
  mtx_unlock(&pool->mutex);
  free(block);
}

static int32_t destroyPool(void* object) {
  MemoryPool* pool = object;
  while (pool->blocks != NULL)
    freeBlock(&pool->slots, pool->blocks->bytes);
  mtx_destroy(&pool->mutex);
  free(pool);
  return 0;
}

static Pool* createPool(HostHandle* host, const void* parameters, int64_t zero, const char* name) {
  (void)host, (void)parameters, (void)zero, (void)name;
  MemoryPool* pool = calloc(1, sizeof *pool);
  if (pool == NULL) return NULL;
  if (mtx_init(&pool->mutex, mtx_plain) != thrd_success) return free(pool), NULL;
  pool->slots = (Pool){.head = {.eyeCatcher = "pool", .destroy = destroyPool},
                       .allocate = allocateBlock,
                       .free = freeBlock};
  return &pool->slots;
}

// Lock: the module never takes it twice on one path, so a plain mutex does.

typedef struct MutexLock {
  Lock slots;
  mtx_t mutex;
} MutexLock;

static int32_t acquireLock(Lock* lock, int64_t one, int64_t alsoOne) {
  (void)one, (void)alsoOne;
  return mtx_lock(&((MutexLock*)lock)->mutex) == thrd_success ? 0 : 1;
}

static int32_t releaseLock(Lock* lock) {
  return mtx_unlock(&((MutexLock*)lock)->mutex) == thrd_success ? 0 : 1;
}

static int32_t destroyLock(void* object) {
  mtx_destroy(&((MutexLock*)object)->mutex);
  free(object);
  return 0;
}

static Lock* createLock(HostHandle* host, const void* parameters, int64_t zero, const char* name) {
  (void)host, (void)parameters, (void)zero, (void)name;
  MutexLock* lock = calloc(1, sizeof *lock);
  if (lock == NULL) return NULL;
  if (mtx_init(&lock->mutex, mtx_plain) != thrd_success) return free(lock), NULL;
  lock->slots = (Lock){.head = {.eyeCatcher = "lock", .destroy = destroyLock},
                       .acquire = acquireLock,
                       .release = releaseLock};
  return &lock->slots;
}

// hxmok: one encoding, and no converter to any other. Stores of other hosts are then refused with
// HX_UNREADABLE, never misread.

static int32_t fillEncodingId(Encoding* encoding, void* buffer, int64_t length, int64_t zero,
                              int64_t alsoZero) {
  static const char kIdentity[HX_ENCODING_ID_LENGTH] = "memory_host/le";
  (void)encoding, (void)zero, (void)alsoZero;
  if (length != HX_ENCODING_ID_LENGTH) return 1;
  memcpy(buffer, kIdentity, sizeof kIdentity);
  return 0;
}

static Converter* makeConverter(Encoding* encoding, int64_t zero, const void* from,
                                const void* to) {
  (void)encoding, (void)zero, (void)from, (void)to;
  return NULL;
}

// hxfio: files by path, each one growing block of memory. They belong to the host and outlive every
// instance, as files do. Only the instance's lock keeps threads apart: one instance at a time.

typedef struct File {
  struct File* next;
  int openHandles;
  int32_t pathLength;
  int64_t size;
  unsigned char* bytes;
  char32_t path[HX_PATH_CAPACITY];
} File;

typedef struct MemoryHost {
  HostHandle slots;
  FileIo files;
  Encoding encoding;
  File* first;
  bool lostWrite;  // memory ran out under a write; the module is not told, so the host must know
} MemoryHost;

typedef struct OpenFile {
  FileHandle slots;
  MemoryHost* host;
  File* file;
  int64_t position;
  bool isWritable;
} OpenFile;

static MemoryHost* hostOf(FileIo* io) {
  return (MemoryHost*)(void*)((unsigned char*)io - offsetof(MemoryHost, files));
}

static void closeFile(FileHandle* handle) {
  ((OpenFile*)handle)->file->openHandles--;
  free(handle);
}

static int32_t readFile(FileHandle* handle, ReadRequest* request, int64_t* count, int64_t zero,
                        int64_t alsoZero, int64_t zeroToo) {
  OpenFile* open = (OpenFile*)handle;
  (void)zero, (void)alsoZero, (void)zeroToo;
  const int64_t left = open->file->size - open->position;
  if (left <= 0 || *count <= 0) return 1;  // never 0 with no bytes: the module would ask for ever
  if (*count > left) *count = left;
  memcpy(request->destination, open->file->bytes + open->position, (size_t)*count);
  open->position += *count;
  return 0;
}

static bool growFile(File* file, int64_t size) {
  if (size <= file->size) return true;
  unsigned char* bytes = realloc(file->bytes, (size_t)size);
  if (bytes == NULL) return false;
  memset(bytes + file->size, 0, (size_t)(size - file->size));  // a gap reads as zeros
  file->bytes = bytes;
  file->size = size;
  return true;
}

static int32_t writeFile(FileHandle* handle, const void* source, int64_t count, int64_t zero,
                         int64_t alsoZero, int64_t zeroToo) {
  OpenFile* open = (OpenFile*)handle;
  (void)zero, (void)alsoZero, (void)zeroToo;
  if (!open->isWritable || count < 0 || count > INT64_MAX - open->position ||
      !growFile(open->file, open->position + count)) {
    open->host->lostWrite = true;
    return 1;
  }
  if (count > 0) memcpy(open->file->bytes + open->position, source, (size_t)count);
  open->position += count;
  return 0;
}

static int32_t seekFile(FileHandle* handle, int64_t* position, int32_t whence, int64_t zero) {
  OpenFile* open = (OpenFile*)handle;
  (void)zero;
  const int64_t base = whence == HX_SEEK_END ? open->file->size : 0;
  if (*position < -base || *position > INT64_MAX - base) return 1;
  open->position = base + *position;
  *position = open->position;
  return 0;
}

static File** findFile(MemoryHost* host, const char32_t* path, int64_t length) {
  File** link = &host->first;
  while (*link != NULL && ((*link)->pathLength != length ||
                           memcmp((*link)->path, path, (size_t)length * sizeof *path) != 0)) {
    link = &(*link)->next;
  }
  return link;
}

static File* createFile(const char32_t* path, int64_t length) {
  File* file = calloc(1, sizeof *file);
  if (file == NULL) return NULL;
  memcpy(file->path, path, (size_t)length * sizeof *path);
  file->pathLength = (int32_t)length;
  return file;
}

static FileHandle* openFile(FileIo* io, const char32_t* path, int64_t length,
                            const OpenParameters* parameters, int64_t zero, int64_t alsoZero,
                            const char* method, void* outputWord, int64_t zeroToo) {
  (void)zero, (void)alsoZero, (void)method, (void)outputWord, (void)zeroToo;
  if (length <= 0 || length > HX_PATH_CAPACITY) return NULL;
  const bool isWritable = parameters->accessMode == HX_ACCESS_UPDATE;
  OpenFile* open = calloc(1, sizeof *open);
  if (open == NULL) return NULL;
  File** link = findFile(hostOf(io), path, length);
  if (*link == NULL && isWritable) *link = createFile(path, length);
  if (*link == NULL) return free(open), NULL;
  open->slots.close = closeFile;
  open->slots.read = readFile;
  open->slots.write = writeFile;
  open->slots.seek = seekFile;
  memcpy(open->slots.path, path, (size_t)length * sizeof *path);
  open->slots.pathLength = (int32_t)length;
  open->host = hostOf(io);
  open->file = *link;
  open->file->openHandles++;
  open->isWritable = isWritable;
  return &open->slots;
}

static int32_t removeFile(FileIo* io, const char32_t* path, int64_t length, int64_t zero,
                          int64_t alsoZero) {
  (void)zero, (void)alsoZero;
  File** link = findFile(hostOf(io), path, length);
  File* file = *link;
  if (file == NULL) return 1;  // nothing there: the module goes on
  if (file->openHandles > 0) return HX_REMOVE_IN_USE;
  *link = file->next;
  free(file->bytes);
  free(file);
  return 0;
}

// The host itself. Its extensions are parts of it: their destroy has nothing to release.

static int32_t keepObject(void* object) {
  (void)object;
  return 0;
}

static void* loadExtension(HostHandle* handle, const char32_t* name, int64_t length, int64_t zero) {
  MemoryHost* host = (MemoryHost*)handle;
  (void)zero;
  if (length != 5) return NULL;
  if (memcmp(name, U"hxfio", 5 * sizeof *name) == 0) return &host->files;
  if (memcmp(name, U"hxmok", 5 * sizeof *name) == 0) return &host->encoding;
  return NULL;
}

static const MemoryHost kMemoryHost = {
    .slots = {.head = {.eyeCatcher = "host"},
              .createLock = createLock,
              .createPool = createPool,
              .loadExtension = loadExtension},
    .files = {.head = {.eyeCatcher = "hfio", .destroy = keepObject},
              .open = openFile,
              .remove = removeFile},
    .encoding = {.head = {.eyeCatcher = "hmok", .destroy = keepObject},
                 .makeConverter = makeConverter,
                 .fillEncodingId = fillEncodingId},
};

// From here on: a program that uses the module through this host.
static HxModent* introduceHost;
static HxCrate* makeInstance;

static void require(bool holds, const char* what, int32_t status) {
  if (holds) return;
  fprintf(stderr, "memory_host: %s failed (status %d)\n", what, (int)status);
  exit(1);  // NOLINT(concurrency-mt-unsafe): this program has one thread
}

static void loadModule(const char* library) {
  void* module = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (module == NULL) fprintf(stderr, "%s\n", dlerror());  // NOLINT(concurrency-mt-unsafe)
  require(module != NULL, "loading the module", 0);
  // C has no cast from a data pointer to a function pointer.
  *(void**)&introduceHost = dlsym(module, "hxmodent");
  *(void**)&makeInstance = dlsym(module, "hxcrate");
  require(introduceHost != NULL && makeInstance != NULL, "finding the entry points", 0);
}

static CrateInstance* startInstance(MemoryHost* host) {
  introduceHost(&host->slots);
  CrateInstance* instance = makeInstance();
  require(instance != NULL, "making an instance", 0);
  return instance;
}

static CrateStore* openStore(CrateInstance* instance, const char32_t* name, int32_t length,
                             uint32_t flags) {
  int32_t status = 0;
  CrateStore* store = instance->openStore(instance, NULL, name, length, flags, &status);
  require(store != NULL && status == HX_OK, "opening the store", status);
  return store;
}

static void writeItem(CrateInstance* instance, CrateStore* store, const char32_t* name,
                      int32_t length, const char* text) {
  int32_t status = 0;
  CrateHandle* handle =
      instance->openItem(instance, store, name, length, HX_UPDATE | HX_CREATE, &status);
  require(handle != NULL, "opening an item for writing", status);
  handle->item->write(handle, text, (int32_t)strlen(text), &status);
  require(status == HX_OK, "writing", status);
  require(handle->item->close(handle) == 0, "closing an item", HX_NOT_LOCKED);
}

static void printItems(CrateInstance* instance, CrateStore* store) {
  char32_t name[64];
  int32_t length = 0;
  int32_t kind = 0;
  while (store->getNextMember(store, name, length, name, &length, &kind) == HX_OK) {
    if (kind != HX_ITEM_KIND) continue;
    int32_t status = 0;
    CrateHandle* handle = instance->openItem(instance, store, name, length, HX_READ, &status);
    require(handle != NULL, "opening an item for reading", status);
    char text[100];
    const uint32_t count = handle->item->read(handle, text, sizeof text, NULL, &status);
    require(status == HX_OK || status == HX_END_OF_ITEM, "reading", status);
    printf("%d bytes: %.*s\n", (int)handle->item->size, (int)count, text);
    require(handle->item->close(handle) == 0, "closing an item", HX_NOT_LOCKED);
  }
}

// A store in a file, written by one instance and read by another.
static void useFile(MemoryHost* host) {
  CrateInstance* instance = startInstance(host);
  CrateStore* store = openStore(instance, U"orders", 6, HX_UPDATE | HX_CREATE);
  writeItem(instance, store, U"monday", 6, "tea, two sugars");
  writeItem(instance, store, U"tuesday", 7, "coffee, black");
  store->closeStore(store);
  require(!host->lostWrite, "writing the store", 0);
  instance->head.destroy(instance);

  instance = startInstance(host);
  store = openStore(instance, U"orders", 6, HX_READ);
  printf("file of %lld bytes\n", (long long)host->first->size);
  printItems(instance, store);
  store->closeStore(store);
  instance->head.destroy(instance);
}

// A store in memory, taken as one buffer that is opened where it lies.
static void useBlob(MemoryHost* host) {
  CrateInstance* instance = startInstance(host);
  CrateStore* store = openStore(instance, U"note", 4, HX_UPDATE | HX_CREATE | HX_NO_FILE);
  writeItem(instance, store, U"text", 4, "no sugar today");
  uint64_t size = 0;
  const uint8_t parameters[24] = {0};
  Pool* pool = createPool(&host->slots, parameters, 0, "Blob");
  require(pool != NULL, "making a pool", 0);
  void* blob = store->createBlobFromStore(store, &size, pool);
  require(blob != NULL, "making a blob", 0);
  store->closeAndDeleteStore(store);

  int32_t status = 0;
  store = instance->openStoreFromMemory(instance, blob, size, U"note", 4, HX_READ, &status);
  require(store != NULL, "opening the blob", status);
  printf("blob of %llu bytes\n", (unsigned long long)size);
  printItems(instance, store);
  store->closeStore(store);
  instance->head.destroy(instance);
  pool->head.destroy(pool);
}

int main(int count, char** arguments) {
  loadModule(count > 1 ? arguments[1] : "libhxcrate.so.1");
  MemoryHost host = kMemoryHost;
  useFile(&host);
  useBlob(&host);
  require(removeFile(&host.files, U"orders", 6, 0, 0) == 0, "removing the file", 0);
  return 0;
}
