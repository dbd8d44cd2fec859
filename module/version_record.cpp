#include "module/build_info.h"
#include "module/entry.h"
#include "records/bytes.h"

namespace hx {

namespace {

// The layout that readers of version records know: one word a slot, a pointer or a number.
struct VersionRecord {
  const char* releaseIdentifier;
  const char* buildLabel;
  const char* empty3;
  int64_t buildTime;  // seconds since 1970-01-01 00:00 UTC
  const char* product;
  const char* buildId;
  const char* entryPrefix;
  const char* platform;
  const char* empty9;
  const char* versionKey;
  const char* separator;
  const char* empty12;
  const char* hotfixTemplate;
  const char* empty14;
  const char* imageTemplate;
  const char* buildMachine;
  const char* buildDate;
  int64_t zeros[9];
};

static_assert(sizeof(VersionRecord) == kVersionSlots * sizeof(int64_t));
static_assert(offsetof(VersionRecord, buildTime) == 3 * sizeof(int64_t));
static_assert(offsetof(VersionRecord, buildDate) == 16 * sizeof(int64_t));

// Both are filled in place by tools that patch binaries, so the blanks are part of them.
constexpr char kHotfixTemplate[] =
    "QRX_VERSION_HOTFIX_NUMBER="
    "                                       ";
constexpr char kImageTemplate[] =
    "RELCAT_IMAGE_DESCRIPTION="
    "                                        ";

static_assert(sizeof(kReleaseIdentifier) == 18 + 1);
static_assert(sizeof(kBuildLabel) == 13 + 1);
static_assert(sizeof(kBuildId) == 7 + 1);
static_assert(sizeof(kPlatform) == 18 + 1);
static_assert(sizeof(kBuildMachine) == 5 + 1);
static_assert(sizeof(kBuildDate) == 28 + 1);
static_assert(sizeof(kHotfixTemplate) == 65 + 1);
static_assert(sizeof(kImageTemplate) == 65 + 1);

constexpr VersionRecord info = {kReleaseIdentifier,
                                kBuildLabel,
                                "",
                                kBuildTime,
                                "hxbase",
                                kBuildId,
                                "hxmod",
                                kPlatform,
                                "",
                                "version",
                                "::",
                                "",
                                kHotfixTemplate,
                                "",
                                kImageTemplate,
                                kBuildMachine,
                                kBuildDate,
                                {}};

}  // namespace

extern "C" int32_t hxrelct1(int64_t* slots) {
  copyBytes(slots, &info, sizeof(info));
  return 0;
}

}  // namespace hx
