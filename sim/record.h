#ifndef KEP_SIM_RECORD_H
#define KEP_SIM_RECORD_H

// Records a program's dialog with the service. The program runs on a bus of kep-sim's own, where kep-sim
// owns the service's name: every call it makes there is passed on to the service on the service's bus and
// the answer passed back, and the service's signals are sent on. On the service's bus kep-sim is one more
// client, needing no rights beyond the program's own.
#include "sim/scenario.h"

#include <memory>
#include <set>
#include <string>
#include <vector>

class Recorder
{
public:
    Recorder(GDBusConnection *service, GDBusConnection *program)
        : m_service(service)
        , m_program(program)
    { }
    ~Recorder();
    void start(); // before the program starts
    const Dialog &dialog() const { return m_dialog; }

private:
    static constexpr size_t NotRecorded = size_t(-1);
    // A call passed on, and where its step is.
    struct Call {
        Recorder *recorder;
        Object<GDBusMessage> message;
        size_t step;
        gint64 received;
    };
    static GDBusMessage *filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer self);
    static gboolean passOn(gpointer call);
    static void answered(GObject *service, GAsyncResult *result, gpointer call);
    static void signalled(GDBusConnection *, const char *sender, const char *path, const char *interface,
                          const char *signal, GVariant *args, gpointer self);
    static void departed(GDBusConnection *, const char *sender, const char *path, const char *interface,
                         const char *signal, GVariant *args, gpointer self);
    void passBack(Call &call, GDBusMessage *answer);
    guint millisecondsSinceLastStep(gint64 now);

    GDBusConnection *m_service; // outlives the recorder
    GDBusConnection *m_program; // outlives the recorder
    guint m_filter = 0;
    guint m_signals = 0;
    guint m_departures = 0;
    gint64 m_lastStep = 0;
    Dialog m_dialog;
    std::vector<std::unique_ptr<Call>> m_calls;
    std::set<std::string> m_gone; // programs that have left the bus: an answer now is one they never saw
};

#endif
