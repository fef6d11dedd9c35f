#ifndef KEP_SIM_SERVICE_H
#define KEP_SIM_SERVICE_H

// The service's D-Bus side: the connection manager at /com/calyra/kep, and the simulator's control
// interface com.calyra.kep.Sim on the same object. GDBus checks calls against the interface file and
// refuses the wrong ones itself; a filter on the connection sees every call first, lists it, and lets a
// recorded dialog answer it when it is the dialog's next call. The rest goes to the device.
#include "sim/device.h"
#include "sim/replay.h"

#include <deque>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

class Service
{
public:
    Service(Scenario scenario, bool trace);
    bool serve(GDBusConnection *bus, GError **error);
    void startReplay(); // plays the signals that come before the dialog's first call

private:
    // A call as the control interface lists it.
    struct Call {
        std::string member;
        std::string signature;
        std::string body;
        bool refused;
    };
    // A read fault: the error name and message a read answers with; an empty name: never answered.
    using ReadFault = std::pair<std::string, std::string>;

    static void dispatch(GDBusConnection *, const char *sender, const char *path, const char *interface,
                         const char *member, GVariant *args, GDBusMethodInvocation *invocation,
                         gpointer self);
    static GDBusMessage *filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer self);
    void properties(std::string_view member, GVariant *args, GDBusMethodInvocation *invocation);
    void read(const char *name, GDBusMethodInvocation *invocation);
    void control(std::string_view member, GVariant *args, GDBusMethodInvocation *invocation);
    // The control interface's methods, each answering its call.
    void listCalls(GVariant *args, GDBusMethodInvocation *invocation);
    void clearCalls(GVariant *args, GDBusMethodInvocation *invocation);
    void reset(GVariant *args, GDBusMethodInvocation *invocation);
    void setProperty(GVariant *args, GDBusMethodInvocation *invocation);
    void failReads(GVariant *args, GDBusMethodInvocation *invocation);
    void emitSignal(GVariant *args, GDBusMethodInvocation *invocation);
    void emitSignals(GVariant *args, GDBusMethodInvocation *invocation);
    void emitAll(GVariant *burst, GDBusMethodInvocation *invocation);
    void emit(const char *signal, GVariant *args);
    void forgetCalls();

    const bool m_trace;
    Device m_device;
    Replay m_replay;
    GDBusConnection *m_bus = nullptr; // the connection served on, which outlives the service
    std::map<std::string, ReadFault> m_readFaults;
    std::deque<Object<GDBusMethodInvocation>> m_unanswered; // the oldest first, at most MaxUnanswered
    std::mutex m_callsLock;                                 // the filter runs on GDBus's own thread
    std::deque<Call> m_calls; // the latest, at most MaxCallsKept and MaxCallsBytes
    size_t m_callsBytes = 0;  // of their texts
};

#endif
