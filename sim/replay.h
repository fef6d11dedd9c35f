#ifndef KEP_SIM_REPLAY_H
#define KEP_SIM_REPLAY_H

// Playing a recorded dialog: the program's calls are answered as the service answered them, for as long
// as they come in the recorded order, and the service's signals follow at their recorded delays. A call
// that is not the dialog's next one is named, and left to the simulated service; the dialog then still
// waits for the call it expected. Once the dialog is played, the simulated service answers everything.
#include "sim/format/scenario.h"
#include "sim/timers.h"

#include <functional>
#include <mutex>

class Replay
{
public:
    explicit Replay(Dialog dialog)
        : m_dialog(std::move(dialog))
    { }

    // Plays the signals that come before the dialog's first call, on `bus`, once the main loop runs.
    void start(GDBusConnection *bus);

    // On GDBus's own thread: whether `call` is the dialog's next call, in which case it is answered
    // from the dialog.
    bool answered(GDBusMessage *call);

private:
    // Signals being played: the steps from `next` up to `end`, timed from `start`.
    struct SignalRun {
        size_t next;
        size_t end;
        gint64 start;    // monotonic microseconds
        gint64 playedMs; // when the last one played was due, since `start`
    };
    void watch();
    void playDue(SignalRun signals);
    void sayIfStuck();
    void afterPending(guint ms, std::function<void()> action);
    void answer(const Step &step, GDBusMessage *call);
    void playSignals(size_t from); // the signals from step `from` on, up to the next call

    const Dialog m_dialog;
    GDBusConnection *m_bus = nullptr; // the connection served on, which outlives the replay
    std::mutex m_lock;                // the dialog is followed on GDBus's thread
    size_t m_nextCall = 0;            // the dialog's next step that is a call
    // What tells a dialog that is stuck, waiting for a call that does not come, from one still playing.
    size_t m_pending = 0;           // answers and signals still to be sent
    bool m_callerWaits = false;     // the last call is one the recording never answered
    gint64 m_lastActivity = 0;      // when a call came or something was sent last
    size_t m_saidStuckAt = NotSaid; // the step last said to be stuck at
    static constexpr size_t NotSaid = size_t(-1);
    Timers m_timers; // last: its actions, which call the replay, go before the rest of it
};

#endif
