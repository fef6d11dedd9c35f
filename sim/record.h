#ifndef KEP_SIM_RECORD_H
#define KEP_SIM_RECORD_H

// Records a program's dialog with the service. The program runs on a bus of kep-sim's own, where kep-sim
// owns the service's name: every call it makes there is passed on to the service on the service's bus and
// the answer passed back, and the service's signals are sent on. On the service's bus kep-sim is one more
// client, needing no rights beyond the program's own.
//
// The recording is written as it goes, at the path it is for: a step as soon as it is whole (a call once
// it is answered), and on the disk within a second. Secrets are taken out unless they are to be kept.
#include "sim/format/scenario.h"
#include "sim/format/secrets.h"
#include "sim/output.h"

#include <deque>

class Recorder
{
public:
    Recorder(GDBusConnection *service, GDBusConnection *program, OutputFile &output, bool keepSecrets)
        : m_service(service)
        , m_program(program)
        , m_output(output)
        , m_keepSecrets(keepSecrets)
    { }
    ~Recorder();
    bool start(); // before the program starts: the recording's head, not yet at its path
    void begin(); // once the program has started: the recording at its path

    // Once the program has ended: the calls still unanswered as such, then the service's state. False,
    // with the problem said, when the recording could not be written.
    bool finish(const std::vector<Entry> &properties);

    size_t secretsRemoved() const { return m_remover.removed(); }

private:
    // A step, and whether it is whole: a call is once it is answered or is waited for no longer.
    struct Pending {
        Step step;
        gint64 at; // when it came, since the recording began, in microseconds
        bool whole;
    };
    // A call passed on, and where its step is.
    struct Call {
        Recorder *recorder;
        Object<GDBusMessage> message;
        bool recorded;
        guint64 sequence; // of its step
        gint64 received;
    };
    static GDBusMessage *filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer self);
    static gboolean passOn(gpointer call);
    static void answered(GObject *service, GAsyncResult *result, gpointer call);
    static void signalled(GDBusConnection *, const char *sender, const char *path, const char *interface,
                          const char *signal, GVariant *args, gpointer self);
    static void serviceClosed(Recorder *recorder);
    static gboolean tick(gpointer self);
    void passBack(Call &call, GDBusMessage *answer);
    void serviceGone();
    void add(Step step, gint64 now, bool whole);
    void writeWhole();
    void write(const Step &step);
    bool appendCleanedSteps(OutputFile &whole);

    GDBusConnection *m_service; // outlives the recorder
    GDBusConnection *m_program; // outlives the recorder
    OutputFile &m_output;
    const bool m_keepSecrets;
    SecretRemover m_remover;
    guint m_filter = 0;
    guint m_signals = 0;
    gulong m_closedHandler = 0;
    guint m_ticks = 0;
    gint64 m_start = 0;
    std::deque<Pending> m_pending; // the steps not yet written, in the order they came
    guint64 m_firstPending = 0;    // the sequence number of the first of them
    guint64 m_lastStepMs = 0;      // when the last step written came, rounded
    bool m_wroteStep = false;
    bool m_serviceGone = false;
    bool m_writeFailed = false;
};

#endif
