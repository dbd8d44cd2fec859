#include "folder_costs.h"

#include <algorithm>

#include "tool/files/size_forecast.h"

namespace tool {

namespace {

// What a forecast's items take in a file, records included.
std::int64_t itemSpace(const SizeForecast& forecast, std::int32_t pageSize) {
  return forecast.fileSize(pageSize, false) - SizeForecast().fileSize(pageSize, false);
}

}  // namespace

void FolderCosts::add(const hxcrate::Extent& extent) {
  if (extent.member >= costs_.size()) return;  // nobody's
  const hxcrate::InspectedMember& member = inspection_.members()[extent.member];
  if (member.kind != hxcrate::MemberKind::item) return;
  FolderCost& cost = costs_[member.container];
  cost.takes += extent.length;
  if (extent.kind == hxcrate::ByteKind::data) cost.data += extent.length;
  if (extent.kind == hxcrate::ByteKind::slack) cost.slack += extent.length;
}

// One forecast at a time, so that the sizes of one folder alone are in memory twice.
std::vector<FolderCost> FolderCosts::finish() {
  const std::vector<hxcrate::InspectedMember>& members = inspection_.members();
  std::vector<std::size_t> items;
  for (std::size_t i = 0; i < costs_.size(); ++i)
    if (members[i].kind == hxcrate::MemberKind::item) items.push_back(i);
  std::stable_sort(items.begin(), items.end(), [&](std::size_t a, std::size_t b) {
    return members[a].container < members[b].container;
  });
  std::vector<FolderCost> folders;
  for (auto item = items.begin(); item != items.end();) {
    FolderCost cost = costs_[members[*item].container];
    cost.store = members[*item].container;
    SizeForecast forecast;
    for (; item != items.end() && members[*item].container == cost.store; ++item)
      forecast.addItem(members[*item].size);
    cost.items = forecast.items();
    cost.bestPageSize = forecast.bestPageSize(false);
    cost.bestTakes = itemSpace(forecast, cost.bestPageSize);
    if (cost.takes <= cost.bestTakes && inspection_.pageSize() > 0) {
      cost.bestPageSize = inspection_.pageSize();  // smaller pages than anybody would choose
      cost.bestTakes = cost.takes;
    }
    folders.push_back(cost);
  }
  std::stable_sort(folders.begin(), folders.end(),
                   [](const auto& a, const auto& b) { return a.takes > b.takes; });
  return folders;
}

}  // namespace tool
