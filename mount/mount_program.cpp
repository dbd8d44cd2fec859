// The program hxcrate-mount, which `hxcrate mount` runs.

#include <cerrno>
#include <limits>
#include <memory>
#include <optional>
#include <system_error>

#include "mount/exit_codes.h"
#include "mount/file_system.h"
#include "mount/mount_log.h"
#include "mount/mount_options.h"
#include "mount/mount_point.h"

namespace mounted {

namespace {

struct SessionEnd {
  void operator()(fuse_session* session) const { fuse_session_destroy(session); }
};
struct LoopConfigEnd {
  void operator()(fuse_loop_config* config) const { fuse_loop_cfg_destroy(config); }
};

// What the library reads its options from: those of the caller, and behind them ours.
class Arguments {
 public:
  explicit Arguments(const MountOptions& options) {
    add("hxcrate-mount");
    bool isForOthers = false;
    for (const std::string& words : options.systemOptions) {
      addOption(words);
      isForOthers |= words.find("allow_") != words.npos;
    }
    // Who mounts for others does not give them what the modes in the store keep from them.
    if (isForOthers) addOption("default_permissions");
    addOption(std::string("ro,subtype=") + kSubtype);
    addName(options.sources.size() == 1 ? hxcrate::showPath(options.sources[0].file) : "stores");
    if (options.isDebugged) add("-d");
  }
  ~Arguments() { fuse_opt_free_args(&list_); }
  Arguments(const Arguments&) = delete;
  Arguments& operator=(const Arguments&) = delete;

  fuse_args* list() { return &list_; }

 private:
  void add(const std::string& word) {
    if (fuse_opt_add_arg(&list_, word.c_str()) != 0) throw std::bad_alloc();
  }
  void addOption(const std::string& option) {
    add("-o");
    add(option);
  }
  void addName(const std::string& name) {
    std::string option = "fsname=";
    for (const char c : name) {
      if (c == ',' || c == '\\') option += '\\';
      option += c;
    }
    addOption(option);
  }

  fuse_args list_{};
};

// What is mounted, until it goes.
class Mount {
 public:
  Mount(fuse_session* session, const std::string& place) : session_(session) {
    if (fuse_set_signal_handlers(session) != 0 || fuse_session_mount(session, place.c_str()) != 0) {
      fuse_remove_signal_handlers(session);
      throw std::runtime_error("it can't be mounted over " + place);
    }
  }
  ~Mount() {
    fuse_session_unmount(session_);
    fuse_remove_signal_handlers(session_);
  }
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

 private:
  fuse_session* session_;
};

int serve(fuse_session* session, const fuse_cmdline_opts& options) {
  if (options.singlethread != 0) return fuse_session_loop(session);
  const std::unique_ptr<fuse_loop_config, LoopConfigEnd> config(fuse_loop_cfg_create());
  fuse_loop_cfg_set_clone_fd(config.get(), static_cast<unsigned>(options.clone_fd));
  fuse_loop_cfg_set_max_threads(config.get(), options.max_threads);
  if (options.max_idle_threads != std::numeric_limits<unsigned>::max()) {  // else nobody said
    fuse_loop_cfg_set_idle_threads(config.get(), options.max_idle_threads);
  }
  return fuse_session_loop_mt(session, config.get());
}

int run(const MountOptions& options) {
  const std::string place = prepareMountPoint(options.mountPoint);
  StoreTree tree(options.sources, std::chrono::seconds(options.waitSeconds));
  if (tree.leftOut() > 0)
    say(tree.leftOut() == 1
            ? "1 member is left out that no folder can show"
            : std::to_string(tree.leftOut()) + " members are left out that no folder can show");
  FileSystem system(tree);
  Arguments arguments(options);
  fuse_cmdline_opts common{};
  if (fuse_parse_cmdline(arguments.list(), &common) != 0) return kUsage;
  const std::unique_ptr<fuse_session, SessionEnd> session(fuse_session_new(
      arguments.list(), &FileSystem::operations(), sizeof(fuse_lowlevel_ops), &system));
  if (session == nullptr) return kUsage;
  const Mount mount(session.get(), place);
  const bool stays = options.inForeground || options.isDebugged || common.foreground != 0;
  if (fuse_daemonize(stays ? 1 : 0) != 0) throw std::system_error(errno, std::generic_category());
  if (!stays) useSystemLog();
  std::optional<IdleWatch> watch;
  if (options.idleSeconds > 0) {
    watch.emplace(std::chrono::seconds(options.idleSeconds), place, system.lastUse());
  }
  const int outcome = serve(session.get(), common);
  if (outcome >= 0) return kFine;
  say("the mount over " + place + " ended: " + std::generic_category().message(-outcome));
  return kNotMounted;
}

}  // namespace

}  // namespace mounted

int main(int argc, char** argv) {
  int exitCode = mounted::kFine;
  const auto options = mounted::readOptions(argc, argv, exitCode);
  if (!options) return exitCode;
  try {
    return mounted::run(*options);
  } catch (const hxcrate::Error& error) {
    mounted::say(error.what());
    return mounted::kNotOpenable;
  } catch (const std::exception& error) {
    mounted::say(error.what());
    return mounted::kNotMounted;
  }
}
