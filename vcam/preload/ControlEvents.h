// V4L2 control events on the capture node (VIDIOC_SUBSCRIBE_EVENT, VIDIOC_DQEVENT): an open
// file subscribes to controls, and a change of a control's value or flags made through any open
// file of this process reaches it. As with the V4L2 core, at most one event per control waits;
// a newer one takes its place at the end of the queue with both changes.
#ifndef TALVORO_VCAM_CONTROL_EVENTS_H
#define TALVORO_VCAM_CONTROL_EVENTS_H

#include <linux/videodev2.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

namespace vcam {

class StandardControls;

class EventQueue {
  public:
    // 0 or -EINVAL (another event type, an unknown control). `initial`: the event that
    // V4L2_EVENT_SUB_FL_SEND_INITIAL queues at once, or null.
    int subscribe(const v4l2_event_subscription& sub, const v4l2_event* initial);
    int unsubscribe(const v4l2_event_subscription& sub);
    // 0, -ENOENT when nothing waits on a non-blocking descriptor; a blocking one waits.
    int dequeue(v4l2_event* event, bool nonBlocking);
    // Queues `event` if its control is subscribed. `own`: this open file made the change, which
    // it hears of only for flags or with V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK.
    void post(const v4l2_event& event, bool own);
    bool pending() const;

  private:
    struct Subscription {
        uint32_t id;
        uint32_t flags;
    };
    const Subscription* find(uint32_t id) const;
    void queue(const v4l2_event& event);

    mutable std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<Subscription> subscriptions_;
    std::deque<v4l2_event> pending_;
    uint32_t sequence_ = 0;
};

// The values and flags of the camera's standard controls at one moment.
struct ControlSnapshot {
    std::vector<int32_t> values;
    std::vector<uint32_t> flags;
};
ControlSnapshot snapshotControls(StandardControls& controls);
// The events that tell what changed between two snapshots.
std::vector<v4l2_event> controlEvents(const ControlSnapshot& before, const ControlSnapshot& after);
// The event of control `id` with `changes`, describing its current state (the initial event).
bool currentControlEvent(StandardControls& controls, uint32_t id, uint32_t changes,
                         v4l2_event* event);

}  // namespace vcam

#endif
