#ifndef KEP_SIM_SERVICE_H
#define KEP_SIM_SERVICE_H

#include "sim/scenario.h"

#include <functional>
#include <mutex>
#include <string_view>
#include <vector>

// Runs `action` on the main loop after `ms` milliseconds; may be called from any thread.
void later(guint ms, std::function<void()> action);

// The connection manager as the simulator plays it at /com/calyra/kep, and
// the simulator's control interface com.calyra.kep.Sim on the same object.
// GDBus checks calls against the interface file and refuses the wrong ones
// itself; a filter on the connection sees every call first, lists it, and
// answers it itself when it is the next call of a recorded dialog.
class Service
{
public:
    Service(Scenario scenario, bool trace)
        : m_state(std::move(scenario))
        , m_trace(trace)
    { }
    bool serve(GDBusConnection *bus, GError **error);
    void startReplay(); // plays the signals that come before the dialog's first call

private:
    struct Call {
        std::string member, signature, body;
        bool refused;
    };
    static void dispatch(GDBusConnection *, const char *sender, const char *path, const char *interface,
                         const char *method, GVariant *args, GDBusMethodInvocation *call, gpointer self);
    static GDBusMessage *filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer self);
    void properties(std::string_view method, GVariant *args, GDBusMethodInvocation *call);
    void control(std::string_view method, GVariant *args, GDBusMethodInvocation *call);
    void emitAll(GVariant *burst, GDBusMethodInvocation *call);
    void emit(const char *signal, GVariant *args);

    // The service's behaviour (behaviour.cpp).
    void method(std::string_view method, GVariant *args, GDBusMethodInvocation *call);
    Variant property(const std::string &name) const; // Details made from the state unless one was given
    std::string mode() const;
    void switchMode(const std::string &mode);
    void say(const char *signal, GVariant *args); // a signal of the service's own: none when silent

    // Playing a recorded dialog (replay.cpp).
    bool replayed(GDBusMessage *call); // on GDBus's thread: true when the call was the dialog's next one
    void play(size_t from);            // the signals from step `from` on, up to the next call
    void answer(const Step &step, GDBusMessage *call);

    Scenario m_state;
    const bool m_trace;
    GDBusConnection *m_bus = nullptr; // the connection served on, which outlives the service
    std::string m_softApInterface = "uap0";
    bool m_wpsRunning = false;
    std::vector<Object<GDBusMethodInvocation>> m_unanswered;
    std::mutex m_replayLock; // the dialog is followed on GDBus's thread
    size_t m_nextCall = 0;   // the dialog's next step that is a call
    std::vector<Object<GDBusMessage>> m_unansweredReplays;
    std::mutex m_callsLock; // the filter runs on GDBus's own thread
    std::vector<Call> m_calls;
};

#endif
