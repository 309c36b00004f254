#include "core/io/pending_trip_poller.hpp"

#include "core/context.hpp"

PendingTripPoller::PendingTripPoller(const std::vector<InterlockIO*>& interlocks) {
  for (auto* interlock : interlocks) {
    Context* context = interlock->context();
    Group* group = nullptr;
    for (auto& g : groups_)
      if (g->context == context) group = g.get();
    if (!group) {
      groups_.push_back(std::make_unique<Group>());
      group = groups_.back().get();
      group->context = context;
    }
    group->interlocks.push_back(interlock);
  }
}

void PendingTripPoller::poll() {
  for (auto& owned : groups_) {
    Group& group = *owned;
    if (!any_pending(group)) continue;
    Context* context = group.context;
    if (!context || !context->running() || context->in_context()) {
      reevaluate(group);
      continue;
    }
    if (group.queued.exchange(true)) continue;
    context->post([&group] {
      group.queued = false;
      reevaluate(group);
    });
  }
}

bool PendingTripPoller::any_pending(const Group& group) {
  for (auto* interlock : group.interlocks)
    if (interlock->pending()) return true;
  return false;
}

void PendingTripPoller::reevaluate(Group& group) {
  for (auto* interlock : group.interlocks)
    if (interlock->pending()) interlock->evaluate();
}
