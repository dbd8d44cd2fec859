#include "module_library.h"

#include <dlfcn.h>

#include <mutex>
#include <string>

#include "hxcrate/error.hpp"

namespace hxcrate {

namespace {

[[noreturn]] void refuse(const char* why) {
  throw Error(Errc::noModule, HX_MODULE_FILE, "", why != nullptr ? why : "");
}

struct ModuleLibrary {
  int32_t (*introduceHost)(hx::HostHandle* host);
  hx::ExtensionInstance* (*makeInstance)();
};

const char* lastLoaderError() {
  return dlerror();  // NOLINT(concurrency-mt-unsafe): glibc keeps one a thread
}

template <typename Function>
void bind(void* library, const char* name, Function*& function) {
  function = reinterpret_cast<Function*>(dlsym(library, name));
  if (function == nullptr) refuse(lastLoaderError());
}

// Local, because the module exports names as plain as `lookup`.
void* openLibrary(const std::string& path) {
  return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

// The file beside the one that this code is in; a run path would not do, because under a
// sanitizer the caller of dlopen is the sanitizer.
std::string locateBesideSelf() {
  Dl_info self{};
  static const char kHere = 0;
  if (dladdr(&kHere, &self) == 0 || self.dli_fname == nullptr) return HX_MODULE_FILE;
  const std::string path = self.dli_fname;
  return path.substr(0, path.rfind('/') + 1) + HX_MODULE_FILE;
}

ModuleLibrary load() {
  void* library = openLibrary(locateBesideSelf());
  if (library == nullptr) library = openLibrary(HX_MODULE_FILE);
  if (library == nullptr) refuse(lastLoaderError());
  ModuleLibrary module{};
  bind(library, "hxmodent", module.introduceHost);
  bind(library, "hxcrate", module.makeInstance);
  return module;
}

}  // namespace

hx::ExtensionInstance* makeModuleInstance(hx::HostHandle* host) {
  static const ModuleLibrary module = load();
  // The module keeps the host in one global between the two calls.
  static std::mutex handover;
  const std::lock_guard guard(handover);
  module.introduceHost(host);
  hx::ExtensionInstance* instance = module.makeInstance();
  if (instance == nullptr) refuse("it made no instance");
  return instance;
}

}  // namespace hxcrate
