// This store's enumeration by the module's own slot, without the C++ API between.
#include <hxcrate/crate.hpp>

#include "api/module_library.h"
#include "bench/engines/engines.h"
#include "host/linux/linux_host.h"
#include "records/status.h"

namespace bench {

namespace {

constexpr std::size_t kNameBuffer = 256;

hx::Store* openStore(hx::ExtensionInstance* module, const std::string& path) {
  const std::u32string wide(path.begin(), path.end());
  std::int32_t status = hx::kOk;
  hx::Store* store = module->openStore(module, nullptr, wide.data(),
                                       static_cast<std::int32_t>(wide.size()), hx::kRead, &status);
  require(store != nullptr, "the slot does not open the store");
  return store;
}

class SlotReading : public Reading {
 public:
  SlotReading(hx::ExtensionInstance* module, const std::string& path)
      : store_(openStore(module, path)) {}
  ~SlotReading() override { store_->closeStore(store_); }

  Tally enumerate() override {
    Tally tally;
    char32_t name[2][kNameBuffer];
    std::int32_t length = 0;
    std::int32_t kind = 0;
    for (unsigned turn = 0;; turn ^= 1u) {
      const std::int32_t status =
          store_->getNextMember(store_, name[turn], length, name[turn ^ 1u], &length, &kind);
      if (status == hx::kNotFound) return tally;
      require(status == hx::kOk, "the slot failed");
      ++tally.members;
      tally.nameBytes += static_cast<std::uint64_t>(length);
    }
  }

 private:
  hx::Store* store_;
};

class SlotSession : public Session {
 public:
  explicit SlotSession(std::unique_ptr<Session> maker)
      : maker_(std::move(maker)), module_(hxcrate::makeModuleInstance(host_.handle())) {}
  ~SlotSession() override { module_->destroy(module_); }

  std::unique_ptr<Writing> create(const std::string& path, Shape shape) override {
    return maker_->create(path, shape);
  }
  std::unique_ptr<Reading> open(const std::string& path, Shape) override {
    return std::make_unique<SlotReading>(module_, path);
  }

 private:
  std::unique_ptr<Session> maker_;
  hxhost::LinuxHost host_;
  hx::ExtensionInstance* module_;
};

class HxcrateSlot : public Engine {
 public:
  HxcrateSlot()
      : Engine({"hxcrate-slot", "f", "The module's getNextMember slot, name by name.", "hxcrate"}) {
  }
  std::unique_ptr<Session> openSession(Sync sync) override {
    return std::make_unique<SlotSession>(maker_->openSession(sync));
  }

 private:
  EnginePtr maker_ = std::move(makeHxcrate().front());
};

}  // namespace

EnginePtr makeHxcrateSlot() {
  return std::make_unique<HxcrateSlot>();
}

}  // namespace bench
