#ifndef KEP_SIM_TIMERS_H
#define KEP_SIM_TIMERS_H

// Actions run later on the main loop, owned by the object that sets them: those still to run are
// cancelled when it goes, or when it cancels them, so none outlives what it calls.
#include <glib.h>

#include <functional>
#include <mutex>
#include <set>

class Timers
{
public:
    using Id = guint;

    Timers() = default;
    Timers(const Timers &) = delete;
    Timers &operator=(const Timers &) = delete;
    ~Timers(); // on the main loop's thread

    // Runs `action` once on the main loop after `ms` milliseconds; may be called from any thread.
    Id after(guint ms, std::function<void()> action);
    // Cancels an action still to run; one already run or cancelled is no fault.
    void cancel(Id id);
    // Cancels every action still to run.
    void cancelAll();

private:
    struct Pending;
    static gboolean run(gpointer pending);
    static void forget(gpointer pending);

    std::mutex m_lock; // actions are set on GDBus's thread too
    std::set<Id> m_pending;
};

#endif
