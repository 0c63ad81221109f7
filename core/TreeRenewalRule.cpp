#include "core/TreeRenewalRule.h"

#include "core/Clock.h"

void TreeRenewalRule::OnFullTreeRequested() {
  last_full_tree_ms_ = utils::GetClock().NowMs();
  renewal_requested_ = false;
}

bool TreeRenewalRule::ShouldRenew() const {
  if (!renewal_requested_) {
    return false;
  }
  const std::int64_t last = last_full_tree_ms_;
  if (last == kNever) {
    return true;
  }
  const std::int64_t now = utils::GetClock().NowMs();
  return now >= last && now - last >= kMinIntervalMs;
}
