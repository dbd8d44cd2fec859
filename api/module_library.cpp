#include "module_library.h"

#include <dlfcn.h>

#include <array>
#include <climits>
#include <mutex>
#include <string>

#include "hxcrate/error.hpp"
#include "records/status.h"

namespace hxcrate {

namespace {

[[noreturn]] void refuse(const char* why) {
  throw Error(Errc::noModule, HX_MODULE_FILE, "", why != nullptr ? why : "");
}

struct ModuleLibrary {
  int32_t (*introduceHost)(hx::HostHandle* host);
  hx::ExtensionInstance* (*makeInstance)();
  int32_t (*writeBack)(hx::Store* store);
  void (*forgetStore)(hx::ExtensionInstance* instance, const char32_t* name, int32_t length);
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
ModuleLibrary load() {
  void* library = dlopen(locateBesideSelf(HX_MODULE_FILE).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) refuse(lastLoaderError());
  ModuleLibrary module{};
  bind(library, "hxmodent", module.introduceHost);
  bind(library, "hxcrate", module.makeInstance);
  bind(library, "hxcrateWriteBack", module.writeBack);
  bind(library, "hxcrateForgetStore", module.forgetStore);
  return module;
}

const ModuleLibrary& library() {
  static const ModuleLibrary loaded = load();
  return loaded;
}

}  // namespace

// The loader tells where the library is by a path that was made absolute when it loaded it; the
// name that it was found by can be relative, and the working directory another by now. By a name
// alone a file would be searched for, there too.
std::string locateBesideSelf(const char* file) {
  static const char kHere = 0;
  Dl_info self{};
  void* library = nullptr;
  if (dladdr1(&kHere, &self, &library, RTLD_DL_LINKMAP) == 0) refuse("no library holds its host");
  std::array<char, 2 * PATH_MAX> directory{};  // a working directory and a name below it
  if (dlinfo(library, RTLD_DI_ORIGIN, directory.data()) != 0) refuse(lastLoaderError());
  return std::string(directory.data()) + "/" + file;
}

hx::ExtensionInstance* makeModuleInstance(hx::HostHandle* host) {
  const ModuleLibrary& module = library();
  // The module keeps the host in one global between the two calls.
  static std::mutex handover;
  const std::lock_guard guard(handover);
  module.introduceHost(host);
  hx::ExtensionInstance* instance = module.makeInstance();
  if (instance == nullptr) refuse("it made no instance");
  return instance;
}

bool writeBack(hx::Store* root) {
  return library().writeBack(root) == hx::kOk;
}

void forgetStore(hx::ExtensionInstance* instance, std::u32string_view name) {
  library().forgetStore(instance, name.data(), static_cast<int32_t>(name.size()));
}

}  // namespace hxcrate
