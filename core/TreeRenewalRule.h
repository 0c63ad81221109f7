// When an adapter that lost the thread of its change feed asks for a new tree: once the loss is
// flagged and a minute has passed since the last full tree request, so that a feed failing
// again and again does not make the core reload the tree back to back.
//
//   tree_renewal_.OnFullTreeRequested();   // in GetFullTree
//   tree_renewal_.RequestRenewal();        // the feed's cursor was refused
//   return tree_renewal_.ShouldRenew();    // in ShouldRenewTree
//
// Times are wall times of utils::GetClock(); a clock that went back answers false.
#pragma once

#include <atomic>
#include <cstdint>

class TreeRenewalRule {
 public:
  static constexpr std::int64_t kMinIntervalMs = 60'000;

  void RequestRenewal() { renewal_requested_ = true; }
  // Clears the request: the new tree starts the feed afresh.
  void OnFullTreeRequested();
  bool ShouldRenew() const;
  // The loss is flagged, whether or not the minute has passed.
  bool IsRequested() const { return renewal_requested_; }

 private:
  static constexpr std::int64_t kNever = INT64_MIN;

  std::atomic<bool> renewal_requested_{false};
  std::atomic<std::int64_t> last_full_tree_ms_{kNever};
};
