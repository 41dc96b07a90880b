#include "ControlEvents.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "StandardControls.h"

namespace vcam {

namespace {

v4l2_event makeEvent(const ControlInfo& c, int32_t value, uint32_t flags, uint32_t changes) {
    v4l2_event ev;
    std::memset(&ev, 0, sizeof ev);
    ev.type = V4L2_EVENT_CTRL;
    ev.id = c.id;
    ev.u.ctrl.changes = changes;
    ev.u.ctrl.type = c.type;
    ev.u.ctrl.value = value;
    ev.u.ctrl.flags = flags;
    ev.u.ctrl.minimum = c.minimum;
    ev.u.ctrl.maximum = c.maximum;
    ev.u.ctrl.step = c.step;
    ev.u.ctrl.default_value = c.defaultValue;
    return ev;
}

}  // namespace

const EventQueue::Subscription* EventQueue::find(uint32_t id) const {
    for (const Subscription& s : subscriptions_)
        if (s.id == id) return &s;
    return nullptr;
}

void EventQueue::queue(const v4l2_event& event) {
    v4l2_event ev = event;
    for (auto it = pending_.begin(); it != pending_.end(); ++it) {
        if (it->id != event.id) continue;
        ev.u.ctrl.changes |= it->u.ctrl.changes;
        pending_.erase(it);
        break;
    }
    ev.sequence = sequence_++;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    ev.timestamp.tv_sec = now.tv_sec;
    ev.timestamp.tv_nsec = now.tv_nsec;
    pending_.push_back(ev);
    cond_.notify_all();
}

int EventQueue::subscribe(const v4l2_event_subscription& sub, const v4l2_event* initial) {
    if (sub.type != V4L2_EVENT_CTRL) return -EINVAL;
    std::lock_guard<std::mutex> lock(mutex_);
    if (!find(sub.id)) subscriptions_.push_back({sub.id, sub.flags});
    if (initial && (sub.flags & V4L2_EVENT_SUB_FL_SEND_INITIAL)) queue(*initial);
    return 0;
}

int EventQueue::unsubscribe(const v4l2_event_subscription& sub) {
    std::lock_guard<std::mutex> lock(mutex_);
    const bool all = sub.type == V4L2_EVENT_ALL;
    if (!all && sub.type != V4L2_EVENT_CTRL) return 0;
    const auto gone = [&](uint32_t id) { return all || id == sub.id; };
    subscriptions_.erase(std::remove_if(subscriptions_.begin(), subscriptions_.end(),
                                        [&](const Subscription& s) { return gone(s.id); }),
                         subscriptions_.end());
    pending_.erase(std::remove_if(pending_.begin(), pending_.end(),
                                  [&](const v4l2_event& e) { return gone(e.id); }),
                   pending_.end());
    return 0;
}

int EventQueue::dequeue(v4l2_event* event, bool nonBlocking) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (pending_.empty()) {
        if (nonBlocking) return -ENOENT;
        cond_.wait(lock, [&] { return !pending_.empty(); });
    }
    *event = pending_.front();
    pending_.pop_front();
    event->pending = static_cast<uint32_t>(pending_.size());
    return 0;
}

void EventQueue::post(const v4l2_event& event, bool own) {
    std::lock_guard<std::mutex> lock(mutex_);
    const Subscription* s = find(event.id);
    if (!s) return;
    const bool flagsChanged = event.u.ctrl.changes & V4L2_EVENT_CTRL_CH_FLAGS;
    if (own && !flagsChanged && !(s->flags & V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK)) return;
    queue(event);
}

bool EventQueue::pending() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return !pending_.empty();
}

ControlSnapshot snapshotControls(StandardControls& controls) {
    ControlSnapshot s;
    for (const ControlInfo* c = StandardControls::next(0); c; c = StandardControls::next(c->id)) {
        if (c->type == V4L2_CTRL_TYPE_CTRL_CLASS) continue;
        s.values.push_back(controls.value(*c));
        s.flags.push_back(controls.flags(*c));
    }
    return s;
}

std::vector<v4l2_event> controlEvents(const ControlSnapshot& before, const ControlSnapshot& after) {
    std::vector<v4l2_event> events;
    std::size_t i = 0;
    for (const ControlInfo* c = StandardControls::next(0); c; c = StandardControls::next(c->id)) {
        if (c->type == V4L2_CTRL_TYPE_CTRL_CLASS) continue;
        uint32_t changes = 0;
        if (before.values[i] != after.values[i]) changes |= V4L2_EVENT_CTRL_CH_VALUE;
        if (before.flags[i] != after.flags[i]) changes |= V4L2_EVENT_CTRL_CH_FLAGS;
        if (changes) events.push_back(makeEvent(*c, after.values[i], after.flags[i], changes));
        ++i;
    }
    return events;
}

bool currentControlEvent(StandardControls& controls, uint32_t id, uint32_t changes,
                         v4l2_event* event) {
    const ControlInfo* c = StandardControls::find(id);
    if (!c || c->type == V4L2_CTRL_TYPE_CTRL_CLASS) return false;
    *event = makeEvent(*c, controls.value(*c), controls.flags(*c), changes);
    return true;
}

}  // namespace vcam
